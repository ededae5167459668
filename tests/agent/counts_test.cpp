// Sums over records, what was added between two samples, and reading records
// while a server publishes.
#include "counts/counts.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "fake_server.h"

namespace tolvane::agent::test {
namespace {

ResultStruct dirtyRecord() {
    ResultStruct record{};
    record.totalDirty = record.sitesDirty = record.categoriesDirty = 1;
    return record;
}

TEST(Counts, AddUpOverTheRecordsThatAreNotCollected) {
    std::vector<ResultStruct> records(3, dirtyRecord());
    for (std::uint32_t i = 0; i < 3; ++i) {
        records[i].total.requests = 10U << i;
        records[i].site[9].bytesSent = 4000000000U;
        records[i].category[9][14].responseTimeSum = 0.5;
    }
    records[2].totalDirty = records[2].categoriesDirty = 0;
    CountSet sum = countsOf(records);
    EXPECT_EQ(sum.total[&CounterBlock::requests], 30U);
    EXPECT_EQ(sum.site[9][&CounterBlock::bytesSent], 12000000000U);
    EXPECT_DOUBLE_EQ(sum.category[9][14].responseTimeSum, 1.0);
}

TEST(Counts, IncreaseHandlesWrapsAndClearedGroups) {
    struct Case {
        const char* what;
        Gap gap;
        std::uint32_t requestsBefore, bytesBefore, requestsAfter, bytesAfter;
        std::int32_t dirtyAfter;
        std::uint64_t requests, bytes;
    };
    const Case cases[] = {
        {"plain", Gap::kSeconds, 10, 100, 15, 150, 1, 5, 50},
        {"unchanged", Gap::kSeconds, 10, 100, 10, 100, 1, 0, 0},
        {"bytes wrapped", Gap::kSeconds, 10, 4294967290U, 11, 4, 1, 1, 10},
        {"cleared, fewer since", Gap::kSeconds, 10, 100, 3, 30, 1, 3, 30},
        {"cleared, more since", Gap::kSeconds, 10, 2000000000U, 15, 1000000, 1, 15, 1000000},
        {"not dirty", Gap::kSeconds, 10, 100, 10, 100, 0, 0, 0},
        {"requests wrapped", Gap::kAny, 4294967290U, 100, 4, 150, 1, 10, 50},
        {"more bytes than half", Gap::kAny, 10, 0, 15, 3000000000U, 1, 5, 3000000000U},
        {"bytes wrapped far", Gap::kAny, 10, 3000000000U, 15, 2000000000U, 1, 5, 3294967296U},
        {"cleared long ago", Gap::kAny, 1000, 50000, 3, 60000, 1, 3, 60000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto record = [](std::uint32_t requests, std::uint32_t bytes, std::int32_t dirty) {
            ResultStruct r{};
            r.total.requests = r.site[3].requests = r.category[3][2].requests = requests;
            r.total.bytesSent = r.site[3].bytesSent = r.category[3][2].bytesSent = bytes;
            r.totalDirty = r.sitesDirty = r.categoriesDirty = dirty;
            return r;
        };
        CountSet added;
        addIncrease(added, record(c.requestsBefore, c.bytesBefore, 1),
                    record(c.requestsAfter, c.bytesAfter, c.dirtyAfter), c.gap);
        EXPECT_EQ(added.total[&CounterBlock::requests], c.requests);
        EXPECT_EQ(added.total[&CounterBlock::bytesSent], c.bytes);
        EXPECT_EQ(added.site[3][&CounterBlock::requests], c.requests);
        EXPECT_EQ(added.site[3][&CounterBlock::bytesSent], c.bytes);
        EXPECT_EQ(added.category[3][2][&CategoryCounters::requests], c.requests);
        EXPECT_EQ(added.category[3][2][&CategoryCounters::bytesSent], c.bytes);
    }
}

TEST(Counts, RecordIsCopiedBetweenTwoPublications) {
    FakeServer server;
    int semaphore = server.semaphores()[0];
    std::atomic<bool> stop{false};
    std::thread publisher([&] {
        server.edit([&](ConfigInfo&, ResultStruct* records) {
            for (std::uint32_t i = 1; !stop; ++i) {
                sembuf lock = {0, -1, SEM_UNDO};
                sembuf unlock = {0, 1, SEM_UNDO};
                semop(semaphore, &lock, 1);
                std::atomic_ref(records[0].total.requests).store(i, std::memory_order_relaxed);
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                std::atomic_ref(records[0].category[9][14].requests)
                    .store(i, std::memory_order_relaxed);
                semop(semaphore, &unlock, 1);
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
    });
    Segment segment(server.shmid(), 1, Segment::Access::kRead);
    int steady = 0;
    for (int i = 0; i < 300; ++i) {
        ResultStruct copy;
        if (!segment.copyRecord(0, copy)) continue;
        ++steady;
        EXPECT_EQ(copy.total.requests, copy.category[9][14].requests);
    }
    stop = true;
    publisher.join();
    EXPECT_GT(steady, 200);
}

TEST(Counts, ReaderDoesNotUseTheSemaphore) {
    FakeServer server;
    int semaphore = server.semaphores()[0];
    server.edit([](ConfigInfo&, ResultStruct* records) { records[0].total.requests = 42; });
    sembuf lock = {0, -1, 0};
    semop(semaphore, &lock, 1);
    Segment segment(server.shmid(), 1, Segment::Access::kRead);
    ResultStruct copy;
    EXPECT_FALSE(segment.copyRecord(0, copy));
    EXPECT_EQ(copy.total.requests, 42U);
    EXPECT_EQ(semctl(semaphore, 0, GETVAL), 0);
}

}  // namespace
}  // namespace tolvane::agent::test
