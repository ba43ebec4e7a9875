#include "tests/platform/SysVTools.h"

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace sysv = tests::sysv;
using sysv::create;
using sysv::createOrFind;
using sysv::find;
using sysv::keysOf;
using tests::bytesOf;
using tests::SharedMemory;

const std::string text = "bytes of another program, which are nobody else's business";

/// The segments of other programs, and what they looked like when they were made.
class SysVKeys : public sysv::SysVTest {
protected:
    int plant(key_t key, mode_t mode = 0600, const std::string& content = text) {
        const int id = sysv::plant(key, mode, content);
        contents[id] = content;
        for (const auto& segment : sysv::segments()) {
            if (segment.id == id) {
                planted.push_back(segment);
            }
        }
        return id;
    }

    void expectPlantedUntouched() const {
        const auto now = sysv::segments();
        for (const auto& segment : planted) {
            ASSERT_NE(std::find(now.begin(), now.end(), segment), now.end()) << segment.id;
            EXPECT_EQ(sysv::contentOf(segment.id), contents.at(segment.id)) << segment.id;
        }
    }

    void TearDown() override {
        expectPlantedUntouched();
        for (const auto& segment : planted) {
            sysv::removeFromKernel(segment.id);
        }
        SysVTest::TearDown();
    }

    void uproot(int id) {
        sysv::removeFromKernel(id);
        std::erase_if(planted, [id](const auto& segment) { return segment.id == id; });
    }

    std::size_t countOurs() const { return sysv::segments().size() - planted.size(); }

private:
    std::vector<sysv::KernelSegment> planted;
    std::map<int, std::string> contents;
};

void useEveryCall(const std::string& name) {
    EXPECT_FALSE(find(name).isAttached());
    const SharedMemory memory = create(name);
    ASSERT_TRUE(memory.isCreator());
    EXPECT_TRUE(tests::isZero(bytesOf(memory)));
    bytesOf(memory)[0] = 7;
    EXPECT_EQ(bytesOf(find(name))[0], 7);
    EXPECT_EQ(bytesOf(createOrFind(name))[0], 7);
    EXPECT_FALSE(create(name).isAttached());
    EXPECT_TRUE(memory.isStillNamed());
}

TEST_F(SysVKeys, AreAllDifferentAndNoneIsPrivate) {
    for (const std::string name : {"", "name", "other name"}) {
        const auto keys = keysOf(name);
        const std::set<key_t> different(keys.begin(), keys.end());
        EXPECT_EQ(different.size(), keys.size());
        EXPECT_FALSE(different.contains(IPC_PRIVATE));
        EXPECT_EQ(keysOf(name), keys);
    }
    EXPECT_NE(keysOf("name"), keysOf("name", "friends"));
    EXPECT_NE(keysOf("name"), keysOf("name", "", ::geteuid() + 1));
}

TEST_F(SysVKeys, ThatAreTakenAreSteppedOverByCreateAndByFind) {
    // All but the last, one more each time.
    const auto keys = keysOf("name");
    for (std::size_t taken = 0; taken + 1 < keys.size(); ++taken) {
        plant(keys.at(taken));
        useEveryCall("name");
        EXPECT_EQ(countOurs(), 0U);
        EXPECT_EQ(tests::runInChild([] { useEveryCall("name"); }), 0);
    }
}

TEST_F(SysVKeys, ThatAreAllTakenLeaveNoRoom) {
    for (const key_t key : keysOf("name")) {
        plant(key);
    }
    EXPECT_FALSE(find("name").isAttached());
    EXPECT_THROW(create("name"), std::runtime_error);
    EXPECT_THROW(createOrFind("name"), std::runtime_error);
    EXPECT_EQ(countOurs(), 0U);
    useEveryCall("other name");
}

TEST_F(SysVKeys, OfSegmentsOfWhateverModeSizeAndContentAreLeftAlone) {
    const auto keys = keysOf("name");
    std::size_t next = 0;
    for (const mode_t mode : {0600U, 0700U, 0660U, 0666U, 0777U}) {
        // A blank segment looks like one that is not finished.
        plant(keys.at(next++), mode, std::string(4096, '\0'));
        plant(keys.at(next++), mode, std::string(1, '\0'));
        plant(keys.at(next++), mode);
        useEveryCall("name");
        useEveryCall("other name");
    }
}

TEST_F(SysVKeys, OfSegmentsWhoseMakerIsDeadAreLeftAlone) {
    const auto keys = keysOf("name");
    std::size_t next = 0;
    for (const mode_t mode : {0600U, 0700U, 0660U}) {
        for (const std::string& content : {std::string(200, '\0'), text}) {
            const key_t key = keys.at(next++);
            ASSERT_EQ(tests::runInChild([&] { sysv::plant(key, mode, content); }), 0);
            const int id = ::shmget(key, 0, 0);
            ASSERT_NE(id, -1);
            useEveryCall("name");
            useEveryCall("other name");
            EXPECT_EQ(sysv::contentOf(id), content);
            sysv::removeFromKernel(id);
        }
    }
}

TEST_F(SysVKeys, OfTinySegmentsOfEverySizeAreSteppedOver) {
    const key_t key = keysOf("name")[0];
    for (std::size_t size = 1; size < 40; ++size) {
        const int id = plant(key, 0600, std::string(size, 'q'));
        useEveryCall("name");
        expectPlantedUntouched();
        uproot(id);
    }
}

/// The whole content of a segment of this name, at this size.
std::string contentOfSegment(const std::string& name, std::size_t size = tests::someSize) {
    const auto before = sysv::segments();
    const SharedMemory memory = create(name, size);
    for (const auto& segment : sysv::segments()) {
        if (std::find(before.begin(), before.end(), segment) == before.end()) {
            return sysv::contentOf(segment.id);
        }
    }
    return {};
}

TEST_F(SysVKeys, OfSegmentsOfAnotherNameAreSteppedOver) {
    const auto keys = keysOf("name");
    plant(keys[0], 0600, contentOfSegment("mane"));
    plant(keys[1], 0600, contentOfSegment("xname"));
    plant(keys[2], 0600, contentOfSegment("namex"));
    plant(keys[3], 0600, contentOfSegment(""));
    plant(keys[4], 0600, contentOfSegment(std::string(255, 'n')));
    useEveryCall("name");
}

TEST_F(SysVKeys, OfSegmentsWhoseNameEndsLikeThisOneWithItsUserAreSteppedOver) {
    const std::string identity =
        agent::spf::sharedmemory::segmentIdentityOf("name", "", ::geteuid());
    plant(keysOf("name")[0], 0600, contentOfSegment(identity));
    plant(keysOf("name")[1], 0600, contentOfSegment("x" + identity));
    useEveryCall("name");
}

TEST_F(SysVKeys, OfSegmentsThatEndInTheMiddleOfTheirBookkeepingAreSteppedOver) {
    const std::string whole = contentOfSegment("name");
    const key_t key = keysOf("name")[0];
    for (std::size_t length = tests::someSize; length < whole.size(); ++length) {
        const int id = plant(key, 0600, whole.substr(0, length));
        useEveryCall("name");
        uproot(id);
    }
    // Without a byte that is the caller's there is no segment, either.
    plant(key, 0600, whole.substr(tests::someSize));
    useEveryCall("name");
}

TEST_F(SysVKeys, ThatBecomeFreeDoNotHideASegmentUnderALaterOne) {
    const auto keys = keysOf("name");
    const int first = plant(keys[0]);
    const int second = plant(keys[1]);
    const SharedMemory memory = create("name");
    ASSERT_TRUE(memory.isCreator());
    for (const int id : {second, first}) {
        uproot(id);
        EXPECT_TRUE(memory.isStillNamed());
        EXPECT_FALSE(create("name").isAttached());
        EXPECT_FALSE(createOrFind("name").isCreator());
        EXPECT_TRUE(find("name").isAttached());
        EXPECT_EQ(countOurs(), 1U);
    }
    EXPECT_EQ(sysv::onlySegment().key, keys[2]);
}

} // namespace
