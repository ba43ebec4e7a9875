#include "tests/platform/SysVTools.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/types.h>

namespace {

namespace accounts = tests::accounts;
namespace sysv = tests::sysv;
using sysv::as;
using sysv::createForFriends;
using tests::SharedMemory;

/// The last process that attached to a segment or left it.
pid_t lastUserOf(int id) {
    shmid_ds status{};
    sysv::demand(::shmctl(id, IPC_STAT, &status) == 0, "shmctl");
    return status.shm_lpid;
}

/// Segments that other programs of the user share with their own children, under no key.
class SysVForeignSegments : public sysv::SysVUsersTest {
protected:
    /// Makes one in a process of anna's that has ended then.
    static int plantAsAnna(mode_t mode, const std::string& content) {
        as(accounts::anna, [&] { sysv::plant(mode, content); });
        return sysv::onlySegment().id;
    }

    static void expectUntouchedByItsUser(int id) {
        const auto segment = sysv::onlySegment();
        const pid_t lastUser = lastUserOf(id);
        as(accounts::anna, [] {
            sysv::useTheService();
            sysv::useTheServiceForFriends();
            SharedMemory memory = createForFriends("name");
            EXPECT_TRUE(memory.isCreator());
        });
        as(accounts::anna, sysv::useTheServiceForFriends);
        EXPECT_EQ(sysv::onlySegment(), segment);
        EXPECT_EQ(lastUserOf(id), lastUser);
        sysv::removeFromKernel(id);
    }
};

TEST_F(SysVForeignSegments, WithoutAKeyAreNoLeftoversOfMakersThatDied) {
    for (const mode_t mode : {0600U, 0700U, 0711U, 0660U}) {
        expectUntouchedByItsUser(plantAsAnna(mode, std::string(200, '\0')));
    }
}

TEST_F(SysVForeignSegments, WithoutAKeyAreNotTakenForRemovedOnes) {
    std::string content;
    {
        const sysv::Owner anna(accounts::anna, "name", accounts::friends);
        as(accounts::ben, [] { sysv::findForFriends("name").markForDeletion(); });
        content = sysv::contentOf(sysv::onlySegment().id);
    }
    sysv::removeFromKernel(sysv::onlySegment().id);
    as(accounts::anna, sysv::useTheServiceForFriends); // There is no note any more.
    for (const mode_t mode : {0600U, 0660U}) {
        expectUntouchedByItsUser(plantAsAnna(mode, content));
    }
}

} // namespace
