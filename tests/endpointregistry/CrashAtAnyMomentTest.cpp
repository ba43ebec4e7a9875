#include "endpointregistry/Endpoint.h"
#include "foundation/os/DirectoryStream.h"
#include "tests/support/TracedProcess.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

using agent::spf::endpointregistry::Endpoint;

namespace {

const Endpoint::DataPair data{"first", "second"};
const std::string groupTag = "crash";
const std::string selectedKey = "key";

std::vector<std::string> filesOf(const std::string& folder, const std::string& namePart) {
    std::vector<std::string> files;
    foundation::os::DirectoryStream names(folder);
    while (names) {
        const char* const entry = names.next();
        if (entry == nullptr) {
            break;
        }
        if (const std::string name = entry; name.find(namePart) != std::string::npos) {
            files.push_back(name);
        }
    }
    return files;
}

/// What stands in the registry and in shared memory under names with this part.
std::vector<std::string> traces(const std::string& namePart) {
    std::vector<std::string> files = filesOf("/dev/shm", namePart);
    const std::string registry =
        "/dev/shm/Corvantis-" + std::to_string(::geteuid()) + "/qvEndpointRegistry";
    for (std::string& file : filesOf(registry, namePart)) {
        files.push_back(std::move(file));
    }
    return files;
}

void publishAndWithdraw() {
    const Endpoint endpoint(data, groupTag, selectedKey);
}

void lookUp() {
    if (Endpoint::find(groupTag, selectedKey)) {
        throw std::runtime_error("A dead entry was found.");
    }
}

/// A crash leaves nothing that a lookup returns, keeps, or lets stand in a publisher's way.
void expectNoHarm(int step) {
    EXPECT_FALSE(Endpoint::find(groupTag, selectedKey)) << "killed at step " << step;
    EXPECT_EQ(traces("qvER"), std::vector<std::string>()) << "killed at step " << step;
    ASSERT_NO_THROW(publishAndWithdraw()) << "killed at step " << step;
    // Of files that had not got their names yet, the next publisher clears the rest away.
    EXPECT_EQ(traces(".nascent-"), std::vector<std::string>()) << "killed at step " << step;
}

} // namespace

TEST(CrashAtAnyMoment, OfAPublisherLeavesNothingThatIsFoundOrInTheWay) {
    int step = 0;
    for (bool wasKilled = true; wasKilled; ++step) {
        {
            tests::TracedProcess publisher(publishAndWithdraw);
            wasKilled = publisher.run(step);
        }
        expectNoHarm(step);
    }
    // Far fewer would mean that the child did not do what it is killed for.
    EXPECT_GT(step, 50);
}

TEST(CrashAtAnyMoment, OfAReaderThatClearsUpAfterTheDeadLeavesTheRestToTheNext) {
    int step = 0;
    for (bool wasKilled = true; wasKilled; ++step) {
        {
            tests::TracedProcess publisher([] {
                const Endpoint endpoint(data, groupTag, selectedKey);
                ::_exit(EXIT_SUCCESS);
            });
            ASSERT_FALSE(publisher.run(1'000'000));
            ASSERT_EQ(traces("qvER").size(), 2U);
        }
        {
            tests::TracedProcess reader(lookUp);
            wasKilled = reader.run(step);
        }
        expectNoHarm(step);
    }
    EXPECT_GT(step, 20);
}
