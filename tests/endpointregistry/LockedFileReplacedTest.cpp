#include "endpointregistry/LockedFile.h"

#include "tests/endpointregistry/LockedFileTools.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>

using agent::spf::endpointregistry::LockedFile;

namespace {

namespace fs = std::filesystem;

/// A holder whose file has lost its name, but still has another one.
class LockedFileReplaced : public tests::LockedFileTest {
protected:
    LockedFileReplaced()
        : first(LockedFile::createAndTryLock(name, parent, "")) {}

    void expectThatTheNextHoldersFileStays() {
        const LockedFile second = LockedFile::createAndTryLock(name, parent, "");
        ASSERT_TRUE(second.isLocked());
        first.reset();
        EXPECT_TRUE(LockedFile::exists(name, parent, ""));
        EXPECT_TRUE(tests::isHeld(path()));
    }

    std::optional<LockedFile> first;
};

} // namespace

TEST_F(LockedFileReplaced, LeavesTheNextHoldersFileWhenItsFolderWasMoved) {
    const std::string folder = tests::privateFolder(parent);
    const std::string elsewhere = folder.substr(0, folder.size() - 1) + " elsewhere";
    fs::rename(folder, elsewhere);
    expectThatTheNextHoldersFileStays();
    fs::remove_all(elsewhere);
}

TEST_F(LockedFileReplaced, LeavesTheNextHoldersFileWhenItHasAnotherLink) {
    fs::create_hard_link(path(), path() + " backup");
    fs::remove(path());
    expectThatTheNextHoldersFileStays();
    fs::remove(path() + " backup");
}

using LockedFileBelowAFile = tests::LockedFileTest;

TEST_F(LockedFileBelowAFile, IsAnErrorSinceItsFolderCannotBeMade) {
    LockedFile::filterNames({}, parent, ""); // Makes the base.
    tests::makeFile(tests::privateBase() + "/file", 0600);
    EXPECT_THROW(LockedFile::tryLock(name, "file/below", ""), std::runtime_error);
    EXPECT_THROW(LockedFile::createAndTryLock(name, "file/below", ""), std::runtime_error);
    EXPECT_THROW(LockedFile::getLock(name, "file/below", ""), std::runtime_error);
    fs::remove(tests::privateBase() + "/file");
}
