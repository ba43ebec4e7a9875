#include "endpointregistry/Endpoint.h"

#include "endpointregistry/Loggers.h"
#include "endpointregistry/detail/EndpointImpl.h"
#include "endpointregistry/detail/EndpointPosixImpl.h"
#include "endpointregistry/detail/EntryFolder.h"
#include "endpointregistry/detail/Synonyms.h"

#include <boost/exception/diagnostic_information.hpp>
#include <utility>

namespace agent::spf::endpointregistry {

namespace {

using foundation::log::severity;

[[noreturn]] void refuse(const char* logLine, const char* message) {
    getLogger().log(severity::error, logLine);
    throw std::invalid_argument(message);
}

void checkArguments(const Endpoint::DataPair& data, const std::string& groupTag,
                    const std::string& selectedKey) {
    if (data.first.empty() && data.second.empty()) {
        refuse("Endpoint(): Data strings cannot be both empty.",
               "Endpoint data strings cannot be both empty");
    }
    if (groupTag.empty()) {
        refuse("Endpoint(): Group tag cannot be empty.", "Endpoint group tag cannot be empty");
    }
    if (selectedKey.empty()) {
        refuse("Endpoint(): The selected key cannot be empty.",
               "Endpoint selected key cannot be  empty");
    }
}

void logCurrentException() {
    auto& logger = getMoveAndDestructionLogger();
    if (!logger.isEnabled(severity::caught)) {
        return;
    }
    try {
        logger.log(severity::caught,
                   "Exception caught: ", boost::current_exception_diagnostic_information());
    } catch (...) { // NOLINT(bugprone-empty-catch): the first exception is the one to report
    }
}

} // namespace

Endpoint::DuplicateEndpointError::DuplicateEndpointError()
    : std::runtime_error("Endpoint already exists in registry") {
}

Endpoint::DuplicateEndpointError::DuplicateEndpointError(const std::string& detail)
    : std::runtime_error("Endpoint already exists in registry: " + detail) {
}

Endpoint::Endpoint() noexcept = default;

Endpoint::Endpoint(const DataPair& data, const std::string& groupTag,
                   const std::string& selectedKey) {
    checkArguments(data, groupTag, selectedKey);
    const EntryFolder folder("");
    const Synonyms synonyms(data, groupTag, selectedKey, folder);
    // No lock is taken over this: of publishers that race, each sees the others' entries in its
    // second count, and all but the last one alive withdraw.
    for (;;) {
        if (synonyms.anyLives()) {
            throw DuplicateEndpointError("A synonym endpoint has been found during construction");
        }
        auto record = std::make_unique<PosixImpl>(data, groupTag, selectedKey, folder);
        if (synonyms.hasOnly(record->entryName())) {
            record->leaveHint(folder, synonyms.tagPrefix(), synonyms.keyPart());
            folder.tellReady(record->entryName());
            primary = std::move(record);
            return;
        }
    }
}

Endpoint::Endpoint(const DataPair& data, const std::string& groupTag)
    : Endpoint(data, groupTag, data.first + data.second) {
}

Endpoint Endpoint::publish(const std::string& first, const std::string& second,
                           const std::string& groupTag) {
    return {{first, second}, groupTag, first + second};
}

Endpoint Endpoint::publish(const std::string& first, const std::string& second,
                           const std::string& groupTag, const std::string& selectedKey) {
    return {{first, second}, groupTag, selectedKey};
}

Endpoint::Endpoint(Endpoint&& other) noexcept = default;

// An application's log sink may throw through it.
// NOLINTNEXTLINE(performance-noexcept-move-constructor)
Endpoint& Endpoint::operator=(Endpoint&& other) {
    if (this == &other) {
        return *this;
    }
    if (primary) {
        try {
            auto& logger = getMoveAndDestructionLogger();
            if (logger.isEnabled(severity::trace)) {
                logger.log(severity::trace, "Endpoint: Moving ",
                           other.primary ? other.primary->getGroupTag() : std::string());
            }
        } catch (...) {
            logCurrentException();
            throw;
        }
    }
    primary = std::move(other.primary);
    withdrawShares();
    shares = std::exchange(other.shares, {});
    return *this;
}

Endpoint::~Endpoint() {
    auto& logger = getMoveAndDestructionLogger();
    if (primary && logger.isEnabled(severity::trace)) {
        logger.log(severity::trace, "Endpoint: Destructing ", primary->getGroupTag());
    }
    withdrawShares();
}

void Endpoint::reset() noexcept {
    withdrawShares();
    primary.reset();
}

Endpoint::operator bool() const noexcept {
    return primary != nullptr;
}

void Endpoint::withdrawShares() noexcept {
    while (!shares.empty()) {
        shares.pop_back();
    }
}

} // namespace agent::spf::endpointregistry
