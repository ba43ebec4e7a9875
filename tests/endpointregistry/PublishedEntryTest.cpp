#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "tests/endpointregistry/EndpointFolderWatch.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FoldersTools.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <bit>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace agent::spf::endpointregistry;
using namespace std::string_literals;
using tests::DataPair;
using tests::FolderWatch;

namespace {

using Record = Endpoint::PosixImpl;
using Strings = std::vector<std::string>;

const std::string tag = "tag";
const std::string key = "key";

std::string nameOf(const DataPair& data) {
    return tests::entryName(data, tag, key, ::getpid());
}

/// Asks the record itself, whose overload for any entry hides this one.
DataPair dataOf(const Endpoint::Impl& record) {
    return record.getDataPair();
}

/// The first bytes of a segment's length of the first string, as this machine orders them.
std::string inMachineOrder(char number) {
    std::string bytes(8, '\0');
    (std::endian::native == std::endian::little ? bytes.front() : bytes.back()) = number;
    return bytes;
}

class PublishedEntry : public tests::RegistryTest {};
class PublishedEntryUnderUmask : public tests::RegistryTest,
                                 public testing::WithParamInterface<mode_t> {};

void expectOwn(const std::string& path, mode_t mode) {
    const struct stat status = tests::statusOf(path);
    EXPECT_EQ(status.st_mode, mode) << path;
    EXPECT_EQ(status.st_uid, ::geteuid()) << path;
}

} // namespace

TEST_F(PublishedEntry, IsAFileAndASegmentOfOneName) {
    const DataPair data("ab", "c");
    const Record record(data, tag, key, "");
    EXPECT_EQ(tests::entryFiles(), Strings{nameOf(data)});
    EXPECT_EQ(tests::segmentFiles(), Strings{nameOf(data) + "@u" + std::to_string(::geteuid())});
}

TEST_F(PublishedEntry, HoldsTheLockOfItsFile) {
    const DataPair data("ab", "c");
    const Record record(data, tag, key, "");
    EXPECT_TRUE(tests::isHeld(tests::entryPath(nameOf(data))));
}

TEST_F(PublishedEntry, KeepsItsDataInTheSegmentByteForByte) {
    const DataPair data("ab", "c");
    const Record record(data, tag, key, "");
    EXPECT_EQ(tests::contentOf(tests::segmentPath(nameOf(data))),
              "\1\0\0\0\0\0\0\0"s + inMachineOrder(2) + "abc\0"s);
    EXPECT_EQ(tests::contentOf(tests::entryPath(nameOf(data))), "");
}

TEST_F(PublishedEntry, KeepsBytesThatAreNoText) {
    const DataPair data("a\0\xff"s, "\0\x80"s);
    const Record record(data, tag, key, "");
    EXPECT_EQ(tests::contentOf(tests::segmentPath(nameOf(data))),
              "\1\0\0\0\0\0\0\0"s + inMachineOrder(3) + "a\0\xff\0\x80\0"s);
    EXPECT_EQ(dataOf(record), data);
}

TEST_F(PublishedEntry, TakesSeventeenBytesWithoutData) {
    const Record record({"", ""}, "", "", "");
    const std::string name = "qvERkl0p" + std::to_string(::getpid()) + "v0";
    EXPECT_EQ(tests::contentOf(tests::segmentPath(name)), "\1" + std::string(16, '\0'));
    EXPECT_EQ(dataOf(record), DataPair());
}

TEST_F(PublishedEntry, CanHoldALotOfData) {
    const DataPair data(std::string(3'000'000, 'x'), std::string(1'234'567, 'y'));
    const Record record(data, tag, key, "");
    EXPECT_EQ(std::filesystem::file_size(tests::segmentPath(nameOf(data))), 4'234'567U + 17U);
    EXPECT_EQ(dataOf(record), data);
}

TEST_F(PublishedEntry, GoesWithItsRecord) {
    std::optional<Record> record(std::in_place, DataPair("ab", "c"), tag, key, "");
    EXPECT_EQ(tests::entryFiles().size(), 1U);
    record.reset();
    EXPECT_EQ(tests::entryFiles(), Strings());
    EXPECT_EQ(tests::segmentFiles(), Strings());
}

TEST_F(PublishedEntry, IsNotReadyForReadersThatAreStillAttachedWhenItGoes) {
    const DataPair data("ab", "c");
    std::optional<Record> record(std::in_place, data, tag, key, "");
    const foundation::os::FileDescriptor file = tests::openFile(tests::segmentPath(nameOf(data)));
    const auto firstByte = [&file] {
        char byte = '?';
        EXPECT_EQ(::pread(file.get(), &byte, 1, 0), 1);
        return byte;
    };
    EXPECT_EQ(firstByte(), '\1');
    record.reset();
    EXPECT_EQ(firstByte(), '\0');
}

TEST_F(PublishedEntry, HasItsFileBeforeItsSegmentAndUntilAfterIt) {
    tests::provideEntryFolder();
    const DataPair data("ab", "c");
    const std::string file = nameOf(data);
    const std::string segment = file + "@u" + std::to_string(::geteuid());
    FolderWatch watch({tests::entryFolder(), "/dev/shm"});
    std::optional<Record> record(std::in_place, data, tag, key, "");
    EXPECT_EQ(watch.changes(), (Strings{"+" + file, "+" + segment}));
    record.reset();
    EXPECT_EQ(watch.changes(), (Strings{"-" + segment, "-" + file}));
}

TEST_P(PublishedEntryUnderUmask, IsItsUsersAlone) {
    const DataPair data("ab", "c");
    const tests::Umask umask(GetParam());
    const Record record(data, tag, key, "");
    expectOwn(tests::entryPath(nameOf(data)), S_IFREG | 0400);
    expectOwn(tests::segmentPath(nameOf(data)), S_IFREG | 0600);
    expectOwn(tests::privateBase(), S_IFDIR | 0700);
    expectOwn(tests::entryFolder(), S_IFDIR | 0700);
    EXPECT_EQ(dataOf(record), data);
}

INSTANTIATE_TEST_SUITE_P(Of, PublishedEntryUnderUmask, testing::Values(0000, 0022, 0077),
                         [](const auto& mask) { return "Mode" + std::to_string(mask.param); });
