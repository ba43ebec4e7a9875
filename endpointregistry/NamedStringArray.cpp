#include "endpointregistry/NamedStringArray.h"

#include "endpointregistry/detail/ArrayRows.h"
#include "endpointregistry/detail/Table.h"

#include <limits>
#include <stdexcept>
#include <utility>

namespace agent::spf::endpointregistry {

namespace os = foundation::os;

namespace {

constexpr unsigned long defaultLengthStep = 10;
constexpr unsigned long defaultWidthStep = 4;

/// What one operation on a table takes.
struct Operation {
    Operation(const std::string& baseName, const std::string& trustee, unsigned long lengthStep,
              unsigned long widthStep)
        : group(trustee)
        , access(group)
        , table({baseName, lengthStep, widthStep}, access) {}

    os::Group group;
    TableAccess access;
    Table table;
};

} // namespace

NamedStringArray::NamedStringArray(const std::string& name, unsigned long version,
                                   const std::string& trustee)
    : baseName(getBaseName(name, version, trustee))
    , trustee(trustee)
    , implementation(TableAccess::implementation)
    , lengthStep(defaultLengthStep)
    , widthStep(defaultWidthStep) {
}

// By value is the published signature.
// NOLINTBEGIN(performance-unnecessary-value-param)

void NamedStringArray::insert(const std::string& element) {
    insert(std::vector<std::string>{element});
}

void NamedStringArray::insert(std::initializer_list<std::string> entry) {
    insert(std::vector<std::string>(entry));
}

void NamedStringArray::insert(std::vector<std::string> entry) {
    Operation(baseName, trustee, lengthStep, widthStep).table.insert(entry);
}

void NamedStringArray::erase(const std::string& element) {
    erase(std::vector<std::string>{element});
}

void NamedStringArray::erase(std::initializer_list<std::string> entry) {
    erase(std::vector<std::string>(entry));
}

void NamedStringArray::erase(std::vector<std::string> entry) {
    Operation(baseName, trustee, lengthStep, widthStep).table.erase(entry);
}

std::vector<std::vector<std::string>>
NamedStringArray::filter(std::vector<std::string> substrings) {
    return Operation(baseName, trustee, lengthStep, widthStep).table.read(substrings).rows;
}

// NOLINTEND(performance-unnecessary-value-param)

void NamedStringArray::resizeContainer(SharedMemory& base, SharedMemory& container,
                                       unsigned long neededWidth) {
    Operation(baseName, trustee, lengthStep, widthStep).table.resize(base, container, neededWidth);
}

void NamedStringArray::clearLeftoverContainer(SharedMemory& base, SharedMemory& /*container*/) {
    Operation(baseName, trustee, lengthStep, widthStep).table.clearLeftover(base);
}

void NamedStringArray::setLengthStep(unsigned long step) {
    lengthStep = step;
}

void NamedStringArray::setWidthStep(unsigned long step) {
    widthStep = step;
}

std::string NamedStringArray::getBaseName(const std::string& name, unsigned long version,
                                          const std::string& /*trustee*/) {
    if (name.empty()) {
        throw std::invalid_argument("NamedStringArray name cannot be empty.");
    }
    return name + "v" + std::to_string(version);
}

std::string NamedStringArray::getContainerName(const std::string& baseName,
                                               unsigned long generation) {
    return baseName + std::to_string(generation);
}

unsigned long NamedStringArray::getContainerSize(unsigned long length, unsigned long width) {
    constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();
    const bool fits = width == 0 || length <= (largest - ArrayRows::overhead) / width;
    return fits ? ArrayRows::overhead + length * width : largest;
}

} // namespace agent::spf::endpointregistry
