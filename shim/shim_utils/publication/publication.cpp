#include "shim_utils/publication/publication.h"

#include <atomic>
#include <cerrno>
#include <ctime>

#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/publication/semaphores.h"
#include "shim_utils/slots/connection_slots.h"
#include "shim_utils/slots/exchanges.h"
#include "shim_utils/slots/records.h"
#include "tolvane/counters.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

// A slot's counts only grow. `published` holds the part that the publisher has
// added to the shared record. The publisher loads each word once and adds the
// difference. A count made after that load is part of the next difference, so no
// count is lost or added twice.

namespace tolvane {
namespace {

int currentRequestCount = 0;   // measured send calls since the last publication
bool publishedAtExit = false;  // the gauges are not published again

void markShared(ResultStruct& record) {
    for (std::int32_t* flag : {&record.totalDirty, &record.sitesDirty, &record.categoriesDirty}) {
        std::atomic_ref<std::int32_t>(*flag).store(1, std::memory_order_release);
    }
}

// How a gauge is published. Its value is added, not a difference.
enum class Gauge { kSkip, kAdd, kAddUnlessNegative };

// The three publications differ in their gauges only.
struct GaugeRules {
    Gauge totalOpen;
    Gauge siteOpen;
    Gauge inProgress;
};
constexpr GaugeRules kWorkerRules = {Gauge::kSkip, Gauge::kSkip, Gauge::kAdd};
constexpr GaugeRules kMonitorRules = {Gauge::kAddUnlessNegative, Gauge::kAddUnlessNegative,
                                      Gauge::kAddUnlessNegative};
constexpr GaugeRules kExitRules = {Gauge::kSkip, Gauge::kAddUnlessNegative, Gauge::kSkip};
constexpr GaugeRules kExitAgainRules = {Gauge::kSkip, Gauge::kSkip, Gauge::kSkip};

// Who publishes in a threaded server: the monitor, and at exit the exiting thread.
enum class Publisher { kNobody, kMonitor, kExit };
std::atomic<Publisher> publisher{Publisher::kNobody};

void addGauge(std::int32_t& shared, const std::int32_t& local, Gauge rule) {
    std::int32_t value = valueOf(local);
    if (value == 0 || rule == Gauge::kSkip) return;
    if (rule == Gauge::kAddUnlessNegative && value < 0) return;
    addTo(shared, value);
}

// Adds to `shared` what `local` has counted beyond `published`.
template <typename Block>
void addCounters(Block& shared, const Block& local, Block& published) {
    for (const Counter<Block>& counter : countersOf<Block>()) {
        const auto member = counter.member;
        std::uint32_t now = valueOf(local.*member);
        if (now == published.*member) continue;
        addTo(shared.*member, now - published.*member);
        published.*member = now;
    }
}

void addSum(CategoryCounters& shared, CategoryCounters& local, CategoryCounters& published,
            const SlotState& state) {
    double now;
    if (webServerType == kApacheProcesses) {
        now = ownSeconds(local);
    } else if (!readSeconds(state, local, now)) {
        return;
    }
    if (now == published.responseTimeSum) return;
    shared.responseTimeSum += now - published.responseTimeSum;
    published.responseTimeSum = now;
}

// The fields of a slot that the publisher uses.
struct SlotView {
    SlotState& state;
    ResultStruct& local;
    ResultStruct& published;
    std::uint32_t& seenMarks;
};

SlotView viewOf(SlotBlock& block, int i) {
    return {block.states[i], block.results[i], block.published[i], block.seenMarks[i]};
}

// Counts of sites and categories that the configuration no longer has are added
// here. They count as published, but no agent reads them.
ResultStruct discarded;

void mergeCategories(const SlotView& slot, int s, int configured, ResultStruct& record,
                     const GaugeRules& rules) {
    for (int c = 0; c < kMaxCategories; ++c) {
        CategoryCounters& shared = (c < configured ? record : discarded).category[s][c];
        CategoryCounters& local = slot.local.category[s][c];
        CategoryCounters& published = slot.published.category[s][c];
        addCounters(shared, local, published);
        addGauge(shared.inProgress, local.inProgress, rules.inProgress);
        addSum(shared, local, published, slot.state);
    }
}

// Adds a slot's counts to `record`. Skips the sites that the slot never served,
// because their counts are all zero.
void mergeSlot(const SlotView& slot, ResultStruct& record, const GaugeRules& rules) {
    const ConfigInfo& config = configInfo().info;
    addCounters(record.total, slot.local.total, slot.published.total);
    addGauge(record.total.openConnections, slot.local.total.openConnections, rules.totalOpen);

    std::uint32_t touched = slot.state.touchedSites.load(std::memory_order_relaxed);
    for (int s = 0; s < kMaxSites; ++s) {
        if ((touched >> s & 1U) == 0) continue;
        bool configured = s < config.numSites;
        CounterBlock& shared = (configured ? record : discarded).site[s];
        const CounterBlock& local = slot.local.site[s];
        addCounters(shared, local, slot.published.site[s]);
        addGauge(shared.openConnections, local.openConnections, rules.siteOpen);
        mergeCategories(slot, s, configured ? config.numCategories[s] : 0, record, rules);
    }
}

// Resets each group that the agent has collected since the last publication.
void resetCollectedGroups(ResultStruct& record) {
    if (valueOf(record.totalDirty) == 0) reinitializeResult(&record, 1, kTotals);
    if (valueOf(record.sitesDirty) == 0) reinitializeResult(&record, 1, kSites);
    if (valueOf(record.categoriesDirty) == 0) reinitializeResult(&record, 1, kCategories);
}

// Merges a slot that was marked dirty since its last merge. A mark set during the
// merge takes effect at the next one.
void mergeIfDirty(const SlotView& slot, ResultStruct& record, const GaugeRules& rules) {
    std::uint32_t marks = slot.state.dirtyMarks.load(std::memory_order_acquire);
    if (marks == slot.seenMarks) return;
    slot.seenMarks = marks;
    // Marked before the merge, so that a part added by a killed process is not reset.
    markShared(record);
    mergeSlot(slot, record, rules);
}

// Merges every dirty slot of a threaded server.
void mergeSlots(ResultStruct& record, const GaugeRules& rules) {
    resetCollectedGroups(record);
    int slots = currMaxSockets.load(std::memory_order_acquire);
    for (int first = 0; first < slots; first += kSlotStep) {
        SlotBlock& block = blockOf(first);
        int size = slots - first < kSlotStep ? slots - first : kSlotStep;
        for (int i = 0; i < size; ++i) mergeIfDirty(viewOf(block, i), record, rules);
    }
}

// Keeps the monitor from publishing again. False when its publication does not end.
bool takeOverPublication() {
    constexpr int kTries = 2000;
    constexpr timespec kPause = {0, 1'000'000};
    for (int i = 0; i < kTries; ++i) {
        Publisher expected = Publisher::kNobody;
        if (publisher.compare_exchange_strong(expected, Publisher::kExit)) return true;
        if (expected == Publisher::kExit) return false;
        nanosleep(&kPause, nullptr);
    }
    printErrorMsg(
        "The monitor thread does not end: the counts since the last publication are lost");
    return false;
}

void addDropped(ResultStruct& record, const Credit& credit) {
    const ConfigInfo& config = configInfo().info;
    addTo(record.total.droppedRequests, 1U);
    const int s = credit.site;
    if (s < 0 || s >= config.numSites) return;
    addTo(record.site[s].droppedRequests, 1U);
    for (int c = 0; c < config.numCategories[s]; ++c) {
        if ((credit.categories >> c & 1U) != 0) addTo(record.category[s][c].droppedRequests, 1U);
    }
}

// The end of the process closes its connections without a close call. The other threads
// of a threaded server may still run, so this changes nothing of their connections.
void addUnanswered(ResultStruct& record) {
    if (!countsMessages) return;
    int slots = currMaxSockets.load(std::memory_order_acquire);
    for (int i = 0; i < slots; ++i) {
        ConnectionMessages& messages = *slotAt(i).state.messages;
        const DescriptorState* descriptor = descriptorState(messages.descriptor);
        if (descriptor == nullptr) continue;
        if (descriptor->owner.load(std::memory_order_relaxed) != processGeneration) continue;
        const auto add = [&record](Exchange& exchange) {
            if (exchange.answered) return;
            addDropped(record, exchange.credit);
            // A later close of the connection does not count it again.
            if (webServerType == kApacheProcesses) exchange.answered = true;
        };
        messages.exchanges.forEach(add);
        if (messages.protocol != Protocol::kHttp2) continue;
        messages.http2.streams.forEach([&](std::uint32_t, Exchange& exchange) { add(exchange); });
    }
}

bool lockAtExit(int semaphore) {
    if (heldByThisProcess(semaphore) || lockSemaphoreAtExit(semaphore)) return true;
    if (errno == EAGAIN) {
        printErrorMsg(
            "The shared record's semaphore is held: the counts since the last publication are "
            "lost");
    }
    return false;
}

// Publishes the record of a type 0 process.
void publishRecord() {
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    if (!lockSemaphore(semaphore)) return;
    SlotView slot = viewOf(blockOf(0), 0);
    if (slot.state.dirtyMarks.load(std::memory_order_relaxed) != slot.seenMarks) {
        resetCollectedGroups(record);
        mergeIfDirty(slot, record, kWorkerRules);
    }
    if (!unlockSemaphore(semaphore)) return;
    checkLatestConfigInfo();
}

}  // namespace

void writeResult() {
    // A signal handler may interrupt a publication and close a connection. It must not
    // wait for the semaphore that its own process holds.
    static std::atomic<bool> publishing{false};
    if (publishing.exchange(true)) return;
    ErrnoGuard guard;
    publishRecord();
    publishing.store(false);
}

void publishEveryInterval() {
    if (++currentRequestCount < requestInterval) return;
    currentRequestCount = 0;
    writeResult();
}

void publishAtClose() {
    if (countsMessages && webServerType == kApacheProcesses) writeResult();
}

void publishSlots() {
    Publisher expected = Publisher::kNobody;
    if (!publisher.compare_exchange_strong(expected, Publisher::kMonitor)) return;
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    bool shared = webServerType == kApacheThreads;
    if (!shared || lockSemaphore(semaphore)) {
        mergeSlots(record, kMonitorRules);
        if (shared) unlockSemaphore(semaphore);
    }
    publisher.store(Publisher::kNobody);
}

void publishSlotsAtExit() {
    if (!countsMessages || !takeOverPublication()) return;
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    if (!lockAtExit(semaphore)) return;
    mergeSlots(record, kExitAgainRules);
    markShared(record);
    addUnanswered(record);
    unlockSemaphore(semaphore);
}

// An agent can read the growth of a counter as long as that is below 4 GiB.
bool publicationIsUrgent() {
    if (!countsMessages) return false;
    constexpr std::uint64_t kManyBytes = 1U << 30;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    int slots = currMaxSockets.load(std::memory_order_acquire);
    for (int i = 0; i < slots; ++i) {
        const SlotView slot = viewOf(blockOf(i), i % kSlotStep);
        if (slot.state.dirtyMarks.load(std::memory_order_relaxed) == slot.seenMarks) continue;
        const CounterBlock& total = slot.local.total;
        const CounterBlock& published = slot.published.total;
        sent += valueOf(total.bytesSent) - published.bytesSent;
        received += valueOf(total.bytesReceived) - published.bytesReceived;
    }
    return sent >= kManyBytes || received >= kManyBytes;
}

void publishIfUrgent() {
    if (webServerType == kApacheProcesses && publicationIsUrgent()) writeResult();
}

void publishAtExit() {
    printErrorMsg("NOT PARENT!");
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    if (!lockAtExit(semaphore)) return;
    markShared(record);
    mergeSlot(viewOf(blockOf(0), 0), record, publishedAtExit ? kExitAgainRules : kExitRules);
    if (!publishedAtExit) addUnanswered(record);
    publishedAtExit = true;
    unlockSemaphore(semaphore);
}

void resetIntervalAfterFork() {
    currentRequestCount = 0;
}

}  // namespace tolvane
