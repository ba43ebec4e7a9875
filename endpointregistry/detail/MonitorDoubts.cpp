#include "endpointregistry/detail/MonitorDoubts.h"

#include <algorithm>

namespace agent::spf::endpointregistry {

namespace {

using namespace std::chrono_literals;

template<typename Doubts, typename Test>
std::vector<std::string> namesOf(const Doubts& doubts, Test isWanted) {
    std::vector<std::string> names;
    for (const auto& [name, doubt] : doubts) {
        if (isWanted(doubt)) {
            names.push_back(name);
        }
    }
    return names;
}

} // namespace

std::optional<MonitorDoubts::Time> MonitorDoubts::next() const {
    const auto earliest =
        std::min_element(doubts.begin(), doubts.end(), [](const auto& one, const auto& other) {
            return one.second.due < other.second.due;
        });
    return earliest == doubts.end() ? std::nullopt : std::optional(earliest->second.due);
}

std::vector<std::string> MonitorDoubts::due(Time now) const {
    return namesOf(doubts, [now](const Doubt& doubt) { return doubt.due <= now; });
}

std::vector<std::string> MonitorDoubts::withInode(ino_t inode) const {
    return namesOf(doubts, [inode](const Doubt& doubt) { return doubt.inode == inode; });
}

bool MonitorDoubts::has(const std::string& entry, ino_t inode, Reason reason) const {
    const auto found = doubts.find(entry);
    return found != doubts.end() && found->second.inode == inode && found->second.reason == reason;
}

void MonitorDoubts::add(const std::string& entry, ino_t inode, Reason reason, Time now) {
    const auto interval = reason == Reason::closed ? 1ms : 10ms;
    doubts.insert_or_assign(entry, Doubt{inode, reason, now + interval, interval});
}

void MonitorDoubts::prolong(const std::string& entry, Time now) {
    constexpr std::chrono::milliseconds longest = 1min;
    const auto found = doubts.find(entry);
    if (found == doubts.end() || found->second.due > now) {
        return;
    }
    Doubt& doubt = found->second;
    doubt.interval *= 2;
    doubt.due = now + doubt.interval;
    if (doubt.interval > longest) {
        doubts.erase(found);
    }
}

} // namespace agent::spf::endpointregistry
