#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointHintTools.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/support/ForkedProcess.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::DataPair;
using tests::FolderWatch;

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const DataPair data("ab", "c");
const DataPair otherData("other", "data");
const std::string tag = "tag";
const std::string key = "key";

std::string ownName() {
    return tests::entryName(data, tag, key, ::getpid());
}

class EndpointHint : public tests::RegistryTest {};

} // namespace

TEST_F(EndpointHint, NamesTheEntryForAsLongAsItIsPublished) {
    Endpoint endpoint(data, tag, key);
    EXPECT_EQ(tests::hintText(tag, key), ownName());
    EXPECT_EQ(tests::hintFiles().size(), 1U);
    endpoint.reset();
    EXPECT_EQ(tests::hintFiles(), Strings());
}

TEST_F(EndpointHint, LiesInAFolderThatNobodyElseCanEnter) {
    const Endpoint endpoint(data, tag, key);
    struct stat status {};
    ASSERT_EQ(::lstat(tests::privateFolder("qvEndpointHints").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | S_IRWXU));
    EXPECT_EQ(status.st_uid, ::geteuid());
}

TEST_F(EndpointHint, SparesALookupTheFolderOfEntries) {
    const Endpoint endpoint(data, tag, key);
    const Endpoint other(otherData, tag, "other key");
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
    EXPECT_TRUE(tests::isFoundByHint(otherData, tag, "other key"));
    EXPECT_FALSE(tests::isFoundByHint(data, tag, "no key"));
}

TEST_F(EndpointHint, IsNotNeeded) {
    const Endpoint endpoint(data, tag, key);
    fs::remove_all(tests::hintFolder());
    EXPECT_FALSE(tests::isFoundByHint(data, tag, key));
    EXPECT_EQ(Endpoint::find(tag, key), data);
}

TEST_F(EndpointHint, IsMadeAndRemovedWhereAllOfTheEntryStands) {
    tests::provideHintFolder();
    FolderWatch watch({tests::entryFolder(), tests::hintFolder(), "/dev/shm"});
    const std::string segment = fs::path(tests::segmentPath(ownName())).filename();
    const std::string hint = fs::path(tests::hintPath(tag, key)).filename();
    Endpoint endpoint(data, tag, key);
    EXPECT_EQ(watch.changes(), (Strings{"+" + ownName(), "+" + segment, "+" + hint}));
    endpoint.reset();
    EXPECT_EQ(watch.changes(), (Strings{"-" + hint, "-" + segment, "-" + ownName()}));
}

TEST_F(EndpointHint, IsLeftToItsPublisherByOneThatIsRefused) {
    const Endpoint endpoint(data, tag, key);
    EXPECT_THROW(Endpoint(otherData, tag, key), Endpoint::DuplicateEndpointError);
    EXPECT_THROW(Endpoint(data, tag, "other key"), Endpoint::DuplicateEndpointError);
    EXPECT_EQ(tests::hintFiles().size(), 1U);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
}

TEST_F(EndpointHint, MovesWithTheEndpoint) {
    Endpoint endpoint(data, tag, key);
    Endpoint moved(std::move(endpoint));
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
    Endpoint other(otherData, tag, "other key");
    moved = std::move(other);
    EXPECT_EQ(tests::hintText(tag, key), std::nullopt);
    EXPECT_TRUE(tests::isFoundByHint(otherData, tag, "other key"));
}

TEST_F(EndpointHint, IsNotRemovedByAForkedChild) {
    std::optional<Endpoint> endpoint(std::in_place, data, tag, key);
    EXPECT_EQ(tests::runInChild([&] { endpoint.reset(); }), 0);
    EXPECT_TRUE(tests::isFoundByHint(data, tag, key));
}

TEST_F(EndpointHint, IsNotAskedForAnyTagOrForAnyKey) {
    const Endpoint endpoint(data, tag, key);
    tests::plantHint("", key, "a text");
    tests::plantHint(tag, "", "a text");
    EXPECT_EQ(Endpoint::find("", key), data);
    EXPECT_EQ(Endpoint::find(tag, ""), data);
    EXPECT_EQ(tests::hintText("", key), "a text");
    EXPECT_EQ(tests::hintText(tag, ""), "a text");
    fs::remove(tests::hintPath("", key));
    fs::remove(tests::hintPath(tag, ""));
}

TEST_F(EndpointHint, IsNoConcernOfListings) {
    const Endpoint endpoint(data, tag, key);
    tests::plantHint(tag, "other key", ownName());
    EXPECT_EQ(Endpoint::list(), tests::DataPairs{data});
    EXPECT_EQ(Endpoint::filter(tag), tests::DataPairs{data});
    EXPECT_EQ(tests::hintText(tag, "other key"), ownName());
    fs::remove(tests::hintPath(tag, "other key"));
}
