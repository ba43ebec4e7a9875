#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::DataPair;
using tests::DataPairs;
using tests::Sharer;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

const DataPair annas("data of", "anna");
const std::string tag = "tag";
const std::string key = "key";

/// anna and ben are friends and of one family, carl is neither.
class EndpointSharingStrangers : public tests::SharingTest {};

void expectFound(const DataPairs& expected) {
    EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), expected);
    EXPECT_EQ(Endpoint::filter(tag, {friends}), expected);
    EXPECT_EQ(Endpoint::listFromAllTrustees(), expected);
    EXPECT_EQ(Endpoint::list({friends}), expected);
}

/// What somebody who is no member may find by any lookup that asks for the group: nothing.
void expectNothingReachable(const std::function<DataPairs()>& lookup) {
    try {
        EXPECT_EQ(lookup(), DataPairs());
    } catch (const std::runtime_error&) {
        SUCCEED();
    }
}

} // namespace

TEST_F(EndpointSharingStrangers, ShowsStrangersNothing) {
    Sharer publisher(anna, annas, tag, key, {friends});
    as(carl, [] {
        EXPECT_EQ(Endpoint::findFromAllTrustees(tag, key), std::nullopt);
        EXPECT_EQ(Endpoint::filterFromAllTrustees(tag), DataPairs());
        EXPECT_EQ(Endpoint::listFromAllTrustees(), DataPairs());
        expectNothingReachable([] { return Endpoint::list({friends}); });
        expectNothingReachable([] { return Endpoint::filter(tag, {friends}); });
        expectNothingReachable([] {
            const auto found = Endpoint::find(tag, key, {friends});
            return found ? DataPairs{*found} : DataPairs();
        });
        Endpoint endpoint({"data of", "carl"}, tag, key);
        EXPECT_THROW(endpoint.addTrustees({friends}), std::invalid_argument);
    });
    as(ben, [] { expectFound({annas}); });
    publisher.end();
}

TEST_F(EndpointSharingStrangers, LetsStrangersEnterNoFolderAndAttachToNoSegment) {
    Sharer publisher(anna, annas, tag, key, {friends});
    as(carl, [&publisher] {
        for (const std::string& folder :
             {tests::sharedFolder(tests::entryParent, friends), tests::recordFolder(friends),
              tests::sharedFolder(tests::tableParent, friends)}) {
            EXPECT_EQ(::open(folder.c_str(), O_RDONLY | O_DIRECTORY), -1);
            EXPECT_EQ(errno, EACCES);
            EXPECT_EQ(::open((folder + "planted").c_str(), O_WRONLY | O_CREAT, 0600), -1);
            EXPECT_EQ(errno, EACCES);
        }
        EXPECT_EQ(
            ::open(tests::sharedPath(friends, publisher.name()).c_str(), O_RDONLY | O_CLOEXEC), -1);
        EXPECT_EQ(errno, EACCES);
        const auto segments = tests::kernelSegments();
        EXPECT_EQ(segments.size(), 2U);
        for (const tests::KernelSegment& segment : segments) {
            // Without a key there is nothing to guess.
            EXPECT_EQ(segment.status.shm_perm.__key, IPC_PRIVATE);
            for (const int flags : {SHM_RDONLY, 0}) {
                EXPECT_EQ(::shmat(segment.id, nullptr, flags),
                          reinterpret_cast<void*>(-1)); // NOLINT: the system's value for failure
                EXPECT_EQ(errno, EACCES);
            }
        }
    });
    publisher.end();
}

TEST_F(EndpointSharingStrangers, MakesFoldersAndSegmentsForTheGroupUnderAnyUmask) {
    // A mask that takes even the owner's rights is got round by way of /proc.
    const bool hasProc = ::access("/proc/self/fd", F_OK) == 0;
    for (const mode_t mask : {0000U, 0077U, hasProc ? 0777U : 0177U}) {
        clearMachine();
        tests::provideSharedFolder();
        SCOPED_TRACE(mask);
        as(anna, [mask] {
            Endpoint endpoint(annas, tag, key);
            ::umask(mask);
            endpoint.addTrustees({friends});
            const gid_t group = accounts::groupId(friends);
            EXPECT_EQ(tests::modeOf(tests::sharedTop), 0777U);
            for (const std::string& folder :
                 {tests::sharedFolder(tests::entryParent, friends), tests::recordFolder(friends),
                  tests::sharedFolder(tests::tableParent, friends)}) {
                EXPECT_EQ(tests::modeOf(folder + ".."), 0777U);
                EXPECT_EQ(tests::modeOf(folder), 0770U);
                EXPECT_EQ(tests::statusOf(folder).st_gid, group);
            }
            for (const std::string& record : tests::records(friends)) {
                EXPECT_EQ(tests::modeOf(tests::recordFolder(friends) + record), 0440U);
            }
            for (const tests::KernelSegment& segment : tests::kernelSegments()) {
                EXPECT_EQ(segment.status.shm_perm.mode & 0777U, 0660U);
                EXPECT_EQ(segment.status.shm_perm.gid, group);
            }
        });
    }
}

TEST_F(EndpointSharingStrangers, CannotKeepMembersWaiting) {
    const Sharer publisher(anna, annas, tag, key, {friends});
    tests::ForkedProcess stranger([](tests::Channel& test) {
        accounts::become(carl);
        // What stands in the folders above a group's, everybody may replace.
        const std::string folder = tests::sharedFolder(tests::tableParent, friends);
        const std::string elsewhere = tests::sharedTop + "/" + tests::tableParent + "/elsewhere/";
        EXPECT_EQ(::rename(folder.c_str(), elsewhere.c_str()), 0);
        tests::makeFolder(folder, 0755);
        tests::makeFile(folder + "baseLock", 0644);
        const auto file = tests::openFile(folder + "baseLock");
        EXPECT_EQ(::flock(file.get(), LOCK_EX), 0);
        test.send("held");
        test.receive();
    });
    ASSERT_EQ(stranger.channel().receive(), "held");
    tests::ForkedProcess member([](tests::Channel& test) {
        accounts::become(ben);
        EXPECT_THROW(Endpoint::list({friends}), std::runtime_error);
        test.send("refused");
    });
    EXPECT_EQ(member.channel().receive(), "refused");
    EXPECT_EQ(member.waitForExit(), 0);
    stranger.channel().send("end");
    EXPECT_EQ(stranger.waitForExit(), 0);
}
