#include "endpointregistry/EndpointMonitor.h"

#include "foundation/os/FileDescriptor.h"
#include "tests/endpointregistry/EndpointMonitorTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FewDescriptors.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/UserNamespace.h"

#include <algorithm>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using foundation::os::FileDescriptor;
using tests::await;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::MonitorEvent;
using tests::MonitorEvents;

namespace {

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

/// 0 where it cannot be read.
unsigned long limitIn(const std::string& path) {
    std::ifstream file("/proc/sys/" + path);
    unsigned long value = 0;
    file >> value;
    return value;
}

/// More changes than the system keeps, of which no two neighbours are the same.
void overflow() {
    constexpr unsigned long usual = 16384;
    const unsigned long count = std::max(limitIn("fs/inotify/max_queued_events"), usual) + 1;
    const std::string folder = tests::entryFolder();
    for (unsigned long i = 0; i < count; ++i) {
        const std::string path = folder + (i % 2 == 0 ? "one" : "two");
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0), 0);
    }
}

/// A registry with two files in the folder of entries that are none.
class MonitorUnderStrain : public tests::RegistryTest {
protected:
    void SetUp() override {
        tests::RegistryTest::SetUp();
        tests::provideEntryFolder();
        tests::makeFile(tests::entryFolder() + "one", 0600);
        tests::makeFile(tests::entryFolder() + "two", 0600);
    }
    void TearDown() override {
        ::unlink((tests::entryFolder() + "one").c_str());
        ::unlink((tests::entryFolder() + "two").c_str());
        tests::RegistryTest::TearDown();
    }
};

std::string messageOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

const std::string noWatch = "Endpoint Registry Error: The system allows no further watch: ";
const std::string noDescriptor = noWatch + "RLIMIT_NOFILE (128)";

} // namespace

TEST_F(MonitorUnderStrain, ReportsExactlyWhatHasChangedThoughTheQueueOverflowed) {
    Endpoint staying({"staying", ""}, tag);
    Endpoint going({"going", ""}, tag);
    Endpoint returning({"returning", ""}, tag);
    ForkedProcess dying([](Channel& test) {
        const Endpoint endpoint({"dying", ""}, tag);
        test.send("published");
        test.receive();
    });
    dying.channel().receive();
    EndpointMonitor monitor;
    ASSERT_EQ(monitor.take().size(), 4U);
    overflow();
    const Endpoint coming({"coming", ""}, tag);
    going.reset();
    returning.reset();
    returning = Endpoint({"returning", ""}, tag);
    dying.kill();
    std::vector<std::string> seen;
    for (const MonitorEvent& event : monitor.take()) {
        const bool isAppearance = event.kind == MonitorEvent::Kind::appeared;
        seen.push_back((isAppearance ? "+" : "-") + event.data.first);
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"+coming", "+returning", "-dying", "-going",
                                              "-returning"}));
    EXPECT_EQ(monitor.list(), Endpoint::list());
    tests::expectQuiet(monitor);
}

TEST_F(MonitorUnderStrain, FindsNothingOfAKilledPublisherThoughTheQueueOverflowed) {
    EndpointMonitor monitor;
    for (int round = 0; round < 5; ++round) {
        ForkedProcess publisher([](Channel& test) {
            const Endpoint endpoint(data, tag, key);
            test.send("published");
            test.receive();
        });
        publisher.channel().receive();
        ASSERT_EQ(monitor.find(tag, key), data);
        overflow();
        publisher.kill();
        ASSERT_EQ(monitor.find(tag, key), std::nullopt);
    }
}

TEST_F(MonitorUnderStrain, WithoutDescriptorsIsAnErrorThatNamesTheLimit) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    constexpr std::size_t own = 4;
    for (std::size_t left = 0; left <= own; ++left) {
        EXPECT_EQ(tests::runInChild([left] {
                      std::exception_ptr thrown;
                      {
                          const auto hoard = tests::leaveDescriptors(left);
                          try {
                              const EndpointMonitor monitor;
                          } catch (...) {
                              thrown = std::current_exception();
                          }
                          for (std::size_t i = 0; i < left; ++i) {
                              EXPECT_NE(::open("/", O_PATH | O_CLOEXEC), -1) << "leaked";
                          }
                      }
                      ASSERT_TRUE(thrown);
                      EXPECT_EQ(messageOf([&] { std::rethrow_exception(thrown); }), noDescriptor);
                  }),
                  0)
            << left;
    }
    EXPECT_EQ(tests::runInChild([] {
                  const auto hoard = tests::leaveDescriptors(own + 1);
                  EXPECT_NO_THROW(EndpointMonitor());
              }),
              0);
}

TEST_F(MonitorUnderStrain, LosesNothingWhenDescriptorsRunOut) {
    if (!tests::canDoWithoutDescriptors) {
        GTEST_SKIP() << tests::whyDescriptorsAreNeeded;
    }
    EXPECT_EQ(tests::runInChild([] {
                  EndpointMonitor monitor;
                  ForkedProcess publisher([](Channel& test) {
                      const Endpoint endpoint(data, tag, key);
                      test.send("published");
                      test.receive();
                  });
                  publisher.channel().receive();
                  // One is enough for the folder, but not for what is in it.
                  for (const std::size_t left : {0U, 1U}) {
                      const auto hoard = tests::leaveDescriptors(left);
                      EXPECT_EQ(messageOf([&] { monitor.take(); }), noDescriptor) << left;
                      EXPECT_EQ(messageOf([&] { monitor.find(tag, key); }), noDescriptor) << left;
                  }
                  EXPECT_EQ(await(monitor, 1),
                            MonitorEvents{tests::appearanceOf(data, tag, key, publisher.pid())});
                  EXPECT_EQ(monitor.find(tag, key), data);
                  {
                      const auto hoard = tests::leaveDescriptors(0);
                      publisher.kill();
                      EXPECT_EQ(messageOf([&] { monitor.take(); }), noDescriptor);
                  }
                  EXPECT_EQ(monitor.find(tag, key), std::nullopt);
                  EXPECT_EQ(monitor.take().size(), 1U);
              }),
              0);
}

TEST_F(MonitorUnderStrain, WithoutInstancesIsAnErrorThatNamesTheLimit) {
    if (!tests::accounts::available()) {
        GTEST_SKIP() << tests::accounts::whyNot;
    }
    const unsigned long instances = limitIn("fs/inotify/max_user_instances");
    if (instances == 0 || instances > 500) {
        GTEST_SKIP() << "needs a readable and lower fs.inotify.max_user_instances";
    }
    EXPECT_EQ(tests::runInChild([] {
                  tests::accounts::become(tests::accounts::anna);
                  std::vector<FileDescriptor> hoard;
                  while (FileDescriptor next{::inotify_init1(IN_CLOEXEC)}) {
                      hoard.push_back(std::move(next));
                  }
                  const unsigned long limit = limitIn("fs/inotify/max_user_instances");
                  EXPECT_EQ(messageOf([] { const EndpointMonitor monitor; }),
                            noWatch + "fs.inotify.max_user_instances (" + std::to_string(limit) +
                                ")");
              }),
              0);
}

TEST_F(MonitorUnderStrain, WithoutWatchesIsAnErrorThatNamesTheLimit) {
    if (limitIn("user/max_inotify_watches") == 0) {
        GTEST_SKIP() << "needs a readable user.max_inotify_watches";
    }
    for (int watches = 0; watches < 4; ++watches) {
        EXPECT_EQ(tests::runInChild([watches] {
                      const uid_t user = ::geteuid();
                      const gid_t group = ::getegid();
                      if (::unshare(CLONE_NEWUSER) != 0) {
                          return; // This system does not allow it.
                      }
                      tests::mapOnly(user, group);
                      std::ofstream limit("/proc/sys/user/max_inotify_watches");
                      if (!(limit << watches << std::flush)) {
                          return;
                      }
                      const std::string message = messageOf([] { const EndpointMonitor monitor; });
                      EXPECT_EQ(message, watches < 2 ? noWatch + "user.max_inotify_watches (" +
                                                           std::to_string(watches) + ")"
                                                     : "none");
                  }),
                  0);
    }
}
