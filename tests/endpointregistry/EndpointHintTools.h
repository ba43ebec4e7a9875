#pragma once

#include "endpointregistry/Endpoint.h"
#include "tests/endpointregistry/EndpointTools.h"
#include "tests/endpointregistry/FoldersRefusedCalls.h"
#include "tests/support/ForkedProcess.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <seccomp.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tests {

/// What the hint of a key says; nothing when there is no link.
inline std::optional<std::string> hintText(const std::string& groupTag,
                                           const std::string& selectedKey) {
    std::error_code error;
    const auto text = std::filesystem::read_symlink(hintPath(groupTag, selectedKey), error);
    return error ? std::nullopt : std::optional(text.string());
}

inline void provideHintFolder() {
    provideEntryFolder();
    std::filesystem::create_directory(hintFolder());
    std::filesystem::permissions(hintFolder(), std::filesystem::perms::owner_all);
}

/// Puts up a hint that says this, in the place of what is there.
inline void plantHint(const std::string& groupTag, const std::string& selectedKey,
                      const std::string& text) {
    provideHintFolder();
    const std::string path = hintPath(groupTag, selectedKey);
    std::filesystem::remove_all(path);
    std::filesystem::create_symlink(text, path);
}

/// Has a process publish the entry and die.
inline void publishAndDie(const DataPair& data, const std::string& groupTag,
                          const std::string& selectedKey) {
    ASSERT_EQ(runInChild([&] {
                  const agent::spf::endpointregistry::Endpoint entry(data, groupTag, selectedKey);
                  ::_exit(EXIT_SUCCESS);
              }),
              EXIT_SUCCESS);
}

/// Whether a `find` that may read no folder finds what it is to find.
inline bool isFoundByHint(const DataPair& data, const std::string& groupTag,
                          const std::string& selectedKey) {
    using agent::spf::endpointregistry::Endpoint;
    return runInChild([&] {
               refuseCalls({SCMP_SYS(getdents64)}, EIO);
               try {
                   ::_exit(Endpoint::find(groupTag, selectedKey) == data ? EXIT_SUCCESS
                                                                         : EXIT_FAILURE);
               } catch (const std::runtime_error&) { // It wanted to read the folder.
                   ::_exit(EXIT_FAILURE);
               }
           }) == EXIT_SUCCESS;
}

} // namespace tests
