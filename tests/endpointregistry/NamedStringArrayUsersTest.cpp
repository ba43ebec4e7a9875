#include "endpointregistry/NamedStringArray.h"

#include "foundation/os/FileIdentity.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/platform/RecordTools.h"
#include "tests/support/TestAccounts.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/shm.h>

using tests::as;
using tests::BaseContent;
using tests::Dimensions;
using tests::Entries;

namespace {

namespace accounts = tests::accounts;

/// anna and ben are friends, carl is not.
class NamedStringArrayUsers : public tests::NamedStringArrayUsersTest {
protected:
    void insertAs(const std::string& user, const std::string& element) {
        as(user, [&] { shared.array().insert(element); });
    }
    void eraseAs(const std::string& user, const std::string& element) {
        as(user, [&] { shared.array().erase(element); });
    }
    void expectRows(const Entries& entries) {
        for (const std::string& user : {accounts::anna, accounts::ben}) {
            as(user, [&] { EXPECT_EQ(shared.array().filter({}), entries); });
        }
    }

    /// Lets every user remove what others removed of its segments, and counts the rest.
    static std::size_t segmentsAtLast() {
        for (const std::string& user : {accounts::anna, accounts::ben}) {
            as(user, tests::useSharedMemoryOfFriends);
        }
        return tests::kernelSegments().size();
    }
};

} // namespace

TEST_F(NamedStringArrayUsers, ShareTheTableOfTheirGroup) {
    insertAs(accounts::anna, "of anna");
    insertAs(accounts::ben, "of ben");
    expectRows({{"of anna"}, {"of ben"}});
    as(accounts::ben, [this] {
        EXPECT_EQ(shared.array().getTrustee(), accounts::friends);
        EXPECT_EQ(shared.dimensions(), Dimensions(10, 12));
    });
    eraseAs(accounts::ben, "of anna");
    expectRows({{"of ben"}});
    eraseAs(accounts::anna, "of ben");
    expectRows({});
    EXPECT_EQ(segmentsAtLast(), 2U);
}

TEST_F(NamedStringArrayUsers, ResizeWhatOthersMade) {
    insertAs(accounts::anna, "a");
    insertAs(accounts::ben, "an entry that is wider than the first");
    insertAs(accounts::anna, "an entry that is wider than the first and the second");
    expectRows({{"a"},
                {"an entry that is wider than the first"},
                {"an entry that is wider than the first and the second"}});
    eraseAs(accounts::ben, "an entry that is wider than the first and the second");
    eraseAs(accounts::anna, "an entry that is wider than the first");
    expectRows({{"a"}});
    as(accounts::ben, [this] { EXPECT_EQ(shared.dimensions(), Dimensions(10, 4)); });
    EXPECT_EQ(segmentsAtLast(), 2U);
}

TEST_F(NamedStringArrayUsers, DeleteWhatOthersMade) {
    insertAs(accounts::anna, "a");
    as(accounts::ben, [this] {
        shared.remove();
        EXPECT_FALSE(shared.hasBase());
    });
    expectRows({});
    insertAs(accounts::ben, "b");
    expectRows({{"b"}});
    as(accounts::anna, [this] { EXPECT_EQ(shared.generation(), 2U); });
    EXPECT_EQ(segmentsAtLast(), 2U);
}

TEST_F(NamedStringArrayUsers, ResizeInTurnWithoutEnd) {
    for (int round = 0; round < 20; ++round) {
        insertAs(round % 2 == 0 ? accounts::anna : accounts::ben, "an entry");
        eraseAs(round % 2 == 0 ? accounts::ben : accounts::anna, "an entry");
    }
    expectRows({});
    EXPECT_LE(tests::kernelSegments().size(), 8U);
    EXPECT_EQ(segmentsAtLast(), 2U);
}

TEST_F(NamedStringArrayUsers, OutsideTheGroupReachNothing) {
    insertAs(accounts::anna, "secret");
    as(accounts::carl, [this] {
        EXPECT_THROW(shared.array().insert("of carl"), std::runtime_error);
        EXPECT_EQ(shared.array().filter({}), Entries());
        EXPECT_NO_THROW(shared.array().erase("secret"));
        EXPECT_EQ(shared.array().getTrustee(), "");
        EXPECT_EQ(shared.dimensions(), Dimensions(0, 0));
        EXPECT_NO_THROW(shared.remove());
        ASSERT_EQ(tests::kernelSegments().size(), 2U);
        for (const int id : tests::kernelSegments()) {
            errno = 0;
            // NOLINTNEXTLINE: the system call's own mark of failure
            EXPECT_EQ(::shmat(id, nullptr, SHM_RDONLY), reinterpret_cast<void*>(-1));
            EXPECT_EQ(errno, EACCES);
        }
    });
    expectRows({{"secret"}});
}

TEST_F(NamedStringArrayUsers, OutsideTheGroupMakeNothingInItsPlace) {
    as(accounts::carl,
       [this] { EXPECT_THROW(shared.array().insert("of carl"), std::runtime_error); });
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
    insertAs(accounts::anna, "of anna");
    expectRows({{"of anna"}});
}

TEST_F(NamedStringArrayUsers, DoNotMeetInPrivateTables) {
    for (const std::string& user : {accounts::anna, accounts::ben}) {
        as(user, [&] {
            array.insert("of " + user);
            EXPECT_EQ(array.filter({}), Entries{{"of " + user}});
        });
    }
    as(accounts::anna, [this] { table.remove(); });
    as(accounts::ben, [this] { EXPECT_EQ(array.filter({}), Entries{{"of ben"}}); });
}

TEST_F(NamedStringArrayUsers, LoseATableThatItsMakersLoginTookAlong) {
    insertAs(accounts::anna, "of anna");
    insertAs(accounts::ben, "an entry that is wider than the first");
    as(accounts::anna, [] {
        for (const int id : tests::kernelSegments()) {
            ::shmctl(id, IPC_RMID, nullptr);
        }
    });
    expectRows({});
    insertAs(accounts::ben, "b");
    expectRows({{"b"}});
}

TEST_F(NamedStringArrayUsers, ANewTableLeavesNoContainerOfOneThatALogoutEnded) {
    insertAs(accounts::anna, "of anna");
    insertAs(accounts::ben, "an entry that is wider than the first");
    insertAs(accounts::ben, "an entry that is wider than the second by far");
    const unsigned long last = shared.generation();
    ASSERT_TRUE(shared.hasContainer(last));
    // Of the base, which was hers.
    as(accounts::anna, [] {
        for (const int id : tests::kernelSegments()) {
            ::shmctl(id, IPC_RMID, nullptr);
        }
    });
    ASSERT_FALSE(shared.hasBase());
    ASSERT_TRUE(shared.hasContainer(last)) << "ben's";
    insertAs(accounts::anna, "a");
    ASSERT_LT(shared.generation(), last);
    EXPECT_FALSE(shared.hasContainer(last));
    expectRows({{"a"}});
    as(accounts::ben, tests::useSharedMemoryOfFriends);
    EXPECT_EQ(tests::kernelSegments().size(), 2U) << "he was told to remove it";
}

TEST_F(NamedStringArrayUsers, ANewTableLeavesNoRecordOfOneThatARebootEnded) {
    insertAs(accounts::anna, "of anna");
    insertAs(accounts::anna, "an entry that is wider than the first");
    const std::string lastRecord =
        tests::sysv::recordOf(shared.containerName(shared.generation()), accounts::friends);
    ASSERT_TRUE(std::filesystem::exists(lastRecord));
    for (const int id : tests::kernelSegments()) {
        ::shmctl(id, IPC_RMID, nullptr);
    }
    insertAs(accounts::ben, "b");
    EXPECT_FALSE(std::filesystem::exists(lastRecord));
    expectRows({{"b"}});
}

TEST_F(NamedStringArrayUsers, ATableWhoseContainerCannotBeOpenedIsNotReplaced) {
    insertAs(accounts::anna, "of anna");
    const BaseContent base = shared.base();
    const std::string baseRecord = tests::sysv::recordOf(shared.baseName(), accounts::friends);
    const std::string containerRecord =
        tests::sysv::recordOf(shared.containerName(shared.generation()), accounts::friends);
    const auto before = foundation::os::identityAt(baseRecord);
    // By a mistake, something else stands there.
    std::filesystem::remove(containerRecord);
    std::filesystem::create_directory(containerRecord);
    as(accounts::ben,
       [this] { EXPECT_THROW(shared.array().insert("of ben"), std::runtime_error); });
    EXPECT_EQ(foundation::os::identityAt(baseRecord), before);
    EXPECT_EQ(shared.base(), base);
    std::filesystem::remove(containerRecord);
}
