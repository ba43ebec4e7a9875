#include "benchmarks/Publishers.h"

#include "benchmarks/Helper.h"
#include "endpointregistry/EntryName.h"
#include "endpointregistry/Groups.h"
#include "endpointregistry/LockedFile.h"
#include "endpointregistry/NamedStringArray.h"

#include <memory>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace benchmarks {

namespace {

namespace registry = agent::spf::endpointregistry;
using registry::LockedFile;
using registry::NamedStringArray;

struct Others {
    std::size_t count;
    std::string trustee;
    Helper publisher;
};

std::unique_ptr<Others>& provided() {
    static std::unique_ptr<Others> others;
    return others;
}

std::vector<floor::Publication> publishOwn(std::size_t count) {
    const floor::Folder folder;
    std::vector<floor::Publication> entries;
    entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        entries.emplace_back(folder, floor::Entry(dataOf(i), groupTag, keyOf(i)),
                             floor::Publication::Synonyms::areNotSought);
    }
    return entries;
}

/// Locks and rows are what sharing an endpoint makes.
std::vector<LockedFile> publishShared(std::size_t count, const std::string& trustee) {
    NamedStringArray rows("qvEndpointRegistrySysV", 0, trustee);
    std::vector<LockedFile> entries;
    entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto data = dataOf(i);
        const std::string name = registry::getName(data, groupTag, keyOf(i), 0, trustee);
        entries.push_back(LockedFile::createAndTryLock(name, "qvEndpointRegistry", trustee));
        if (!entries.back().isLocked()) {
            throw std::runtime_error("cannot make the file of an entry");
        }
        rows.insert({name, data.first, data.second});
    }
    return entries;
}

void publish(Helper::Parent& parent, std::size_t count, const std::string& trustee) {
    if (trustee.empty()) {
        const auto entries = publishOwn(count);
        parent.tellReady();
        parent.waitForEnd();
    } else {
        {
            const auto entries = publishShared(count, trustee);
            parent.tellReady();
            parent.waitForEnd();
        }
        registry::deleteNamedStringArray("qvEndpointRegistrySysV", 0, trustee);
    }
}

} // namespace

std::string keyOf(std::size_t number) {
    return "key " + std::to_string(number);
}

floor::DataPair dataOf(std::size_t number) {
    return {"unix", "/run/service-" + std::to_string(number)};
}

std::string ownGroup() {
    const auto groups = registry::getCurrentUserGroups();
    if (groups.empty()) {
        throw std::runtime_error("this process is in no group that has a name");
    }
    return *groups.begin();
}

void raiseDescriptorLimit() {
    constexpr rlim_t wanted = 65536;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < wanted) {
        const rlimit higher{wanted, wanted};
        if (::setrlimit(RLIMIT_NOFILE, &higher) == 0) {
            return;
        }
    }
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void provideOthers(std::size_t count, const std::string& trustee) {
    std::unique_ptr<Others>& others = provided();
    if (others && others->count == count && others->trustee == trustee) {
        return;
    }
    others.reset(); // Before the next, so that the two never stand side by side.
    rlimit limit{};
    constexpr std::size_t spare = 100;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < count + spare) {
        throw std::runtime_error("too few descriptors: each entry holds one");
    }
    others.reset(new Others{
        count, trustee, Helper([&](Helper::Parent& parent) { publish(parent, count, trustee); })});
}

void withdrawOthers() {
    provided().reset();
}

} // namespace benchmarks
