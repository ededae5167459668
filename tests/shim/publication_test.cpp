// The three publications side by side, and what they leave alone.
#include "shim_utils/publication/publication.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <thread>

#include "fake_clock.h"
#include "measured_process.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/publication/semaphores.h"
#include "transfer.h"

namespace tolvane::test {
namespace {

constexpr int kDescriptor = 9;

struct Form {
    const char* name;
    ServerType type;
    void (*publish)();
};
const Form kWorker = {"worker", kApacheProcesses, writeResult};
const Form kNetscapeMonitor = {"Netscape monitor", kNetscape, publishSlots};
const Form kApacheMonitor = {"Apache monitor", kApacheThreads, publishSlots};
const Form kExit = {"exit", kApacheProcesses, publishAtExit};

// What slot 0 has counted everywhere, and its gauges.
void setCounts(std::uint32_t n, std::int32_t gauge) {
    ResultStruct& local = slotAt(0).result;
    local.total = {n, n, n, n, n, n, gauge, n, n, n};
    std::ranges::fill(local.site, local.total);
    for (auto& site : local.category) {
        std::ranges::fill(site, CategoryCounters{n, n, n, n, gauge, n / 2.0});
    }
    slotAt(0).state.touchedSites.store(~0U);
    ++slotAt(0).state.dirtyMarks;
}

// A record in which every counter of the totals, of sites 0 and 1 and of one
// category is 1.
std::string published(int totalOpen, int siteOpen, int inProgress) {
    ResultStruct record = {};
    record.total = {1, 1, 1, 1, 1, 1, totalOpen, 1, 1, 1};
    record.site[0] = record.site[1] = {1, 1, 1, 1, 1, 1, siteOpen, 1, 1, 1};
    record.category[0][0] = {1, 1, 1, 1, inProgress, 0.5};
    return describe(record);
}

int freeUnits(const ResultStruct& record) {
    return webServerType == kNetscape
               ? 1
               : semctl(semaphoreOf(static_cast<int>(&record - shmPtr)), 0, GETVAL);
}

TEST(Publication, AddsCountersOnceAndGaugesByTheFormsRules) {
    const struct {
        Form form;
        int gauge, totalOpen, siteOpen, inProgress;
    } cases[] = {
        {kWorker, 2, 0, 0, 2},
        {kWorker, -1, 0, 0, -1},
        {kNetscapeMonitor, 2, 2, 2, 2},
        {kNetscapeMonitor, -1, 0, 0, 0},
        {kApacheMonitor, 2, 2, 2, 2},
        {kApacheMonitor, -1, 0, 0, 0},
        {kExit, 2, 0, 2, 0},
        {kExit, -1, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.form.name << ", gauges " << c.gauge);
        inChild([&c] {
            const MeasuredProcess process(c.form.type, 1024, 3);
            bucketNumber = 1;
            putIntoForce({{"a.test", {"/x"}}, {"b.test", {}}});
            setCounts(1, c.gauge);
            c.form.publish();
            c.form.publish();  // nothing new
            EXPECT_EQ(describe(shmPtr[1]), published(c.totalOpen, c.siteOpen, c.inProgress));
            EXPECT_EQ(describe(shmPtr[0]) + describe(shmPtr[2]), "");
            const ResultStruct& shared = shmPtr[1];
            EXPECT_EQ(shared.totalDirty + shared.sitesDirty + shared.categoriesDirty, 3);
            EXPECT_EQ(freeUnits(shared), 1);

            // A gauge is added at every publication, a counter only what is new;
            // counts without a site stay without a site.
            setCounts(1, c.gauge);
            slotAt(0).result.total.requests = 4;
            putIntoForce({{"a.test", {"/x", "/y"}}, {"b.test", {}}, {"c.test", {}}});
            c.form.publish();
            EXPECT_EQ(shared.total.requests, 4U);
            EXPECT_EQ(shared.total.connections, 1U);
            EXPECT_EQ(int{shared.category[0][0].inProgress}, c.inProgress * 2);
            // The publication at exit happens once.
            EXPECT_EQ(int{shared.site[0].openConnections},
                      c.siteOpen * (c.form.publish == publishAtExit ? 1 : 2));
            EXPECT_EQ(shared.category[0][1].requests + shared.site[2].requests, 0U);
        });
    }
}

TEST(Publication, ClearsTheGroupsThatTheAgentHasCollected) {
    const struct {
        Form form;
        bool dirty;  // the slot
        bool clears;
        bool adds;
    } cases[] = {{kWorker, true, true, true},          {kWorker, false, false, false},
                 {kNetscapeMonitor, true, true, true}, {kApacheMonitor, true, true, true},
                 {kApacheMonitor, false, true, false}, {kExit, true, false, true},
                 {kExit, false, false, true}};
    for (const auto& c : cases) {
        for (int taken = 0; taken < 8; ++taken) {  // a bit for each group
            SCOPED_TRACE(testing::Message() << c.form.name << c.dirty << ", taken " << taken);
            inChild([&c, taken] {
                const MeasuredProcess process(c.form.type);
                putIntoForce({{"a.test", {"/x"}}});
                setCounts(1, 0);
                if (!c.dirty) slotAt(0).state.dirtyMarks.store(0);
                ResultStruct& shared = shmPtr[0];
                CounterBlock& site = shared.site[9];
                CategoryCounters& category = shared.category[9][14];
                shared.total.requests = site.requests = category.requests = 7;
                shared.total.openConnections = site.openConnections = category.inProgress = 7;
                const auto isTaken = [taken](int group) { return (taken >> group & 1) != 0; };
                std::int32_t* flags[] = {&shared.totalDirty, &shared.sitesDirty,
                                         &shared.categoriesDirty};
                for (int g = 0; g < 3; ++g) *flags[g] = !isTaken(g);
                c.form.publish();
                const auto left = [&](int g) { return c.clears && isTaken(g) ? 0 : 7; };
                EXPECT_EQ(static_cast<int>(shared.total.requests), left(0) + c.adds);
                EXPECT_EQ(int{shared.total.openConnections}, left(0));
                EXPECT_EQ(static_cast<int>(site.requests), left(1));
                EXPECT_EQ(int{site.openConnections}, left(1));
                EXPECT_EQ(static_cast<int>(category.requests), left(2));
                EXPECT_EQ(int{category.inProgress}, left(2));
                EXPECT_EQ(shared.site[0].requests, c.adds ? 1U : 0U);
                for (int g = 0; g < 3; ++g) EXPECT_EQ(*flags[g] == 1, c.adds || !isTaken(g));
                EXPECT_EQ(freeUnits(shared), 1);
            });
        }
    }
}

TEST(Publication, HappensEveryIntervalInAWorker) {
    const MeasuredProcess process(kApacheProcesses);
    countAccepted(kDescriptor, kPlain);
    shmConfig->version = 3;
    for (unsigned call = 1; call <= 11; ++call) {
        received(kDescriptor, 1, {});
        sent(kDescriptor, call % 2 ? 1000 : -1, {});  // failed calls count as well
        EXPECT_EQ(shmPtr[0].total.bytesReceived, call / 5 * 5) << call;
        EXPECT_EQ(configInfo().info.version, call < 5 ? 0 : 3) << call;
    }
    countAccepted(kDescriptor, kSsl);  // its calls do not
    for (int call = 0; call < 10; ++call) sent(kDescriptor, 1, {});
    EXPECT_EQ(shmPtr[0].total.bytesReceived, 10U);
}

TEST(Publication, WithoutItsSemaphoreKeepsTheCounts) {
    for (const Form& form : {kWorker, kApacheMonitor, kExit}) {
        SCOPED_TRACE(form.name);
        inChild([&form] {
            const MeasuredProcess process(form.type);
            countAccepted(kDescriptor, kPlain);
            shmConfig->version = 3;
            removeSemaphore(semaphoreOf(0));
            form.publish();
            EXPECT_EQ(describe(shmPtr[0]), "");
            EXPECT_EQ(configInfo().info.version, 0);
            ASSERT_TRUE(createSemaphores(1));
            form.publish();
            EXPECT_EQ(shmPtr[0].total.connections, 1U);
        });
    }
}

// As any local user can do it, without a limit in time.
void holdSemaphore(bool held) {
    inChild([held] { ASSERT_EQ(semctl(semaphoreOf(0), 0, SETVAL, held ? 0 : 1), 0); });
}

TEST(Publication, HeldSemaphoreDelaysOnePublicationByASecond) {
    using namespace std::chrono_literals;
    const auto now = std::chrono::steady_clock::now;
    for (const Form& form : {kWorker, kApacheMonitor}) {
        SCOPED_TRACE(form.name);
        inChild([&] {
            const MeasuredProcess process(form.type);
            LogTail log;
            countAccepted(kDescriptor, kPlain);
            const struct {
                bool held;
                int secondsLater;
                bool waits;
                unsigned published;
            } steps[] = {
                {true, 0, true, 0},     {true, 0, false, 0},  {true, 100, false, 0},
                {false, 0, false, 1},   {true, 0, true, 1},   {false, 0, false, 2},
                {true, 10, false, 2},   {false, 0, false, 3}, {true, 100, false, 3},
                {false, 100, false, 4},
            };
            for (const auto& step : steps) {
                SCOPED_TRACE(&step - steps);
                holdSemaphore(step.held);
                monotonicAhead += step.secondsLater;
                const auto start = now();
                form.publish();
                const auto took = now() - start;
                EXPECT_GE(took, step.waits ? 900ms : 0ms);
                EXPECT_LT(took, step.waits ? 1500ms : 300ms);
                EXPECT_EQ(shmPtr[0].total.connections, step.published);
                EXPECT_EQ(log.next().size(), step.waits ? 1U : 0U);
                if (!step.held) countAccepted(kDescriptor, kPlain);
            }
        });
    }
    inChild([&] {
        const MeasuredProcess process(kApacheProcesses);
        LogTail log;
        countAccepted(kDescriptor, kPlain);
        holdSemaphore(true);
        const auto start = now();
        publishAtExit();
        EXPECT_GE(now() - start, 1900ms);
        EXPECT_LT(now() - start, 2500ms);
        EXPECT_EQ(log.next().size(), 2U);
    });
}

// A signal ends the wait of a call of the server, but not the wait at exit.
TEST(Publication, InterruptedWaitKeepsTheCounts) {
    for (const Form& form : {kWorker, kExit}) {
        SCOPED_TRACE(form.name);
        inChild([&] {
            const MeasuredProcess process(form.type);
            countAccepted(kDescriptor, kPlain);
            holdSemaphore(true);
            struct sigaction action = {};
            action.sa_handler = [](int) {};
            sigaction(SIGALRM, &action, nullptr);
            const itimerval soon = {{0, 0}, {0, 50'000}};
            setitimer(ITIMER_REAL, &soon, nullptr);
            std::thread agent([] {
                sigset_t all;
                sigfillset(&all);
                pthread_sigmask(SIG_SETMASK, &all, nullptr);
                std::this_thread::sleep_for(std::chrono::milliseconds(400));
                holdSemaphore(false);
            });
            form.publish();
            const unsigned atOnce = form.publish == publishAtExit ? 1 : 0;
            EXPECT_EQ(shmPtr[0].total.connections, atOnce);
            agent.join();
            form.publish();
            EXPECT_EQ(shmPtr[0].total.connections, 1U);
            EXPECT_EQ(freeUnits(shmPtr[0]), 1);
        });
    }
}

TEST(Publication, AddsToAnyValuesInTheRecord) {
    for (const Form& form : {kWorker, kNetscapeMonitor, kApacheMonitor, kExit}) {
        SCOPED_TRACE(form.name);
        inChild([&form] {
            const MeasuredProcess process(form.type);
            putIntoForce({{"a.test", {"/x"}}});
            setCounts(1, 1);
            std::ranges::fill_n(reinterpret_cast<std::int32_t*>(shmPtr), sizeof *shmPtr / 4,
                                INT_MAX);
            form.publish();
            EXPECT_EQ(shmPtr[0].total.requests, INT_MAX + 1U);
            EXPECT_EQ(freeUnits(shmPtr[0]), 1);
        });
    }
}

}  // namespace
}  // namespace tolvane::test
