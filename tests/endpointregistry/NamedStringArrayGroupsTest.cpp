#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"
#include "tests/support/TestAccounts.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using tests::as;
using tests::Dimensions;
using tests::Entries;
using tests::NamedStringArray;
using tests::RawTable;

namespace {

namespace accounts = tests::accounts;

const std::string notFound =
    "NamedStringArray::deleteNamedStringArray(): Base shared memory could not be found.";

/// anna is in the groups "anna" and "friends", and may have a private table besides.
class NamedStringArrayGroups : public tests::NamedStringArrayUsersTest {
protected:
    void asAnna(const std::function<void()>& body) { as(accounts::anna, body); }

    std::string trusteeSeenBy(const std::string& trustee) const {
        return NamedStringArray(name, 0, trustee).getTrustee();
    }

    const RawTable annas{name, 0, accounts::anna};
};

bool hasLockFile(const std::string& trustee) {
    const std::string path = tests::sharedFolder("qvNamedStringArray", trustee) + "baseLock";
    return ::access(path.c_str(), F_OK) == 0;
}

} // namespace

TEST_F(NamedStringArrayGroups, HaveTablesOfTheirOwn) {
    asAnna([this] {
        shared.array().insert("of friends");
        annas.array().insert("of anna's");
        table.array().insert("private");
        EXPECT_EQ(shared.array().filter({}), Entries{{"of friends"}});
        EXPECT_EQ(annas.array().filter({}), Entries{{"of anna's"}});
        EXPECT_EQ(table.array().filter({}), Entries{{"private"}});
        for (const char* const element : {"of friends", "of anna's", "private"}) {
            annas.array().erase(element);
        }
        EXPECT_EQ(shared.array().filter({}), Entries{{"of friends"}});
        EXPECT_EQ(table.array().filter({}), Entries{{"private"}});
        EXPECT_EQ(shared.generation(), 2U);
    });
}

TEST_F(NamedStringArrayGroups, AreTheTrusteesOfTheirTables) {
    asAnna([this] {
        EXPECT_EQ(trusteeSeenBy(accounts::friends), "");
        shared.array().insert("a");
        EXPECT_EQ(trusteeSeenBy(accounts::friends), accounts::friends);
        annas.array().insert("a");
        EXPECT_EQ(trusteeSeenBy(accounts::anna), accounts::anna);
        EXPECT_EQ(trusteeSeenBy(accounts::friends), accounts::friends);
    });
}

TEST_F(NamedStringArrayGroups, AreNotTakenForOneAnother) {
    asAnna([this] {
        annas.array().insert("a");
        EXPECT_EQ(trusteeSeenBy(accounts::friends), "");
        EXPECT_EQ(shared.dimensions(), Dimensions(0, 0));
        tests::expectMessages([&] { shared.remove(); }, {{256, notFound}});
        EXPECT_EQ(annas.array().filter({}), Entries{{"a"}});
        EXPECT_EQ(annas.dimensions(), Dimensions(10, 4));
        annas.remove();

        shared.array().insert("b");
        EXPECT_EQ(trusteeSeenBy(accounts::anna), "");
        EXPECT_EQ(annas.dimensions(), Dimensions(0, 0));
        tests::expectMessages([&] { annas.remove(); }, {{256, notFound}});
        EXPECT_EQ(shared.array().filter({}), Entries{{"b"}});
    });
}

TEST_F(NamedStringArrayGroups, AreFoundInAscendingOrderByThoseWhoNameNone) {
    asAnna([this] {
        EXPECT_EQ(trusteeSeenBy(""), "");
        shared.array().insert("wider than the other");
        EXPECT_EQ(trusteeSeenBy(""), accounts::friends);
        EXPECT_EQ(table.dimensions(), Dimensions(10, 24));
        annas.array().insert("a");
        EXPECT_EQ(trusteeSeenBy(""), accounts::anna);
        EXPECT_EQ(table.dimensions(), Dimensions(10, 4));
        table.array().insert("private");
        EXPECT_EQ(trusteeSeenBy(""), "");
        EXPECT_EQ(table.dimensions(), Dimensions(10, 12));
    });
}

TEST_F(NamedStringArrayGroups, HaveTheirTablesRemovedByThoseWhoNameNone) {
    asAnna([this] {
        shared.array().insert("a");
        table.remove();
        EXPECT_FALSE(shared.hasBase());
        EXPECT_EQ(tests::kernelSegments().size(), 0U);
    });
}

TEST_F(NamedStringArrayGroups, HaveDimensionsOfTheirOwn) {
    asAnna([this] {
        annas.array().insert("a");
        shared.array().insert("abcdefghijkl");
        EXPECT_EQ(annas.dimensions(), Dimensions(10, 4));
        EXPECT_EQ(shared.dimensions(), Dimensions(10, 16));
        EXPECT_EQ(annas.dimensions(), Dimensions(10, 4));
    });
}

TEST_F(NamedStringArrayGroups, HaveTheirTablesDeletedOneWithoutTheOther) {
    asAnna([this] {
        annas.array().insert("a");
        shared.array().insert("b");
        table.array().insert("c");
        shared.remove();
        EXPECT_FALSE(hasLockFile(accounts::friends));
        EXPECT_TRUE(hasLockFile(accounts::anna));
        EXPECT_FALSE(shared.hasBase());
        EXPECT_EQ(annas.array().filter({}), Entries{{"a"}});
        EXPECT_EQ(table.array().filter({}), Entries{{"c"}});
        annas.remove();
        EXPECT_EQ(table.array().filter({}), Entries{{"c"}});
        table.remove();
        EXPECT_EQ(tests::kernelSegments().size(), 0U);
    });
}
