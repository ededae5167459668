// Descriptors and their connection slots.
#include <gtest/gtest.h>

#include <cstring>

#include "measured_process.h"
#include "shim_utils/accounting/accounting.h"
#include "shim_utils/slots/connection_slots.h"
#include "tolvane/entry_points.h"

namespace tolvane::test {
namespace {

// Opens connections 0 to `count` - 1, each of which gets the slot of its number.
void openConnections(int first, int count) {
    for (int fd = first; fd < first + count; ++fd) {
        countAccepted(fd, kPlain);
        ASSERT_EQ(GETINDEX(webServerType, fd), fd);
    }
}

TEST(Slots, NumberOneWithOneConnectionPerProcess) {
    const MeasuredProcess process(kApacheProcesses);
    for (const int fd : {0, 5, 1023}) EXPECT_EQ(GETINDEX(kApacheProcesses, fd), 0);
    EXPECT_EQ(currMaxSockets.load(), 1);
}

TEST(Slots, DoNotExistForAnotherTypeOrBeforeTheStart) {
    for (const int asked : {0, 1, 2, 3, -1}) EXPECT_EQ(GETINDEX(asked, 5), -1);
    for (const ServerType own : {kApacheProcesses, kNetscape, kApacheThreads}) {
        const MeasuredProcess process(own);
        for (const int asked : {0, 1, 2, 3, -1}) {
            EXPECT_EQ(GETINDEX(asked, 5), asked == own ? 0 : -1) << own << ", " << asked;
        }
        countAccepted(5, kPlain);
        EXPECT_EQ(describe(slotAt(0).result), "total: conn1 open1");
    }
}

TEST(Slots, LowestFreeOneComesFirst) {
    const MeasuredProcess process(kNetscape);
    EXPECT_EQ(currMaxSockets.load(), 75);
    openConnections(0, 20);
    countClosed(7);
    countClosed(3);
    countAccepted(500, kPlain);
    countAccepted(501, kPlain);
    countAccepted(502, kPlain);
    EXPECT_EQ(GETINDEX(kNetscape, 500), 3);
    EXPECT_EQ(GETINDEX(kNetscape, 501), 7);
    EXPECT_EQ(GETINDEX(kNetscape, 502), 20);
    EXPECT_EQ(GETINDEX(kNetscape, 500), 3);
}

TEST(Slots, GrowBy75AndStayWhereTheyAre) {
    const MeasuredProcess process(kApacheThreads);
    LogTail log;
    openConnections(0, 75);
    const ResultStruct* first = &slotAt(0).result;
    const SlotState* last = &slotAt(74).state;
    EXPECT_TRUE(log.next().empty());

    openConnections(75, 76);
    EXPECT_EQ(log.next(), (std::vector<std::string>{"INCREASING SOCKETS - currMax 75, max 1024",
                                                    "INCREASING SOCKETS - currMax 150, max 1024"}));
    EXPECT_EQ(currMaxSockets.load(), 225);
    EXPECT_EQ(&slotAt(0).result, first);
    EXPECT_EQ(&slotAt(74).state, last);
    for (int slot = 0; slot < 151; ++slot) {
        ASSERT_EQ(describe(slotAt(slot).result), "total: conn1 open1") << slot;
    }
    EXPECT_EQ(describe(slotAt(151).result), "");

    // A slot freed in the first block comes before those of the last.
    countClosed(74);
    countAccepted(500, kPlain);
    EXPECT_EQ(GETINDEX(kApacheThreads, 500), 74);
}

TEST(Slots, EndAtTheDescriptorLimit) {
    const struct {
        int limit;
        int slots;
        std::vector<std::string> messages;
    } cases[] = {{100, 100, {"INCREASING SOCKETS - currMax 75, max 100", "OOOOPS ERROR!"}},
                 {75, 75, {"OOOOPS ERROR!"}},
                 {30, 75, {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.limit);
        const MeasuredProcess process(kNetscape, c.limit);
        LogTail log;
        openConnections(0, c.limit);
        // A descriptor beyond every slot, as a table with more entries has it.
        DescriptorState extra = {};
        const int slot = allocateSlot(0, extra);
        EXPECT_EQ(slot, c.limit < 75 ? c.limit : -1);
        EXPECT_EQ(log.next(), c.messages);
        EXPECT_EQ(currMaxSockets.load(), c.slots);
        if (slot >= 0) continue;

        // It is measured as soon as a slot is free again.
        countClosed(40);
        EXPECT_EQ(allocateSlot(0, extra), 40);
        EXPECT_TRUE(log.next().empty());
    }
}

TEST(Slots, UntrackedConnectionKeepsItsSlotForTheDescriptor) {
    const MeasuredProcess process(kNetscape);
    countAccepted(9, kUntracked);
    countClosed(9);
    countAccepted(10, kPlain);
    EXPECT_EQ(GETINDEX(kNetscape, 10), 1);
    countAccepted(9, kPlain);
    EXPECT_EQ(GETINDEX(kNetscape, 9), 0);
    EXPECT_EQ(describe(slotAt(0).result), "total: conn2 open2");
}

TEST(Records, AreClearedByLevel) {
    const struct {
        int clearGauges, level;
        const char* left;
        int dirty;  // totals 1, sites 2, categories 4
    } cases[] = {
        {0, 0, "total: conn1 open2 | 3: req3 open4 | 9.14: busy6", 3},
        {1, 0, "total: conn1 open2 | 3: req3 open4", 3},
        {0, 1, "total: open2 | 3: req3 open4 | 9.14: drop5 busy6 time7.5", 6},
        {1, 3, "total: conn1 open2 | 9.14: drop5 busy6 time7.5", 5},
        {0, 3, "total: conn1 open2 | 3: open4 | 9.14: drop5 busy6 time7.5", 5},
        {1, 2, "", 0},
        {2, 2, "total: open2 | 3: open4 | 9.14: busy6", 0},
        {1, 4, "total: conn1 open2 | 3: req3 open4 | 9.14: drop5 busy6 time7.5", 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.clearGauges << ", level " << c.level);
        ResultStruct record = {};
        record.total.connections = 1;
        record.total.openConnections = 2;
        record.site[3].requests = 3;
        record.site[3].openConnections = 4;
        record.category[9][14] = {0, 0, 0, 5, 6, 7.5};
        record.totalDirty = record.sitesDirty = record.categoriesDirty = 1;
        record.semaphoreId = 4711;
        reinitializeResult(&record, c.clearGauges, c.level);
        EXPECT_EQ(describe(record), c.left);
        EXPECT_EQ(record.totalDirty + 2 * record.sitesDirty + 4 * record.categoriesDirty, c.dirty);
        EXPECT_EQ(int{record.semaphoreId}, 4711);
    }
}

TEST(Records, RequestKeepsItsStartTime) {
    RequestInfo request = {-1, 11, 12, 2, {3, 4}, 5};
    reinitializeRequestInfo(&request);
    const RequestInfo cleared = {0, 11, 12, 0, {}, 0};
    EXPECT_EQ(std::memcmp(&request, &cleared, sizeof cleared), 0);
}

}  // namespace
}  // namespace tolvane::test
