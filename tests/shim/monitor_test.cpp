// The monitor's sleep, and the start of a process that has one.
#include <gtest/gtest.h>

#include <climits>
#include <latch>
#include <thread>

#include "fake_clock.h"
#include "measured_process.h"
#include "shim_monitor.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/lifecycle/first_connection.h"

namespace tolvane::test {
namespace {

TEST(Monitor, SleepsUntilTheConfiguredOrAShortenedInterval) {
    struct Write {
        int second, version, interval;
    };
    const struct {
        const char* name;
        int version, interval;  // in force
        std::vector<Write> writes;
        int seconds;
    } cases[] = {
        {"as configured", 1, 5, {}, 5},
        {"none", 1, 0, {}, 60},
        {"negative", 1, INT_MIN, {}, 60},
        {"not before its end", 1, 20, {{3, 2, 1}}, 20},
        {"nor in an hour", 1, 3600, {{3, 2, 1}}, 3600},
        {"long", 1, 3601, {}, 3601},
        {"too long", 1, INT_MAX, {{100, 2, 5}}, 104},
        {"too long again", 1, INT_MAX, {{100, 2, INT_MAX}}, 159},
        {"negative again", 1, INT_MAX, {{100, 2, -1}}, 159},
        {"shortened later", 1, INT_MAX, {{100, 2, 3600}, {200, 3, 5}}, 200},
        {"withdrawn for long", 1, INT_MAX, {{100, 2, 5}, {102, -1, 5}, {300, 3, 5}}, 304},
        {"highest version", INT_MAX, INT_MAX, {}, 60},
        {"highest version, repaired", INT_MAX, INT_MAX, {{10, INT_MAX, 20}}, 20},
        {"interval alone", 1, 4000, {{100, 1, 5}}, 4000},
        {"first one", 0, 0, {{7, 1, 30}}, 7},
        {"first one being written", 0, 0, {{7, 0, 30}, {9, -5, 30}}, 60},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const MeasuredProcess process(kNetscape);
        ConfigInfo& own = editConfiguration();
        shmConfig->version = own.version = c.version;
        shmConfig->interval = own.interval = c.interval;
        useEditedConfiguration();
        int seconds = 0;
        insteadOfSleeping = [&] {
            ++seconds;
            for (const Write& write : c.writes) {
                if (write.second != seconds) continue;
                shmConfig->version = write.version;
                shmConfig->interval = write.interval;
            }
        };
        sleepUntilPublication();
        insteadOfSleeping = nullptr;
        EXPECT_EQ(seconds, c.seconds);
    }
}

TEST(Monitor, TakesNothingWhileTheFirstConfigurationIsBeingWritten) {
    for (const int version : {kVersionCreated, kVersionRemoved, -1000, 0}) {
        inChild([version] {
            static const MeasuredProcess process(kApacheThreads);  // its monitor never ends
            configure(*shmConfig, {{"half.test", {}}});
            shmConfig->version = version;
            makeReadyForConnections();
            EXPECT_EQ(configInfo().info.version, 0);
            EXPECT_EQ(configInfo().info.numSites, 0);
            std::atomic_ref(shmConfig->version).store(1);
            for (int i = 0; i < 300 && configInfo().info.version == 0; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            EXPECT_EQ(configInfo().info.version, 1);
        });
    }
}

TEST(FirstConnection, IsWaitedForByEveryThread) {
    for (int round = 0; round < 20; ++round) {
        inChild([] {
            static const MeasuredProcess process(kApacheThreads);  // its monitor never ends
            configure(*shmConfig, {{"a.test", std::vector<std::string>(15, "/a*b*c*d*e*f")}});
            shmConfig->version = 1;
            constexpr int kThreads = 8;
            std::latch start(kThreads);
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&start] {
                    start.arrive_and_wait();
                    makeReadyForConnections();
                    EXPECT_EQ(configInfo().info.version, 1);
                });
            }
            for (auto& thread : threads) thread.join();
        });
    }
}

}  // namespace
}  // namespace tolvane::test
