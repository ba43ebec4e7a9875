// isolate [--profile NAME] PROGRAM ARGS...
//
// Runs a test program in private mount and IPC namespaces. Tests publish in the registry of this
// machine, plant files in its way and switch users; none of that may meet the registry, the homes
// or the accounts of whoever runs them, or another test that runs at the same time. A profile takes
// system calls away as well, so that the same tests show what happens on a poorer kernel.
//
// Where the kernel refuses, the program is not run and the exit status is 77: skipped.

#include "foundation/os/FileDescriptor.h"
#include "tests/support/Isolation.h"
#include "tests/support/UserNamespace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sched.h>
#include <seccomp.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int failedStatus = 125;

void demand(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void write(const fs::path& path, std::string_view text) {
    std::ofstream file(path);
    file << text << std::flush;
    demand(file ? 0 : -1, "write " + path.string());
}

/// The program as the caller named it, found before anything is hidden.
fs::path locate(const std::string& program) {
    return program.find('/') == std::string::npos ? fs::path(program) : fs::canonical(program);
}

void enterNamespaces() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (user == 0) {
        demand(::unshare(CLONE_NEWNS | CLONE_NEWIPC), "unshare");
    } else {
        demand(::unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUSER), "unshare");
        tests::mapOnly(user, group);
    }
    demand(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
}

void hide(const std::string& folder, const std::string& options) {
    demand(::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()),
           "mount a tmpfs on " + folder);
}

/// Empties /home, but for the home folder that the program itself lies in.
void hideHomes(const fs::path& program) {
    const fs::path homes = fs::canonical("/home");
    const fs::path inside = program.lexically_relative(homes);
    const bool isInside = program.is_absolute() && *inside.begin() != "..";
    if (!isInside) {
        hide(homes, "mode=0755");
        return;
    }
    const fs::path kept = homes / *inside.begin();
    const foundation::os::FileDescriptor original(
        ::open(kept.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    hide(homes, "mode=0755");
    fs::create_directory(kept);
    const std::string source = "/proc/self/fd/" + std::to_string(original.get());
    demand(::mount(source.c_str(), kept.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
           "mount on " + kept.string());
}

/// The lines of a user or group database that belong to one of these names.
std::string entriesOf(const fs::path& database, std::initializer_list<std::string_view> names) {
    std::ifstream file(database);
    std::string entries;
    for (std::string line; std::getline(file, line);) {
        if (std::find(names.begin(), names.end(), line.substr(0, line.find(':'))) != names.end()) {
            entries += line + "\n";
        }
    }
    return entries;
}

/// Puts a file of this content over `path`, which the rest of the machine keeps seeing as it was.
void cover(const fs::path& path, std::string_view content) {
    if (!fs::exists(path)) {
        return;
    }
    // The mount keeps the file when its name goes.
    const fs::path source = "/dev/shm/" + path.filename().string();
    write(source, content);
    demand(::mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr),
           "mount on " + path.string());
    fs::remove(source);
}

// The ids are from a range that distributions leave alone.
constexpr std::string_view testUsers = "anna:x:60801:60801::/home/anna:/bin/sh\n"
                                       "ben:x:60802:60802::/home/ben:/bin/sh\n"
                                       "carl:x:60803:60803::/home/carl:/bin/sh\n";
constexpr std::string_view testGroups = "anna:x:60801:\n"
                                        "ben:x:60802:\n"
                                        "carl:x:60803:\n"
                                        "friends:x:60804:anna,ben\n"
                                        "family:x:60805:anna,ben\n";

void replaceAccounts() {
    const fs::path users = "/etc/passwd";
    const fs::path groups = "/etc/group";
    cover(users, entriesOf(users, {"root", "nobody"}).append(testUsers));
    cover(groups, entriesOf(groups, {"root", "nobody", "nogroup"}).append(testGroups));
    cover("/etc/nsswitch.conf", "passwd: files\ngroup: files\ninitgroups: files\n");
    // A running name-service cache would answer before any of these files is read.
    if (const fs::path cache = "/var/run/nscd"; fs::is_directory(cache)) {
        hide(cache, "mode=0755");
    }
}

struct Profile {
    std::string_view name;
    bool hasUnnamedFiles;
    bool hasEmptyPathLink;
    bool hasProc;
};

constexpr std::array<Profile, 3> profiles{{
    {"no-unnamed-files", false, true, true},
    {"no-empty-path-link", true, false, true},
    {"no-empty-path-link-no-proc", true, false, false},
}};

class SystemCallFilter {
public:
    void refuse(int call, int error) { add(call, error, nullptr); }

    /// Refuses the call when all these flags are set in this argument of it.
    void refuse(int call, unsigned argument, int flags, int error) {
        const auto mask = static_cast<scmp_datum_t>(flags);
        const scmp_arg_cmp match{argument, SCMP_CMP_MASKED_EQ, mask, mask};
        add(call, error, &match);
    }

    void enforce() { require(::seccomp_load(filter.get())); }

private:
    void add(int call, int error, const scmp_arg_cmp* match) {
        require(::seccomp_rule_add_array(filter.get(),
                                         SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error)), call,
                                         match == nullptr ? 0 : 1, match));
    }

    static void require(int result) {
        errno = -result;
        demand(result, "filter system calls");
    }

    std::unique_ptr<void, decltype(&::seccomp_release)> filter{::seccomp_init(SCMP_ACT_ALLOW),
                                                               &::seccomp_release};
};

void impoverish(const Profile& profile) {
    SystemCallFilter filter;
    if (!profile.hasUnnamedFiles) {
        filter.refuse(SCMP_SYS(open), 1, O_TMPFILE, EOPNOTSUPP);
        filter.refuse(SCMP_SYS(openat), 2, O_TMPFILE, EOPNOTSUPP);
        // Its flags are behind a pointer, where no filter can look.
        filter.refuse(SCMP_SYS(openat2), ENOSYS);
    }
    if (!profile.hasEmptyPathLink) {
        filter.refuse(SCMP_SYS(linkat), 4, AT_EMPTY_PATH, ENOENT);
    }
    if (!profile.hasProc) {
        hide("/proc", "mode=0555");
    }
    filter.enforce();
}

const Profile& profileNamed(std::string_view name) {
    const auto* const found =
        std::find_if(profiles.begin(), profiles.end(),
                     [name](const Profile& profile) { return profile.name == name; });
    if (found == profiles.end()) {
        throw std::invalid_argument("unknown profile " + std::string(name));
    }
    return *found;
}

struct Arguments {
    std::optional<Profile> profile;
    /// Of the program, its name first; ends with a null pointer.
    char** command;
};

Arguments parse(char** argument) {
    Arguments arguments{{}, argument};
    if (*argument != nullptr && std::string_view(*argument) == "--profile") {
        if (*++argument == nullptr) {
            throw std::invalid_argument("--profile needs a name");
        }
        arguments.profile = profileNamed(*argument);
        arguments.command = ++argument;
    }
    if (*arguments.command == nullptr) {
        throw std::invalid_argument("usage: isolate [--profile NAME] PROGRAM ARGS...");
    }
    return arguments;
}

/// Throws std::system_error for what the kernel, or a policy of this machine, does not allow.
void isolate(const std::optional<Profile>& profile, const fs::path& program) {
    const fs::path workingFolder = fs::current_path();
    const bool isRoot = ::geteuid() == 0;
    enterNamespaces();
    ::umask(S_IWGRP | S_IWOTH);
    // Limited, so that a defect cannot eat the machine's memory.
    hide("/dev/shm", "mode=1777,size=512m");
    if (isRoot) {
        replaceAccounts();
    }
    hideHomes(program);
    if (::chdir(workingFolder.c_str()) != 0) {
        fs::current_path("/");
    }
    if (profile) {
        impoverish(*profile);
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    ::setenv(tests::isolatedVariable, profile ? std::string(profile->name).c_str() : "", 1);
}

int run(const Arguments& arguments) {
    const fs::path program = locate(*arguments.command);
    try {
        isolate(arguments.profile, program);
    } catch (const std::system_error& refused) {
        std::cerr << "isolate: skipped, this system does not allow it: " << refused.what() << '\n';
        return tests::skippedStatus;
    }
    ::execvp(program.c_str(), arguments.command);
    throw std::system_error(errno, std::generic_category(), program.string());
}

} // namespace

int main(int /*argc*/, char** argv) {
    try {
        return run(parse(argv + 1));
    } catch (const std::exception& error) {
        std::cerr << "isolate: " << error.what() << '\n';
        return failedStatus;
    }
}
