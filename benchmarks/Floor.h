#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

/// What the registry does for a user's own entries, written straight as the system calls that the
/// result takes on Linux: the measure for the library, which makes and reads the same files.
///
/// Nothing here is for use: what would not happen in a benchmark (no memory, no descriptor, a
/// folder that another user has put up) ends in an exception or in a wrong result.
namespace benchmarks::floor {

using DataPair = std::pair<std::string, std::string>;

/// An endpoint with its name and the pieces that it is searched by, hashed beforehand.
struct Entry {
    Entry(DataPair data, const std::string& groupTag, const std::string& selectedKey);

    DataPair data;
    std::string name;
    /// What the names of the group tag, those of the tag and the data, and those of the key have.
    std::string groupPart;
    std::string extendedPart;
    std::string keyPart;
};

/// Where the entries of the user lie; made if missing.
class Folder {
public:
    Folder();

    std::optional<DataPair> find(std::string_view groupPart, std::string_view keyPart) const;

    /// Sorted and without doubles.
    std::vector<DataPair> list(std::string_view groupPart) const;

    std::string pathOf(const Entry& entry) const { return path + entry.name; }
    std::string segmentPathOf(const Entry& entry) const;
    std::string hintPathOf(std::string_view groupPart, std::string_view keyPart) const;

    const uid_t user;
    const std::string path;
    const std::string hints;
    const std::string segmentSuffix;

private:
    std::optional<DataPair> findHinted(std::string_view groupPart, std::string_view keyPart) const;
    std::optional<DataPair> findListed(std::string_view groupPart, std::string_view keyPart) const;
};

/// An entry that lives as long as the object.
class Publication {
public:
    /// Whether others' entries are in the way of this one, as only one that cannot be known to be
    /// new must ask.
    enum class Synonyms { areSought, areNotSought };

    Publication(const Folder& folder, const Entry& entry, Synonyms synonyms = Synonyms::areSought);
    ~Publication();

    Publication(Publication&& other) noexcept;
    Publication& operator=(Publication&&) = delete;
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

private:
    std::string path;
    std::string segmentPath;
    std::string hintPath;
    int lock = -1;
};

} // namespace benchmarks::floor
