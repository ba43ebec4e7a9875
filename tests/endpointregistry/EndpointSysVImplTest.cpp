#include "endpointregistry/detail/EndpointSysVImpl.h"

#include "endpointregistry/EntryName.h"
#include "endpointregistry/NamedStringArray.h"
#include "endpointregistry/detail/GroupFiles.h"
#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::Names;
using tests::Rows;
using tests::Sharer;

namespace {

namespace accounts = tests::accounts;
namespace fs = std::filesystem;
using accounts::anna;
using accounts::ben;
using accounts::friends;
using Record = Endpoint::SysVImpl;

const DataPair data("first", "second");
const DataPair nothing("", "");
const std::string tag = "tag";
const std::string key = "key";

std::string ownName() {
    return getName(data, tag, key, 0, friends);
}

NamedStringArray table() {
    return {tests::tableName, 0, friends};
}

bool hasFile(const std::string& name) {
    return fs::exists(tests::sharedPath(friends, name));
}

/// An entry of friends made without a record: its file, and a row unless it is to be empty.
class SharedTrace {
public:
    SharedTrace(std::string name, const std::vector<std::string>& row)
        : name(std::move(name))
        , file(groupfiles::tryLock(this->name, tests::entryParent, friends)) {
        EXPECT_TRUE(file->isLocked());
        if (!row.empty()) {
            table().insert(row);
        }
    }

    /// Lets the lock go, as a publisher does that dies.
    SharedTrace& die() {
        file.reset();
        return *this;
    }

    bool isThere() const { return hasFile(name); }

private:
    std::string name;
    std::optional<LockedFile> file;
};

/// Records of anna's for friends, made and read in processes of hers.
class EndpointSysVImpl : public tests::SharingTest {
protected:
    static void asAnna(const std::function<void()>& body) { tests::as(anna, body); }
};

} // namespace

TEST_F(EndpointSysVImpl, IsAHeldFileAndARowOfThreeElements) {
    asAnna([] {
        {
            const Record record(data, tag, key, friends);
            EXPECT_EQ(record.getTrustee(), friends);
            EXPECT_EQ(Record::getDataPair(ownName(), friends), data);
            EXPECT_EQ(tests::rowsOf(friends), (Rows{{ownName(), data.first, data.second}}));
            EXPECT_EQ(tests::sharedEntries(friends), Names{ownName()});
            const std::string path = tests::sharedPath(friends, ownName());
            EXPECT_TRUE(tests::isHeld(path));
            EXPECT_EQ(tests::modeOf(path), 0470U);
            EXPECT_EQ(tests::statusOf(path).st_uid, accounts::userId(anna));
            EXPECT_EQ(tests::statusOf(path).st_gid, accounts::groupId(friends));
            const unsigned long needed = 3 + ownName().size() + 11 + 1;
            EXPECT_EQ(getNamedStringArrayDimensions(tests::tableName, 0, friends),
                      std::make_pair(10UL, (needed + 3) / 4 * 4));
        }
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointSysVImpl, LeavesTheRowOfALivingOneOfItsNameAlone) {
    asAnna([] {
        const Record record(data, tag, key, friends);
        const std::string path = tests::sharedPath(friends, ownName());
        const auto file = foundation::os::identityAt(path);
        tests::expectLogged(
            [] {
                tests::expectThrown<Endpoint::DuplicateEndpointError>(
                    [] { const Record second(data, tag, key, friends); },
                    "Endpoint already exists in registry: A synonym endpoint was found while "
                    "trying to create the locked file");
            },
            {});
        EXPECT_EQ(tests::rowsOf(friends), (Rows{{ownName(), data.first, data.second}}));
        EXPECT_EQ(foundation::os::identityAt(path), file);
        EXPECT_TRUE(tests::isHeld(path));
        EXPECT_EQ(Record::getDataPair(ownName(), friends), data);
    });
}

TEST_F(EndpointSysVImpl, GetsNoSecondFile) {
    asAnna([] {
        Record record(data, tag, key, friends);
        EXPECT_THROW(const LockedFile file = record.createLockedFile(),
                     Endpoint::DuplicateEndpointError);
        EXPECT_TRUE(tests::isHeld(tests::sharedPath(friends, ownName())));
        EXPECT_EQ(tests::rowsOf(friends), (Rows{{ownName(), data.first, data.second}}));
    });
}

TEST_F(EndpointSysVImpl, TakesOverTheNameOfADeadOne) {
    asAnna([] {
        SharedTrace dead(ownName(), {ownName(), "old", "data"});
        table().insert({ownName(), "older", "data"});
        dead.die();
        {
            const Record record(data, tag, key, friends);
            EXPECT_EQ(tests::rowsOf(friends), (Rows{{ownName(), data.first, data.second}}));
            EXPECT_TRUE(tests::isHeld(tests::sharedPath(friends, ownName())));
        }
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointSysVImpl, TakesOverTheNameOfADeadOneOfAnotherMember) {
    std::string name;
    tests::ForkedProcess annas([&name](tests::Channel& test) {
        accounts::become(anna);
        name = test.receive();
        SharedTrace(name, {name, "old", "data"}).die();
        test.send("dead");
    });
    tests::as(ben, [&annas] {
        annas.channel().send(ownName());
        annas.channel().receive();
        ASSERT_TRUE(hasFile(ownName()));
        {
            const Record record(data, tag, key, friends);
            EXPECT_EQ(tests::rowsOf(friends), (Rows{{ownName(), data.first, data.second}}));
            EXPECT_TRUE(tests::isHeld(tests::sharedPath(friends, ownName())));
        }
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointSysVImpl, ADeadPublishersFileThatCannotBeClearedAwayIsNoLivingDuplicate) {
    asAnna([] {
        SharedTrace dead(ownName(), {});
        dead.die();
        const std::string path = tests::sharedPath(friends, ownName());
        {
            // Somebody else is clearing up in the folder, and was stopped in it.
            const auto folder = tests::openFile(path.substr(0, path.rfind('/')));
            ASSERT_EQ(::flock(folder.get(), LOCK_EX | LOCK_NB), 0);
            tests::expectReported<std::runtime_error>(
                [] { const Record record(data, tag, key, friends); },
                "System Error: File system inconsistency",
                "Endpoint::Impl::createLockedFile(): Failed to create file: <" + path +
                    ">. (Error " + std::to_string(EEXIST) + ")");
            EXPECT_EQ(tests::rowsOf(friends), Rows());
            EXPECT_TRUE(dead.isThere());
        }
        const Record record(data, tag, key, friends);
        EXPECT_EQ(Record::getDataPair(ownName(), friends), data);
    });
}

TEST_F(EndpointSysVImpl, IsClearedAwayByTheNextReadOnceItsPublisherWasKilled) {
    for (const std::string& reader : {anna, ben}) {
        for (const bool isReaped : {true, false}) {
            Sharer publisher(anna, data, tag, key, {friends});
            isReaped ? publisher.kill() : publisher.killWithoutReaping();
            tests::as(reader, [&publisher] {
                ASSERT_TRUE(hasFile(publisher.name()));
                ASSERT_EQ(tests::rowsOf(friends).size(), 1U);
                EXPECT_EQ(Record::getDataPair(publisher.name(), friends), nothing);
                tests::expectNothingShared(friends);
                EXPECT_EQ(Record::getDataPair(publisher.name(), friends), nothing);
                tests::expectNothingShared(friends);
            });
        }
    }
}

TEST_F(EndpointSysVImpl, LivesByItsLockAndNotByItsProcessId) {
    asAnna([] {
        const std::string goneId = tests::entryName(data, tag, key, tests::noProcess);
        const SharedTrace living(goneId, {goneId, "first", "second"});
        EXPECT_EQ(Record::getDataPair(goneId, friends), data);
        EXPECT_TRUE(living.isThere());

        const std::string idInUse = tests::entryName(data, tag, "other key", ::getppid());
        SharedTrace dead(idInUse, {idInUse, "first", "second"});
        EXPECT_EQ(Record::getDataPair(idInUse, friends), data);
        dead.die();
        EXPECT_EQ(Record::getDataPair(idInUse, friends), nothing);
        EXPECT_FALSE(dead.isThere());
        EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
    });
}

TEST_F(EndpointSysVImpl, OfAnotherVersionReadsAsNothingAndIsLeftAlone) {
    asAnna([] {
        std::string name = ownName();
        name.back() = '1';
        EXPECT_EQ(Record::getDataPair(name, friends), nothing);
        EXPECT_TRUE(fs::is_empty("/home/Shared"));
        EXPECT_TRUE(tests::kernelSegments().empty());

        SharedTrace other(name, {name, "first", "second"});
        other.die();
        EXPECT_EQ(Record::getDataPair(name, friends), nothing);
        EXPECT_TRUE(other.isThere());
        EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
    });
}

TEST_F(EndpointSysVImpl, OfAnotherVersionReadsAsNothingWhereNobodyCanShare) {
    fs::remove_all("/home/Shared");
    asAnna([] { EXPECT_EQ(Record::getDataPair("qvERv1", friends), nothing); });
}

TEST_F(EndpointSysVImpl, ReadsAsNothingWhenItsRowIsTooShort) {
    asAnna([] {
        for (const std::vector<std::string>& rest :
             std::vector<std::vector<std::string>>{{}, {"first"}}) {
            std::vector<std::string> row = rest;
            row.insert(row.begin(), ownName());
            const SharedTrace living(ownName(), row);
            EXPECT_EQ(Record::getDataPair(ownName(), friends), nothing);
            EXPECT_EQ(Endpoint::find(tag, key, {friends}), std::nullopt);
            EXPECT_TRUE(Endpoint::list({friends}).empty());
            EXPECT_TRUE(living.isThere());
            table().erase(row);
        }
    });
}

TEST_F(EndpointSysVImpl, ReadsAsTheFirstOfSeveralRowsOfItsName) {
    asAnna([] {
        const SharedTrace living(ownName(), {ownName(), "first", "second", "third"});
        table().insert({ownName(), "later", "row"});
        EXPECT_EQ(Record::getDataPair(ownName(), friends), data);
        EXPECT_EQ(Record::getDataPairs({ownName(), ownName()}, EntryFolder(friends), 2),
                  (tests::DataPairs{data, data}));
    });
}

TEST_F(EndpointSysVImpl, ReadsAsNothingWithoutARowAndLeavesNothingBehind) {
    asAnna([] {
        const SharedTrace living(ownName(), {});
        EXPECT_EQ(Record::getDataPair(ownName(), friends), nothing);
        EXPECT_TRUE(living.isThere());
        const std::string gone = tests::entryName(data, tag, "gone", tests::noProcess);
        EXPECT_EQ(Record::getDataPair(gone, friends), nothing);
        EXPECT_FALSE(hasFile(gone));
        EXPECT_TRUE(tests::kernelSegments().empty());
    });
}

TEST_F(EndpointSysVImpl, ErasesRowsWhoseNamesContainItsOwn) {
    asAnna([] {
        {
            const Record record(data, tag, key, friends);
            table().insert({"x" + ownName() + "y", "first", "second"});
            table().insert({"another", "first", "second"});
        }
        EXPECT_EQ(tests::rowsOf(friends), (Rows{{"another", "first", "second"}}));
    });
}

TEST_F(EndpointSysVImpl, IsToldFromAStaleOne) {
    asAnna([] {
        const foundation::os::Group group(friends);
        TableAccess access(group);
        Table rows({NamedStringArray::getBaseName(tests::tableName, 0, friends)}, access);
        SharedTrace entry(ownName(), {ownName(), "first", "second"});
        EXPECT_FALSE(Record::staleEndpointFoundAndCleanedUp(ownName(), EntryFolder(friends), rows));
        EXPECT_TRUE(entry.isThere());
        EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
        entry.die();
        EXPECT_TRUE(Record::staleEndpointFoundAndCleanedUp(ownName(), EntryFolder(friends), rows));
        tests::expectNothingShared(friends);
        EXPECT_TRUE(Record::staleEndpointFoundAndCleanedUp(ownName(), EntryFolder(friends), rows));
        tests::expectNothingShared(friends);
    });
}

TEST_F(EndpointSysVImpl, LeavesNothingWhenItCannotBeMade) {
    asAnna([] {
        const std::string zero("\0", 1);
        EXPECT_THROW(const Record record({zero, ""}, tag, key, friends), std::invalid_argument);
        EXPECT_THROW(const Record record({"", ""}, tag, "", accounts::carl), std::invalid_argument);
        EXPECT_EQ(tests::sharedEntries(friends), Names());
        EXPECT_EQ(tests::sharedEntries(accounts::carl), Names());
        EXPECT_TRUE(tests::kernelSegments().empty());
    });
}

TEST_F(EndpointSysVImpl, ReadsSeveralEntriesAsItReadsEachOfThem) {
    asAnna([] {
        const Record record(data, tag, key, friends);
        const std::string deadName = tests::entryName({"dead", ""}, tag, "dead", tests::noProcess);
        SharedTrace dead(deadName, {deadName, "dead", ""});
        dead.die();
        const std::string bareName = tests::entryName({"bare", ""}, tag, "bare", ::getpid());
        const SharedTrace bare(bareName, {});
        const EntryFolder folder(friends);
        const Names names{bareName, ownName(), deadName, "qvERv1"};
        EXPECT_EQ(Record::getDataPairs(names, folder, names.size()), tests::DataPairs{data});
        EXPECT_FALSE(dead.isThere());
        EXPECT_TRUE(bare.isThere());
        EXPECT_EQ(tests::rowsOf(friends).size(), 1U);
        EXPECT_EQ(Record::getDataPairs({}, folder, 1), tests::DataPairs());
    });
}
