#include "endpointregistry/Endpoint.h"

#include "endpointregistry/LockedFile.h"
#include "endpointregistry/NamedStringArray.h"
#include "tests/endpointregistry/LockWaitingTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

using namespace agent::spf::endpointregistry;
using tests::as;
using tests::Channel;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::Rows;
using tests::Sharer;
using tests::TracedProcess;

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::carl;
using accounts::friends;

const std::string tag = "tag";
const DataPair annas("data of", "anna");
const DataPair bens("data of", "ben");
const std::string otherRow = "row of the other table";

/// Next to the directory of the friends' records.
const std::string elsewhere = tests::sharedTop + "/" + tests::segmentParent + "/elsewhere";

enum class How { moved, exchanged };

void rename(const std::string& from, const std::string& to, unsigned flags = RENAME_NOREPLACE) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) != 0) {
        throw std::system_error(errno, std::generic_category(), from);
    }
}

NamedStringArray table() {
    return {tests::tableName, 0, friends};
}

void insertOtherRow() {
    as(anna, [] { table().insert(otherRow); });
}

/// Has another directory ready, whose records are of another table.
void prepareOther() {
    const std::string records = tests::recordFolder(friends);
    const std::string kept = elsewhere + " for a while";
    rename(records, kept);
    insertOtherRow();
    rename(records, elsewhere);
    rename(kept, records);
}

/// Whoever may add to the folders above it can do this to the directory of records.
void moveRecords(How how) {
    as(carl, [how] {
        rename(tests::recordFolder(friends), elsewhere,
               how == How::moved ? RENAME_NOREPLACE : RENAME_EXCHANGE);
    });
}

/// From here on, who spins is killed.
void limitProcessorTime() {
    constexpr rlimit seconds{2, 2};
    ASSERT_EQ(::setrlimit(RLIMIT_CPU, &seconds), 0);
}

class EndpointSharingMoved : public tests::SharingTest {
protected:
    static void forEachWay(const std::function<void(How)>& body) {
        for (const How how : {How::moved, How::exchanged}) {
            SCOPED_TRACE(how == How::moved ? "moved" : "exchanged");
            startAfresh();
            body(how);
        }
    }

    /// Lets a process of ben's, with an endpoint that is shared before or not, begin the operation,
    /// moves the records while it waits for the lock of the tables, and looks at what came of it
    /// while ben's endpoint lives.
    static void moveWhileBenWaits(How how, bool isShared,
                                  const std::function<void(Endpoint&)>& operation,
                                  const std::function<void()>& look) {
        ForkedProcess process([&](Channel& test) {
            accounts::become(ben);
            Endpoint endpoint(bens, tag, bens.second);
            if (isShared) {
                endpoint.addTrustees({friends});
            }
            test.send("prepared");
            test.receive();
            limitProcessorTime();
            operation(endpoint);
            test.send("done");
            test.receive();
        });
        process.channel().receive();
        if (how == How::exchanged) {
            prepareOther();
        }
        {
            LockedFile lock = LockedFile::getLock("baseLock", tests::tableParent, friends);
            lock.makePersistent();
            const tests::Openings openings(tests::tableLock(friends));
            process.channel().send("begin");
            openings.wait();
            moveRecords(how);
        }
        EXPECT_EQ(process.channel().receive(), "done");
        look();
        process.channel().send("end");
        EXPECT_EQ(process.waitForExit(), 0);
    }

    static void expectShared(const DataPairs& expected) {
        as(anna, [&] { EXPECT_EQ(Endpoint::list({friends}), expected); });
    }

    /// In the table that everybody comes to, besides that of the other table where it is this one.
    static void expectRows(How how, Rows expected) {
        if (how == How::exchanged) {
            expected.insert(expected.begin(), {otherRow});
        }
        as(anna, [&] { EXPECT_EQ(tests::rowsOf(friends), expected); });
    }
};

} // namespace

TEST_F(EndpointSharingMoved, ASharerThatWaitedSharesWhereOthersLook) {
    forEachWay([](How how) {
        Sharer first(anna, annas, tag, annas.second, {friends});
        moveWhileBenWaits(
            how, false, [](Endpoint& endpoint) { endpoint.addTrustees({friends}); },
            [how] {
                expectShared({annas, bens});
                as(anna, [how] {
                    EXPECT_EQ(tests::rowsOf(friends).size(), how == How::moved ? 1U : 2U);
                    EXPECT_EQ(tests::rowsOf(friends).back().at(2), bens.second);
                });
            });
        expectShared({annas});
        expectRows(how, {});
        first.end();
        expectShared({});
    });
}

TEST_F(EndpointSharingMoved, TheFirstToShareMakesTheTableWhereOthersLook) {
    forEachWay([](How how) {
        as(anna, [] {
            table().insert("anything"); // Makes the directory.
            deleteNamedStringArray(tests::tableName, 0, friends);
        });
        moveWhileBenWaits(
            how, false, [](Endpoint& endpoint) { endpoint.addTrustees({friends}); },
            [how] {
                expectShared({bens});
                as(anna, [how] {
                    EXPECT_EQ(tests::rowsOf(friends).size(), how == How::moved ? 1U : 2U);
                });
            });
        expectShared({});
        expectRows(how, {});
    });
}

TEST_F(EndpointSharingMoved, AWithdrawalThatWaitedEnds) {
    forEachWay([](How how) {
        Sharer first(anna, annas, tag, annas.second, {friends});
        moveWhileBenWaits(
            how, true, [](Endpoint& endpoint) { endpoint.removeTrustees({friends}); },
            [how] {
                expectShared({annas});
                expectRows(how, {});
            });
        first.end();
        expectShared({});
    });
}

TEST_F(EndpointSharingMoved, AnErasureThatWaitedErasesWhereOthersLook) {
    forEachWay([](How how) {
        insertOtherRow();
        moveWhileBenWaits(
            how, false, [](Endpoint&) { table().erase(otherRow); },
            [] { as(anna, [] { EXPECT_EQ(tests::rowsOf(friends), Rows()); }); });
    });
}

TEST_F(EndpointSharingMoved, LookupsAndDeletionsThatWaitedEnd) {
    forEachWay([](How how) {
        Sharer first(anna, annas, tag, annas.second, {friends});
        moveWhileBenWaits(
            how, true,
            [](Endpoint&) {
                EXPECT_EQ(Endpoint::list({friends}), (DataPairs{annas, bens}));
            },
            [] {
                expectShared({annas, bens});
            });
        first.end();
    });
    forEachWay([](How how) {
        Sharer first(anna, annas, tag, annas.second, {friends});
        moveWhileBenWaits(
            how, true, [](Endpoint&) { deleteNamedStringArray(tests::tableName, 0, friends); },
            [] {
                expectShared({annas, bens});
                as(anna, [] { EXPECT_EQ(tests::rowsOf(friends), Rows()); });
            });
        first.end();
    });
}

TEST_F(EndpointSharingMoved, WhoReplacesALostTableLeavesTheOneAloneThatTookItsPlace) {
    as(anna, [] { table().insert("lost"); });
    prepareOther();
    for (const std::string& name : tests::records(friends)) {
        if (tests::recordFolder(friends) + name != tests::baseRecord(friends)) {
            ASSERT_EQ(::unlink((tests::recordFolder(friends) + name).c_str()), 0);
        }
    }
    TracedProcess process([] {
        accounts::become(anna);
        table().insert("new");
    });
    // It has seen that the container is gone, and removes the base.
    ASSERT_TRUE(process.runToCall(SYS_shmctl, [](const TracedProcess::Arguments& arguments) {
        return arguments[1] == IPC_RMID;
    }));
    moveRecords(How::exchanged);
    constexpr int untilTheEnd = 100'000;
    ASSERT_FALSE(process.run(untilTheEnd));
    as(ben, [] { EXPECT_EQ(tests::rowsOf(friends), (Rows{{otherRow}, {"new"}})); });
}
