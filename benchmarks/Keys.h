#pragma once

#include "benchmarks/Publishers.h"

#include <cstddef>
#include <string>
#include <vector>

namespace benchmarks {

/// The keys of all entries, old and new by turns: each is found at another place in the folder.
class Keys {
public:
    explicit Keys(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            keys.push_back(keyOf(i));
        }
    }

    const std::string& next() {
        constexpr std::size_t prime = 7919;
        turn += prime;
        return keys[turn % keys.size()];
    }

private:
    std::vector<std::string> keys;
    std::size_t turn = 0;
};

} // namespace benchmarks
