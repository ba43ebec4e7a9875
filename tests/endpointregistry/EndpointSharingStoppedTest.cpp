#include "endpointregistry/Endpoint.h"

#include "tests/endpointregistry/EndpointProcesses.h"
#include "tests/endpointregistry/LockedFileTools.h"
#include "tests/endpointregistry/SharingTools.h"
#include "tests/support/ForkedProcess.h"
#include "tests/support/TestAccounts.h"
#include "tests/support/TracedProcess.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace agent::spf::endpointregistry;
using tests::Channel;
using tests::Crew;
using tests::DataPair;
using tests::DataPairs;
using tests::ForkedProcess;
using tests::Names;
using tests::Rows;
using tests::TracedProcess;
using tests::Trustees;

// Whoever waits for a process that is stopped does so for seconds. So many are stopped at the same
// time, each in a group of its own, and all are waited for together.

namespace {

namespace accounts = tests::accounts;
using accounts::anna;
using accounts::ben;
using accounts::family;

const std::string tag = "tag";

/// Each step is into or out of a system call.
constexpr int stepsOfThreeCalls = 6;

/// What a process of anna's is stopped in. It prepares itself, says by `beginSteps` that it gets
/// interesting, acts, and calls `rest`, which does not return.
struct Operation {
    std::string name;
    /// How many entries of ben's there are, of which the last one is to be withdrawn meanwhile.
    int others;
    /// Whether an entry of hers is shared when it is done.
    bool shares;
    /// Whether a dead entry of hers is there before.
    bool needsDead;
    void (*run)(const std::string& group, const std::function<void()>& rest);
};

void beginSteps() {
    static_cast<void>(::raise(SIGSTOP));
}

/// The key of her entry, and its second string, is the group.
DataPair annasIn(const std::string& group) {
    return {"anna's", group};
}

DataPair bensIn(const std::string& group, int number) {
    return {"ben's in " + group, std::to_string(number)};
}

std::string keyOf(const DataPair& data) {
    return data.first + data.second;
}

Endpoint endpointOf(const DataPair& data) {
    return {data, tag, keyOf(data)};
}

void share(const std::string& group, const std::function<void()>& rest) {
    Endpoint endpoint = endpointOf(annasIn(group));
    beginSteps();
    endpoint.addTrustees({group});
    rest();
}

void withdraw(const std::string& group, const std::function<void()>& rest) {
    Endpoint endpoint = endpointOf(annasIn(group));
    endpoint.addTrustees({group});
    beginSteps();
    endpoint.removeTrustees({group});
    rest();
}

void list(const std::string& group, const std::function<void()>& rest) {
    beginSteps();
    Endpoint::list({group});
    rest();
}

void find(const std::string& group, const std::function<void()>& rest) {
    beginSteps();
    Endpoint::find(tag, keyOf(bensIn(group, 0)), {group});
    rest();
}

/// Ten rows fill a table, so that one more has it replaced by a larger one.
const std::vector<Operation>& operations() {
    static const std::vector<Operation> all{
        {"first share", 0, true, false, share},
        {"share that makes the table grow", 10, true, false, share},
        {"withdrawal that makes the table shrink", 10, false, false, withdraw},
        {"withdrawal of the last share", 0, false, false, withdraw},
        {"list", 10, false, false, list},
        {"find", 10, false, false, find},
        {"list that clears up", 9, false, true, list},
    };
    return all;
}

const Operation& operation(const std::string& name) {
    return *std::find_if(operations().begin(), operations().end(),
                         [&name](const Operation& each) { return each.name == name; });
}

/// Where a process is stopped.
struct Point {
    const Operation* operation;
    int step;
};

constexpr std::size_t groupCount = 40;

std::string groupOf(std::size_t number) {
    return "group" + std::to_string(number);
}

Names allGroups() {
    Names groups;
    for (std::size_t number = 0; number < groupCount; ++number) {
        groups.push_back(groupOf(number));
    }
    return groups;
}

/// In no other group, since each would be looked at by some operations.
void become(const std::string& user, const Names& groups) {
    accounts::becomeMemberOf(groups, accounts::userId(user));
}

/// As root: leaves an entry of anna's whose publisher was killed.
void leaveDeadEntry(const std::string& group) {
    ForkedProcess publisher([&group](Channel& test) {
        become(anna, {group});
        Endpoint endpoint = endpointOf(annasIn(group));
        endpoint.addTrustees({group});
        test.send("shared");
        test.receive();
    });
    publisher.channel().receive();
    publisher.kill();
}

/// How often this process has gone to sleep, as it does while it waits.
long countSleeps() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw; // NOLINT(*-pro-type-union-access): as the C library declares it
}

double secondsOfProcessor() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    constexpr double microsecond = 1e-6;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * microsecond;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Who waits for a lock sleeps for 2 ms at a time, however busy the machine is. So these are how
/// often one does who waits for nobody, for once 2 s, and for once 10 s.
constexpr long sleepsWithoutWaiting = 300;
constexpr long sleepsOfAShortWait = 1'500;
constexpr long sleepsOfALongWait = 6'500;

/// Who was refused after 10 s has slept at least so often, unless it used the processor all the
/// time.
constexpr long fewestSleepsOfALongWait = 100;

/// Runs the body and expects that it sleeps at most so often, and hardly uses the processor.
/// Returns how often it slept.
long expectQuiet(long sleeps, const std::function<void()>& body) {
    const long sleepsBefore = countSleeps();
    const double secondsBefore = secondsOfProcessor();
    body();
    const long slept = countSleeps() - sleepsBefore;
    constexpr double little = 0.5;
    EXPECT_LT(slept, sleeps);
    EXPECT_LT(secondsOfProcessor() - secondsBefore, little);
    return slept;
}

/// In a process of ben's: shares, withdraws the last whenever it is told, and the rest at its end.
void serve(const std::string& group, int count, Channel& test) {
    become(ben, {group});
    std::list<Endpoint> endpoints;
    for (int number = 0; number < count; ++number) {
        endpoints.push_back(endpointOf(bensIn(group, number)));
        endpoints.back().addTrustees({group});
    }
    test.send("shared");
    while (test.receive() != "end") {
        if (!endpoints.empty()) {
            expectQuiet(sleepsOfAShortWait, [&] { endpoints.back().clearTrustees(); });
            endpoints.pop_back();
        }
        test.send("withdrawn");
    }
}

/// Those of ben's that stay.
DataPairs lastingOf(const Point& point, const std::string& group) {
    DataPairs all;
    for (int number = 0; number + 1 < point.operation->others; ++number) {
        all.push_back(bensIn(group, number));
    }
    return all;
}

/// As root: nobody waits who has to do with neither the group nor the user that is stopped.
void expectNoDelayElsewhere() {
    EXPECT_EQ(tests::runInChild([] {
                  become(ben, {family});
                  expectQuiet(sleepsWithoutWaiting, [] {
                      const DataPair data("elsewhere", "data");
                      Endpoint endpoint = endpointOf(data);
                      EXPECT_EQ(Endpoint::find(tag, keyOf(data)), data);
                      endpoint.addTrustees({family});
                      EXPECT_EQ(Endpoint::list({family}), DataPairs{data});
                      endpoint.clearTrustees();
                      EXPECT_EQ(Endpoint::list({family}), DataPairs());
                  });
              }),
              0);
}

Names visibleEntries(const std::string& group) {
    Names names = tests::sharedEntries(group);
    std::erase_if(names, [](const std::string& name) { return name.front() == '.'; });
    return names;
}

/// As root: nothing is left in any of the groups, and all can be used.
void expectAllWell(std::size_t groups) {
    Names used = allGroups();
    used.resize(groups);
    EXPECT_EQ(tests::runInChild([&used] {
                  become(ben, used);
                  for (const std::string& group : used) {
                      EXPECT_EQ(Endpoint::list({group}), DataPairs()) << group;
                      EXPECT_EQ(visibleEntries(group), Names()) << group;
                      EXPECT_EQ(tests::rowsOf(group), Rows()) << group;
                  }
              }),
              0);
    for (const std::string& user : {anna, ben, anna}) {
        EXPECT_EQ(tests::runInChild([&] {
                      become(user, used);
                      const DataPair data("all", "well");
                      Endpoint endpoint = endpointOf(data);
                      endpoint.addTrustees(Trustees(used.begin(), used.end()));
                      for (const std::string& group : used) {
                          EXPECT_EQ(Endpoint::list({group}), DataPairs{data}) << group;
                      }
                  }),
                  0);
    }
    // The kernel has no segment that no record names, and that nobody would ever remove.
    std::size_t records = tests::records(family).size();
    for (const std::string& group : used) {
        const std::size_t ofGroup = tests::records(group).size();
        EXPECT_LE(ofGroup, 3U) << group;
        records += ofGroup;
    }
    EXPECT_EQ(tests::kernelSegments().size(), records);
}

/// anna's processes, stopped at these points, each in a group of its own.
class Stage {
public:
    explicit Stage(std::vector<Point> points)
        : points(std::move(points))
        , publishers(this->points.size(), [this](std::size_t number, Channel& test) {
            serve(groupOf(number), this->points.at(number).operation->others, test);
        }) {
        publishers.hear();
        for (std::size_t number = 0; number < size(); ++number) {
            const Operation& stopped = *point(number).operation;
            const std::string group = groupOf(number);
            if (stopped.needsDead) {
                leaveDeadEntry(group);
            }
            processes.push_back(std::make_unique<TracedProcess>([&] {
                become(anna, {group});
                stopped.run(group, [] {
                    for (;;) {
                        beginSteps();
                    }
                });
            }));
            processes.back()->runToOwnStop();
            EXPECT_TRUE(processes.back()->run(point(number).step));
        }
    }

    std::size_t size() const { return points.size(); }
    const Point& point(std::size_t number) const { return points.at(number); }
    pid_t pid(std::size_t number) const { return processes.at(number)->pid(); }

    std::string describe(std::size_t number) const {
        return point(number).operation->name + ", step " + std::to_string(point(number).step);
    }

    void beginWithdrawals() const { publishers.tell("withdraw"); }
    void expectWithdrawn() const { publishers.hear(); }

    /// Half of the processes are killed; the others go on, and stay when they are done.
    void goOnOrDie() {
        for (std::size_t number = 0; number < size(); ++number) {
            isKilled(number) ? processes.at(number).reset() : processes.at(number)->runToOwnStop();
        }
    }

    /// What is shared in a group after that.
    DataPairs expected(std::size_t number) const {
        DataPairs all = lastingOf(point(number), groupOf(number));
        if (!isKilled(number) && point(number).operation->shares) {
            all.insert(all.begin(), annasIn(groupOf(number)));
        }
        return all;
    }

    void end() {
        processes.clear();
        publishers.tell("end");
        publishers.expectSuccess();
    }

private:
    static bool isKilled(std::size_t number) { return number % 2 == 1; }

    std::vector<Point> points;
    Crew publishers;
    std::vector<std::unique_ptr<TracedProcess>> processes;
};

/// As ben, while anna is stopped: finds what lives, and nothing else than what may be there.
void lookUp(const Point& point, const std::string& group, bool byList) {
    become(ben, {group});
    const DataPairs lasting = lastingOf(point, group);
    if (!byList) {
        const DataPair wanted = lasting.empty() ? annasIn(group) : lasting.front();
        const auto found = Endpoint::find(tag, keyOf(wanted), {group});
        EXPECT_TRUE(found == wanted || (lasting.empty() && !found));
        return;
    }
    DataPairs found = Endpoint::list({group});
    std::erase(found, annasIn(group));
    std::erase(found, bensIn(group, point.operation->others - 1));
    EXPECT_EQ(found, lasting);
}

/// Shares, and returns what the refusal says; nothing where it went well.
std::string tryToShare(Endpoint& endpoint, const std::string& group) {
    try {
        endpoint.addTrustees({group});
        return "";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(endpoint.getTrustees(), Trustees());
        return error.what();
    }
}

class EndpointSharingStopped : public tests::SharingTest {
protected:
    /// Runs the body in a child whose machine has many groups.
    static void onAMachineWithManyGroups(const std::function<void()>& body) {
        EXPECT_EQ(tests::runInChild([&body] {
                      accounts::addGroups(allGroups());
                      body();
                  }),
                  0);
    }

    /// Every third system call of an operation.
    static std::vector<Point> pointsOf(const Operation& each) {
        startAfresh();
        const std::string group = groupOf(0);
        std::vector<Point> points;
        ForkedProcess publisher([&](Channel& test) { serve(group, each.others, test); });
        publisher.channel().receive();
        if (each.needsDead) {
            leaveDeadEntry(group);
        }
        TracedProcess process([&] {
            become(anna, {group});
            each.run(group, [] { ::_exit(EXIT_SUCCESS); });
        });
        process.runToOwnStop();
        for (int step = 1; process.run(stepsOfThreeCalls); step += stepsOfThreeCalls) {
            points.push_back({&each, step});
        }
        return points;
    }
};

} // namespace

TEST_F(EndpointSharingStopped, AMemberDelaysNoLookUpAndNoWithdrawalOfOthersForGood) {
    onAMachineWithManyGroups([] {
        std::vector<Point> points;
        for (const Operation& each : operations()) {
            const std::vector<Point> more = pointsOf(each);
            EXPECT_GT(more.size(), 5U) << each.name;
            points.insert(points.end(), more.begin(), more.end());
        }
        for (std::size_t start = 0; start < points.size(); start += groupCount) {
            startAfresh();
            const auto first = points.begin() + static_cast<std::ptrdiff_t>(start);
            const std::size_t count = std::min(groupCount, points.size() - start);
            Stage stage({first, first + static_cast<std::ptrdiff_t>(count)});
            // Found or not, all this returns while anna's processes are stopped.
            const Crew lookups(2 * count, [&stage](std::size_t number, Channel&) {
                SCOPED_TRACE(stage.describe(number / 2));
                expectQuiet(sleepsOfAShortWait, [&] {
                    lookUp(stage.point(number / 2), groupOf(number / 2), number % 2 == 0);
                });
            });
            stage.beginWithdrawals();
            expectNoDelayElsewhere();
            stage.expectWithdrawn();
            lookups.expectSuccess();
            stage.goOnOrDie();
            EXPECT_EQ(tests::runInChild([&stage] {
                          become(ben, allGroups());
                          for (std::size_t number = 0; number < stage.size(); ++number) {
                              EXPECT_EQ(Endpoint::list({groupOf(number)}), stage.expected(number))
                                  << stage.describe(number);
                          }
                      }),
                      0);
            stage.end();
            expectAllWell(count);
        }
    });
}

TEST_F(EndpointSharingStopped, AMemberIsNamedToThoseWhoCannotShareAndCostsOthersNoRow) {
    onAMachineWithManyGroups([] {
        std::vector<Point> all = pointsOf(operation("first share"));
        const std::vector<Point> more = pointsOf(operation("share that makes the table grow"));
        all.insert(all.end(), more.begin(), more.end());
        // As many as there are groups; a sanitizer's calls are points as well.
        std::vector<Point> points;
        for (std::size_t number = 0; number < all.size(); number += all.size() / groupCount + 1) {
            points.push_back(all.at(number));
        }
        startAfresh();
        Stage stage(points);
        std::vector<bool> isLocked;
        for (std::size_t number = 0; number < stage.size(); ++number) {
            const std::string lock = tests::tableLock(groupOf(number));
            isLocked.push_back(::access(lock.c_str(), F_OK) == 0 && tests::isHeld(lock));
        }
        EXPECT_GT(std::count(isLocked.begin(), isLocked.end(), true), 3);
        EXPECT_GT(std::count(isLocked.begin(), isLocked.end(), false), 3);

        // Where nobody has the lock, enough are shared to have the table replaced.
        constexpr int shares = 12;
        const auto dataOf = [](std::size_t number, int share) {
            return DataPair("meanwhile in " + groupOf(number), std::to_string(100 + share));
        };
        const Crew sharers(stage.size(), [&](std::size_t number, Channel& test) {
            SCOPED_TRACE(stage.describe(number));
            const std::string group = groupOf(number);
            become(ben, {group});
            std::list<Endpoint> endpoints;
            for (int share = 0; share < (isLocked.at(number) ? 1 : shares); ++share) {
                endpoints.push_back(endpointOf(dataOf(number, share)));
                std::string refusal;
                const long slept = expectQuiet(
                    sleepsOfALongWait, [&] { refusal = tryToShare(endpoints.back(), group); });
                EXPECT_TRUE(refusal.empty() || slept > fewestSleepsOfALongWait);
                test.send(refusal);
            }
            test.receive();
        });
        const std::string refusal =
            "System Error: NamedStringArray: The tables are locked by process ";
        int named = 0;
        for (std::size_t number = 0; number < stage.size(); ++number) {
            for (int share = 0; share < (isLocked.at(number) ? 1 : shares); ++share) {
                const std::string answer = sharers[number].channel().receive();
                if (!isLocked.at(number)) {
                    EXPECT_EQ(answer, "") << stage.describe(number);
                    continue;
                }
                const bool isNamed = answer == refusal + std::to_string(stage.pid(number));
                EXPECT_TRUE(isNamed || answer == refusal + "0")
                    << stage.describe(number) << ": " << answer;
                named += isNamed ? 1 : 0;
            }
        }
        EXPECT_GT(named, 3);
        stage.goOnOrDie();
        EXPECT_EQ(
            tests::runInChild([&] {
                become(ben, allGroups());
                for (std::size_t number = 0; number < stage.size(); ++number) {
                    DataPairs expected = stage.expected(number);
                    if (const Point& point = stage.point(number); point.operation->others > 0) {
                        expected.push_back(bensIn(groupOf(number), point.operation->others - 1));
                    }
                    for (int share = 0; share < shares && !isLocked.at(number); ++share) {
                        expected.push_back(dataOf(number, share));
                    }
                    EXPECT_EQ(Endpoint::list({groupOf(number)}), expected)
                        << stage.describe(number);
                    EXPECT_EQ(tests::rowsOf(groupOf(number)).size(), expected.size())
                        << stage.describe(number);
                }
            }),
            0);
        sharers.tell("end");
        sharers.expectSuccess();
        stage.end();
        expectAllWell(stage.size());
    });
}
