// measured_functions
//
// Runs what lookups and tables do without the system, for callgrind: each function has its own part
// in callgrind's output, under its name, and its line here says how many calls that part has.

#include "endpointregistry/EntryName.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/EntrySegment.h"
#include "endpointregistry/detail/NameListing.h"
#include "fl/i18n/UstringConversion.h"
#include "sharedmemory/SegmentName.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <valgrind/callgrind.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace agent::spf::endpointregistry;
using DataPair = std::pair<std::string, std::string>;

constexpr std::size_t count = 1000;

/// Has the compiler believe that somebody looks at the value.
template<typename Value>
void keep(const Value& value) {
    asm volatile("" : : "r"(&value) : "memory"); // NOLINT(hicpp-no-assembler)
}

/// Counts the instructions of so many calls, which one run of `body` makes. It has run before, so
/// that no symbol is left to be looked up.
template<typename Body>
void measure(const char* name, std::size_t calls, const Body& body) {
    body();
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    body();
    CALLGRIND_DUMP_STATS_AT(name);
    CALLGRIND_STOP_INSTRUMENTATION;
    std::cout << name << ' ' << calls << '\n';
}

template<typename Function>
void measureCalls(const char* name, const Function& function) {
    measure(name, count, [&function] {
        for (std::size_t i = 0; i < count; ++i) {
            keep(function());
        }
    });
}

DataPair numberedData(std::size_t number) {
    return {"unix", "/run/service-" + std::to_string(number)};
}

std::string numberedKey(std::size_t number) {
    return "key " + std::to_string(number);
}

/// As `getName` makes it, but for a process id that is always of the same length.
std::string nameOf(const DataPair& data, const std::string& key) {
    return getExtendedPrefix(data, "benchmark") + getSelectedKeySubstring(key) + "l18p123456v0";
}

std::vector<std::string> numberedNames() {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        names.push_back(nameOf(numberedData(count + i), numberedKey(count + i)));
    }
    return names;
}

/// What a lookup of that key looks for in names.
std::vector<std::string> partsOf(const std::string& key) {
    return {getGroupTagPrefix("benchmark"), getSelectedKeySubstring(key)};
}

void measureNames() {
    const std::string shortText = "key 0";
    const std::string mediumText(40, 'x');
    const std::string longText(1000, 'x');
    measureCalls("hashString/5", [&] { return hashString(shortText); });
    measureCalls("hashString/40", [&] { return hashString(mediumText); });
    measureCalls("hashString/1000", [&] { return hashString(longText); });

    const DataPair data = numberedData(0);
    const std::string tag = "benchmark";
    const std::string key = numberedKey(0);
    measureCalls("getName", [&] { return getName(data, tag, key, 0, ""); });
    measureCalls("getGroupTagPrefix", [&] { return getGroupTagPrefix(tag); });
    measureCalls("getSelectedKeySubstring", [&] { return getSelectedKeySubstring(key); });

    const std::string name = nameOf(data, key);
    measureCalls("getLengthFromName", [&] { return getLengthFromName(name); });
    measureCalls("getPidFromName", [&] { return getPidFromName(name); });
    measureCalls("getVersionFromName", [&] { return getVersionFromName(name); });
}

void measurePaths() {
    const std::u16string path = u"/dev/shm/Corvantis-1000";
    measureCalls("ustring_to_utf8", [&] { return fl::i18n::ustring_to_utf8(path); });
}

class TemporaryFolder {
public:
    TemporaryFolder()
        : path(fs::temp_directory_path() / "measured_functions-XXXXXX") {
        if (::mkdtemp(path.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        }
    }
    ~TemporaryFolder() {
        std::error_code error;
        fs::remove_all(path, error);
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& get() const { return path; }

private:
    std::string path;
};

void measureMatching() {
    const std::vector<std::string> names = numberedNames();
    const std::vector<std::string> ofOne = partsOf(numberedKey(count));
    const std::vector<std::string> ofAll = {getGroupTagPrefix("benchmark")};
    const auto countMatches = [&](const std::vector<std::string>& parts) {
        std::size_t matches = 0;
        for (const std::string& name : names) {
            matches += containsAll(name, parts) ? 1U : 0U;
        }
        return matches;
    };
    measure("containsAll/oneOf1000", count, [&] { keep(countMatches(ofOne)); });
    measure("containsAll/allOf1000", count, [&] { keep(countMatches(ofAll)); });

    // A folder of its names, with the reading of it as far as it is not the kernel's.
    const TemporaryFolder folder;
    for (const std::string& name : names) {
        const std::ofstream file(folder.get() + "/" + name);
    }
    const auto list = [&folder](const NameTest& isWanted) {
        foundation::os::DirectoryStream entries(folder.get() + "/");
        return listNames(entries, isWanted);
    };
    const std::string sameTag = getGroupTagPrefix("benchmark");
    const std::string sameKey = getSelectedKeySubstring(numberedKey(count));
    measure("listNames/oneOf1000", count, [&] {
        keep(list([&](std::string_view name) {
            return contains(name, sameKey) && contains(name, sameTag);
        }));
    });
    measure("listNames/allOf1000", count,
            [&] { keep(list([&](std::string_view name) { return contains(name, sameTag); })); });
}

void measureSegments() {
    const DataPair data = numberedData(0);
    const unsigned long length = data.first.size() + data.second.size();
    const std::string segment = entrysegment::contentsOf(data);
    const std::string name = nameOf(data, numberedKey(0));
    constexpr uid_t user = 1000;
    measureCalls("segmentNameOf",
                 [&] { return agent::spf::sharedmemory::segmentNameOf(name, {}, user); });
    measureCalls("entrysegment::contentsOf", [&] { return entrysegment::contentsOf(data); });
    measureCalls("entrysegment::read", [&] { return entrysegment::read(segment, length); });
}

/// Visits every row of a table.
template<typename Function>
void measureRows(const char* name, const ArrayRows& rows, const Function& function) {
    measure(name, count, [&] {
        for (std::size_t row = 0; row < rows.count(); ++row) {
            keep(function(row));
        }
    });
}

void measureTable() {
    constexpr std::size_t width = 100;
    std::vector<char> container(ArrayRows::overhead + count * width);
    const ArrayRows rows(container.data(), count, width);
    const auto entryOf = [](std::size_t number) {
        const DataPair data = numberedData(count + number);
        return std::vector<std::string>{nameOf(data, numberedKey(count + number)), data.first,
                                        data.second};
    };
    for (std::size_t row = 0; row < count; ++row) {
        rows.write(row, entryOf(row));
    }
    const std::vector<std::string> last = entryOf(count - 1);
    measureCalls("ArrayRows::firstFree", [&] { return rows.firstFree(); });
    measureRows("ArrayRows::usedWidth", rows, [&](std::size_t row) { return rows.usedWidth(row); });
    measureRows("ArrayRows::firstElement", rows,
                [&](std::size_t row) { return rows.firstElement(row); });
    measureRows("ArrayRows::elements", rows, [&](std::size_t row) { return rows.elements(row); });
    measureRows("ArrayRows::equals", rows, [&](std::size_t row) { return rows.equals(row, last); });
    measureRows("ArrayRows::write", rows, [&](std::size_t row) {
        rows.write(row, last);
        return row;
    });
}

} // namespace

int main() {
    try {
        measureNames();
        measurePaths();
        measureMatching();
        measureSegments();
        measureTable();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "measured_functions: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
