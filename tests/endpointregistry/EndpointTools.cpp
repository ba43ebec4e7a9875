#include "tests/endpointregistry/EndpointTools.h"

#include "endpointregistry/EntryName.h"
#include "tests/endpointregistry/LockedFileTools.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace tests {

namespace {

namespace fs = std::filesystem;
namespace registry = agent::spf::endpointregistry;
using foundation::os::FileDescriptor;

constexpr const char* segmentFolder = "/dev/shm";
const std::string parent = "qvEndpointRegistry";

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

void provideFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        fail(path);
    }
}

FileDescriptor makeNew(const std::string& path, mode_t mode) {
    FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!file || ::fchmod(file.get(), mode) != 0) {
        fail(path);
    }
    return file;
}

bool isThere(const std::string& path) {
    return fs::symlink_status(path).type() != fs::file_type::not_found;
}

} // namespace

std::string entryFolder() {
    return privateFolder(parent);
}

std::string entryPath(const std::string& name) {
    return entryFolder() + name;
}

std::string segmentPath(const std::string& name) {
    return std::string(segmentFolder) + "/" + name + "@u" + std::to_string(::geteuid());
}

std::vector<std::string> entryFiles() {
    return isThere(entryFolder()) ? namesIn(entryFolder()) : std::vector<std::string>();
}

std::string hintFolder() {
    return privateFolder("qvEndpointHints");
}

std::string hintPath(const std::string& groupTag, const std::string& selectedKey) {
    return hintFolder() + registry::hashString(groupTag) + "k" + registry::hashString(selectedKey);
}

std::vector<std::string> hintFiles() {
    const bool isFolder = fs::is_directory(fs::status(hintFolder()));
    return isFolder ? namesIn(hintFolder()) : std::vector<std::string>();
}

std::vector<std::string> segmentFiles() {
    std::vector<std::string> names = namesIn(segmentFolder);
    std::erase_if(names, [](const std::string& name) {
        return !fs::is_regular_file(fs::symlink_status(fs::path(segmentFolder) / name));
    });
    return names;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fail(path);
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string entryName(const DataPair& data, const std::string& groupTag,
                      const std::string& selectedKey, pid_t publisher) {
    return registry::getExtendedPrefix(data, groupTag) +
           registry::getSelectedKeySubstring(selectedKey) + "l" +
           std::to_string(data.first.size() + data.second.size()) + "p" +
           std::to_string(publisher) + "v0";
}

std::string segmentBytes(const DataPair& data, char ready) {
    const std::uint64_t firstLength = data.first.size();
    std::string bytes(16, '\0');
    bytes.at(0) = ready;
    std::memcpy(&bytes.at(8), &firstLength, sizeof firstLength);
    return bytes + data.first + data.second + '\0';
}

void provideEntryFolder() {
    provideFolder(privateBase());
    provideFolder(entryFolder());
}

void plantSegment(const std::string& name, const std::string& bytes) {
    const std::string path = segmentPath(name);
    const FileDescriptor file = makeNew(path, 0600);
    if (::write(file.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        fail(path);
    }
}

PlantedEntry::PlantedEntry(std::string entry, const std::string& bytes)
    : entry(std::move(entry)) {
    provideEntryFolder();
    file = makeNew(entryPath(this->entry), 0400);
    if (!bytes.empty()) {
        plantSegment(this->entry, bytes);
    }
}

PlantedEntry::~PlantedEntry() {
    ::unlink(segmentPath(entry).c_str());
    ::unlink(entryPath(entry).c_str());
}

PlantedEntry& PlantedEntry::hold() {
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        fail(entryPath(entry));
    }
    return *this;
}

bool PlantedEntry::hasFile() const {
    return isThere(entryPath(entry));
}

bool PlantedEntry::hasSegment() const {
    return isThere(segmentPath(entry));
}

void RegistryTest::SetUp() {
    fs::remove_all(privateBase());
    for (const std::string& name : segmentFiles()) {
        fs::remove(fs::path(segmentFolder) / name);
    }
}

void RegistryTest::TearDown() {
    EXPECT_EQ(entryFiles(), std::vector<std::string>());
    EXPECT_EQ(hintFiles(), std::vector<std::string>());
    EXPECT_EQ(segmentFiles(), std::vector<std::string>());
}

} // namespace tests
