#include "endpointregistry/NamedStringArray.h"

#include "tests/endpointregistry/LoggersReportedFailure.h"
#include "tests/endpointregistry/NamedStringArrayTools.h"

#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>

using agent::spf::endpointregistry::deleteNamedStringArray;
using agent::spf::endpointregistry::getNamedStringArrayDimensions;
using tests::NamedStringArray;

namespace {

constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();
const std::string emptyName = "NamedStringArray name cannot be empty.";

class NamedStringArrayNames : public tests::NamedStringArrayTest {};

} // namespace

TEST_F(NamedStringArrayNames, OfBasesAreTheNameAndTheVersion) {
    EXPECT_EQ(NamedStringArray::getBaseName("qvEndpointRegistrySysV", 0, ""),
              "qvEndpointRegistrySysVv0");
    EXPECT_EQ(NamedStringArray::getBaseName("x", 12, ""), "xv12");
    EXPECT_EQ(NamedStringArray::getBaseName("x", largest, ""), "xv18446744073709551615");
    EXPECT_EQ(NamedStringArray::getBaseName("a b/c", 1, ""), "a b/cv1");
}

TEST_F(NamedStringArrayNames, OfBasesDoNotTellTheTrustee) {
    EXPECT_EQ(NamedStringArray::getBaseName("x", 1, "no such group"), "xv1");
}

TEST_F(NamedStringArrayNames, OfContainersAreTheBaseAndTheGeneration) {
    EXPECT_EQ(NamedStringArray::getContainerName("qvEndpointRegistrySysVv0", 1),
              "qvEndpointRegistrySysVv01");
    EXPECT_EQ(NamedStringArray::getContainerName("qvEndpointRegistrySysVv0", 12),
              "qvEndpointRegistrySysVv012");
    EXPECT_EQ(NamedStringArray::getContainerName("", largest), "18446744073709551615");
}

TEST_F(NamedStringArrayNames, MustNotBeEmpty) {
    using tests::expectThrown;
    expectThrown<std::invalid_argument>([] { NamedStringArray("", 0, ""); }, emptyName);
    expectThrown<std::invalid_argument>([] { NamedStringArray::getBaseName("", 1, ""); },
                                        emptyName);
    expectThrown<std::invalid_argument>([] { getNamedStringArrayDimensions("", 0, ""); },
                                        emptyName);
    expectThrown<std::invalid_argument>([] { deleteNamedStringArray("", 0, ""); }, emptyName);
}

TEST_F(NamedStringArrayNames, MayBeAnyOthers) {
    const std::string strange("\0 /%\n\xff", 6);
    NamedStringArray odd(strange, 0, "");
    odd.insert("a");
    EXPECT_EQ(odd.filter({}), tests::Entries{{"a"}});
    EXPECT_EQ(NamedStringArray(std::string("\0", 1), 0, "").filter({}), tests::Entries());
}

TEST_F(NamedStringArrayNames, TellTablesApart) {
    NamedStringArray next(name, 1, "");
    NamedStringArray longer(name + "v", 0, "");
    array.insert("a");
    next.insert("b");
    longer.insert("c");
    EXPECT_EQ(array.filter({}), tests::Entries{{"a"}});
    EXPECT_EQ(next.filter({}), tests::Entries{{"b"}});
    EXPECT_EQ(longer.filter({}), tests::Entries{{"c"}});
}

TEST_F(NamedStringArrayNames, AreFoundByTheirLettersAlone) {
    array.insert("a");
    NamedStringArray another(name, 0, "");
    EXPECT_EQ(another.filter({}), tests::Entries{{"a"}});
    another.erase("a");
    EXPECT_EQ(array.filter({}), tests::Entries());
}

TEST_F(NamedStringArrayNames, GoWithSizesOfNineBytesAndTheRows) {
    EXPECT_EQ(NamedStringArray::getContainerSize(0, 0), 9U);
    EXPECT_EQ(NamedStringArray::getContainerSize(10, 8), 89U);
    EXPECT_EQ(NamedStringArray::getContainerSize(largest, 0), 9U);
    EXPECT_EQ(NamedStringArray::getContainerSize(0, largest), 9U);
    EXPECT_EQ(NamedStringArray::getContainerSize(largest - 9, 1), largest);
    EXPECT_EQ(NamedStringArray::getContainerSize(1, largest - 10), largest - 1);
}

TEST_F(NamedStringArrayNames, GoWithTheLargestSizeWhereThatOverflows) {
    EXPECT_EQ(NamedStringArray::getContainerSize(largest - 8, 1), largest);
    EXPECT_EQ(NamedStringArray::getContainerSize(1, largest), largest);
    EXPECT_EQ(NamedStringArray::getContainerSize(largest, largest), largest);
    EXPECT_EQ(NamedStringArray::getContainerSize(1UL << 32, 1UL << 32), largest);
    EXPECT_EQ(NamedStringArray::getContainerSize((1UL << 32) + 1, 1UL << 32), largest);
}

TEST_F(NamedStringArrayNames, OfNewObjectsTouchNothing) {
    const NamedStringArray object(name, 0, "no such group");
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}

TEST_F(NamedStringArrayNames, OfTrusteesThatAreNoGroupsAreRefused) {
    NamedStringArray object(name, 0, "no such group");
    EXPECT_THROW(object.insert("a"), std::invalid_argument);
    EXPECT_THROW(object.erase("a"), std::invalid_argument);
    EXPECT_THROW(object.filter({}), std::invalid_argument);
    EXPECT_EQ(tests::kernelSegments().size(), 0U);
}
