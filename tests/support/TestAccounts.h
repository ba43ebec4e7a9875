#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

/// Users and groups that exist only for the running test program: its private namespace has a user
/// and a group database of its own.
///
/// anna and ben are members of "friends" and of "family" (and each of a primary group of its own
/// name); carl is not. The databases also hold root and whoever runs the tests.
namespace tests::accounts {

inline const std::string anna = "anna";
inline const std::string ben = "ben";
inline const std::string carl = "carl";
inline const std::string friends = "friends";
inline const std::string family = "family";

/// Whether this process may act as these users, that is, whether the tests run as root. A test
/// that needs them begins with: if (!accounts::available()) GTEST_SKIP() << accounts::whyNot;
bool available();
inline const char* const whyNot = "needs root, to act as several users";

uid_t userId(const std::string& user);
gid_t groupId(const std::string& group);

/// Turns the calling process into that user for good, with the user's groups, as a login would.
/// Call it in a child.
void become(const std::string& user);

/// Turns it into a user of this number, known to the databases or not, with a primary group of the
/// same number and these groups alone, whatever the databases say: as a service manager may.
void becomeMemberOf(const std::vector<std::string>& groups, uid_t user);
void becomeMemberOf(const std::vector<gid_t>& groups, uid_t user);

/// Turns the calling process, which is root's, into one that is in no group and may not use what
/// permissions deny it of System V shared memory (CAP_IPC_OWNER), as in many containers.
void becomeRootWithoutIpcRights();

/// The user and the group database, whose lines are separated by line feeds.
inline const std::string userDatabase = "/etc/passwd";
inline const std::string groupDatabase = "/etc/group";

/// Gives the calling process and its children another content of one of them. Call it in a child,
/// as root. With a mode that lets only root read it, nobody else can.
void replaceDatabase(const std::string& database, const std::string& content, mode_t mode = 0644);
std::string contentOfDatabase(const std::string& database);

/// Gives them a group database that has these groups as well, with anna and ben as members.
void addGroups(const std::vector<std::string>& groups);

} // namespace tests::accounts
