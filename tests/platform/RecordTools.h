#pragma once

#include "sharedmemory/SegmentName.h"
#include "sharedmemory/SegmentRecord.h"
#include "tests/support/SharedFolder.h"
#include "tests/support/TestAccounts.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

/// The small files that stand for segments of System V shared memory.
namespace tests::sysv {

inline const std::string recordParent = "qvSharedMemory";
/// Above the folders of all groups.
inline const std::string groupsRecords = commonFolder + "/Corvantis/" + recordParent;

/// The folder of a trustee's records, with a trailing separator.
inline std::string recordFolder(const std::string& trustee = "", uid_t user = ::geteuid()) {
    return trustee.empty() ? "/dev/shm/Corvantis-" + std::to_string(user) + "/" + recordParent + "/"
                           : groupsRecords + "/" + std::to_string(accounts::groupId(trustee)) + "/";
}

/// Where the record of a segment of this identity is when there is one.
inline std::string recordOf(const std::string& name, const std::string& trustee = "",
                            uid_t user = ::geteuid()) {
    using agent::spf::sharedmemory::segmentNameOf;
    return recordFolder(trustee, user) + segmentNameOf(name, trustee, user).platformName;
}

/// The paths of what stands in a folder; nothing when there is none.
inline std::vector<std::string> pathsIn(const std::string& folder) {
    std::vector<std::string> paths;
    if (std::filesystem::is_directory(folder)) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            paths.push_back(entry.path());
        }
    }
    return paths;
}

/// The paths of what is in all folders of records, whoever's they are.
inline std::vector<std::string> allRecords() {
    std::vector<std::string> folders = pathsIn(groupsRecords);
    for (const std::string& path : pathsIn("/dev/shm")) {
        folders.push_back(path + "/" + recordParent);
    }
    std::vector<std::string> records;
    for (const std::string& folder : folders) {
        std::ranges::copy(pathsIn(folder), std::back_inserter(records));
    }
    return records;
}

/// Those that have no name: of segments that are being made, or were removed.
inline std::vector<std::string> hiddenRecords() {
    std::vector<std::string> records = allRecords();
    std::erase_if(records, [](const std::string& path) {
        return !std::filesystem::path(path).filename().string().starts_with(".unnamed-");
    });
    return records;
}

/// Removes all that the service keeps in folders, and these.
inline void removeAllRecordFolders() {
    std::filesystem::remove_all(commonFolder + "/Corvantis");
    for (const std::string& path : pathsIn("/dev/shm")) {
        if (path.starts_with("/dev/shm/Corvantis-")) {
            std::filesystem::remove_all(path);
        }
    }
}

inline std::string fileContent(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator(file), {}};
}

inline agent::spf::sharedmemory::SegmentRecord readRecord(const std::string& path) {
    const auto record = agent::spf::sharedmemory::SegmentRecord::parse(fileContent(path));
    if (!record) {
        throw std::runtime_error("There is no record in " + path);
    }
    return *record;
}

/// Puts a file of this content and mode in a place, instead of what is there.
inline void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    std::filesystem::remove(path);
    std::ofstream(path, std::ios::binary) << content;
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(mode));
}

inline void writeRecord(const std::string& path,
                        const agent::spf::sharedmemory::SegmentRecord& record, mode_t mode = 0440) {
    const auto bytes = record.bytes();
    writeFile(path, std::string(bytes.begin(), bytes.end()), mode);
}

} // namespace tests::sysv
