#include "endpointregistry/Endpoint.h"

#include "endpointregistry/EntryName.h"
#include "tests/endpointregistry/EndpointHintTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::DataPairs;

namespace {

namespace fs = std::filesystem;
namespace accounts = tests::accounts;
using Strings = std::vector<std::string>;

const DataPair data("ab", "c");
const std::string tag = "tag";
const std::string key = "key";

std::string hint() {
    return tests::hintPath(tag, key);
}

void makeFile(const std::string& path) {
    std::ofstream(path) << "no hint" << std::flush;
}

/// Texts that no publisher writes for this key.
std::vector<std::string> strangeTexts() {
    const std::string start = getGroupTagPrefix(tag) + getSelectedKeySubstring(key);
    const std::string living = tests::entryName({"other", ""}, tag, "other key", ::getpid());
    return {"x",
            ".",
            "..",
            "/",
            start,
            start + "l3p1v1",
            start + "l99999999999999999999p" + std::to_string(::getppid()) + "v0",
            start + std::string(NAME_MAX + 1 - start.size(), '1'),
            start + std::string(4000, '1'),
            "../qvEndpointRegistry/" + living,
            tests::entryPath(living),
            living,
            tests::entryName(data, "other tag", key, ::getpid()),
            fs::path(hint()).filename()};
}

/// In a child, whose end has a limit: what a lookup must not do is hang, too.
void inChild(const std::function<void()>& body) {
    EXPECT_EQ(tests::runInChild(body), 0);
}

/// Expects that nothing but time is lost by what `spoil` does to hints, before an entry is
/// published or while it is.
void expectOnlyTimeIsLost(const std::function<void()>& spoil) {
    inChild([&] {
        spoil();
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        spoil();
        Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::find(tag, key), data);
        spoil();
        EXPECT_EQ(Endpoint::find(tag, key), data);
        EXPECT_EQ(Endpoint::list(), DataPairs{data});
        spoil();
        endpoint.reset();
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        EXPECT_EQ(tests::entryFiles(), Strings());
        EXPECT_EQ(tests::segmentFiles(), Strings());
    });
}

class HostileHint : public tests::RegistryTest {
protected:
    void TearDown() override {
        fs::remove_all(tests::privateFolder("qvEndpointHints"));
        fs::remove(tests::privateBase() + "/qvEndpointHints");
        RegistryTest::TearDown();
    }
};

/// With something in the place of the folder of hints.
class HostileHintFolder : public HostileHint {
protected:
    static std::string path() { return tests::privateBase() + "/qvEndpointHints"; }

    /// Puts up what `make` does, in the place of the folder.
    static void expectOnlyTimeIsLostWhere(const std::function<void()>& make) {
        tests::provideEntryFolder();
        expectOnlyTimeIsLost([&] {
            fs::remove_all(path());
            make();
        });
        fs::remove_all(path());
    }
};

} // namespace

TEST_F(HostileHint, MaySayAnything) {
    for (const std::string& text : strangeTexts()) {
        SCOPED_TRACE(text);
        expectOnlyTimeIsLost([&] { tests::plantHint(tag, key, text); });
    }
}

TEST_F(HostileHint, IsRemovedByTheFirstThatReadsItAndReplacedByAPublisher) {
    for (const std::string& text : strangeTexts()) {
        SCOPED_TRACE(text);
        tests::plantHint(tag, key, text);
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        EXPECT_EQ(tests::hintFiles(), Strings());
        tests::plantHint(tag, key, text);
        const Endpoint endpoint(data, tag, key);
        EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
    }
}

TEST_F(HostileHint, DoesNotPointOutOfTheFolderOfEntries) {
    const std::string name = tests::entryName(data, tag, key, ::getpid());
    const std::string elsewhere = tests::privateFolder("elsewhere");
    tests::provideEntryFolder();
    fs::create_directory(elsewhere);
    tests::makeFile(elsewhere + name, 0400);
    const auto held = tests::openFile(elsewhere + name);
    ASSERT_EQ(::flock(held.get(), LOCK_EX | LOCK_NB), 0);
    tests::plantSegment(name, tests::segmentBytes(data));
    for (const std::string& text : {"../elsewhere/" + name, elsewhere + name}) {
        tests::plantHint(tag, key, text);
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        EXPECT_EQ(tests::hintFiles(), Strings());
    }
    fs::remove(tests::segmentPath(name));
    fs::remove_all(elsewhere);
}

TEST_F(HostileHint, MayBeAnythingButALink) {
    const std::vector<std::function<void()>> things{
        [] { makeFile(hint()); },
        [] { ASSERT_EQ(::mkfifo(hint().c_str(), 0600), 0); },
        [] { fs::create_directory(hint()); },
        [] {
            fs::create_directory(hint());
            makeFile(hint() + "/file");
        },
    };
    for (const auto& make : things) {
        expectOnlyTimeIsLost([&] {
            tests::provideHintFolder();
            fs::remove_all(hint());
            make();
        });
    }
}

TEST_F(HostileHint, IsReplacedByAPublisherWhereItIsAPipe) {
    tests::provideHintFolder();
    ASSERT_EQ(::mkfifo(hint().c_str(), 0600), 0);
    const Endpoint endpoint(data, tag, key);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
}

TEST_F(HostileHintFolder, MayBeMissing) {
    expectOnlyTimeIsLostWhere([] {});
}

TEST_F(HostileHintFolder, MayBeAnythingElse) {
    expectOnlyTimeIsLostWhere([] { makeFile(path()); });
    expectOnlyTimeIsLostWhere([] { ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0); });
    expectOnlyTimeIsLostWhere([] { fs::create_symlink("qvEndpointHints", path()); });
    expectOnlyTimeIsLostWhere([] { fs::create_symlink("nowhere", path()); });
    expectOnlyTimeIsLostWhere([] { fs::create_symlink("qvEndpointRegistry", path()); });
}

TEST_F(HostileHintFolder, MayRefuseItsOwner) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    inChild([] {
        accounts::become(accounts::anna);
        for (const mode_t mode : {0500U, 0400U, 0300U, 0U}) {
            SCOPED_TRACE(mode);
            tests::provideHintFolder();
            expectOnlyTimeIsLost([&] { ASSERT_EQ(::chmod(path().c_str(), mode), 0); });
        }
        tests::provideHintFolder();
    });
}

TEST_F(HostileHintFolder, KeepsAnyHintThatItsOwnerMayNotRemove) {
    if (!accounts::available()) {
        GTEST_SKIP() << accounts::whyNot;
    }
    inChild([] {
        accounts::become(accounts::anna);
        const DataPair first("first", "");
        {
            const Endpoint endpoint(first, tag, key);
            ASSERT_EQ(::chmod(path().c_str(), 0500), 0);
        }
        EXPECT_EQ(tests::hintFiles().size(), 1U);
        EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
        const Endpoint endpoint(data, tag, key);
        EXPECT_EQ(Endpoint::find(tag, key), data);
        ASSERT_EQ(::chmod(path().c_str(), 0700), 0);
        EXPECT_EQ(Endpoint::find(tag, key), data);
        EXPECT_EQ(tests::hintFiles(), Strings());
    });
}

TEST_F(HostileHintFolder, MayBeRemovedAtAnyTime) {
    const Endpoint first(data, tag, key);
    fs::remove_all(path());
    EXPECT_EQ(Endpoint::find(tag, key), data);
    const Endpoint second({"other", ""}, tag, "other key");
    EXPECT_TRUE(tests::isFoundByHint({"other", ""}, tag, "other key"));
}

TEST_F(HostileHintFolder, MayGoTogetherWithAllThatIsPublished) {
    // So the service manager tidies up after a user's last session; processes may outlive it.
    Endpoint first(data, tag, key);
    fs::remove_all(tests::privateBase());
    for (const std::string& segment : tests::segmentFiles()) {
        fs::remove("/dev/shm/" + segment);
    }
    EXPECT_EQ(Endpoint::find(tag, key), std::nullopt);
    const DataPair next("next", "");
    const Endpoint second(next, tag, key);
    EXPECT_TRUE(tests::isFoundByHint(next, tag, key));
    first.reset();
    EXPECT_EQ(Endpoint::find(tag, key), next);
}
