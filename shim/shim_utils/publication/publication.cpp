#include "shim_utils/publication/publication.h"

#include <cerrno>

#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/publication/semaphores.h"
#include "shim_utils/slots/connection_slots.h"
#include "shim_utils/slots/records.h"
#include "tolvane/counters.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

// A slot's counts only ever grow, and the publisher remembers in `published`
// what it has added to the shared record. It adds the difference, word by word,
// from one reading of the word: what the serving thread counts after that
// reading is in the next difference, so nothing is lost and nothing comes twice.

namespace tolvane {
namespace {

int currentRequestCount = 0;   // measured send calls since the last publication
bool publishedAtExit = false;  // the gauges have been handed on for good

// What becomes of a gauge, whose value is handed on as it stands.
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

// One slot as the publisher sees it.
struct SlotView {
    SlotState& state;
    ResultStruct& local;
    ResultStruct& published;
    std::uint32_t& seenMarks;
};

SlotView viewOf(SlotBlock& block, int i) {
    return {block.states[i], block.results[i], block.published[i], block.seenMarks[i]};
}

// Counts of sites and categories that the configuration no longer has are
// added here instead: they go to nobody, but count as handed on.
ResultStruct nowhere;

void mergeCategories(const SlotView& slot, int s, int configured, ResultStruct& record,
                     const GaugeRules& rules) {
    for (int c = 0; c < kMaxCategories; ++c) {
        CategoryCounters& shared = (c < configured ? record : nowhere).category[s][c];
        CategoryCounters& local = slot.local.category[s][c];
        CategoryCounters& published = slot.published.category[s][c];
        addCounters(shared, local, published);
        addGauge(shared.inProgress, local.inProgress, rules.inProgress);
        addSum(shared, local, published, slot.state);
    }
}

// Adds a slot's counts into `record`. Sites that the slot never served are all
// zero and left out.
void mergeSlot(const SlotView& slot, ResultStruct& record, const GaugeRules& rules) {
    const ConfigInfo& config = configInfo().info;
    addCounters(record.total, slot.local.total, slot.published.total);
    addGauge(record.total.openConnections, slot.local.total.openConnections, rules.totalOpen);

    std::uint32_t touched = slot.state.touchedSites.load(std::memory_order_relaxed);
    for (int s = 0; s < kMaxSites; ++s) {
        if ((touched >> s & 1U) == 0) continue;
        bool configured = s < config.numSites;
        CounterBlock& shared = (configured ? record : nowhere).site[s];
        const CounterBlock& local = slot.local.site[s];
        addCounters(shared, local, slot.published.site[s]);
        addGauge(shared.openConnections, local.openConnections, rules.siteOpen);
        mergeCategories(slot, s, configured ? config.numCategories[s] : 0, record, rules);
    }
}

// Clears each group that the agent has taken since the last publication.
void clearTakenGroups(ResultStruct& record) {
    if (valueOf(record.totalDirty) == 0) reinitializeResult(&record, 1, kTotals);
    if (valueOf(record.sitesDirty) == 0) reinitializeResult(&record, 1, kSites);
    if (valueOf(record.categoriesDirty) == 0) reinitializeResult(&record, 1, kCategories);
}

void markShared(ResultStruct& record) {
    for (std::int32_t* flag : {&record.totalDirty, &record.sitesDirty, &record.categoriesDirty}) {
        std::atomic_ref<std::int32_t>(*flag).store(1, std::memory_order_release);
    }
}

// Merges a slot that has been marked since it was last merged. A mark that
// comes during the merge is seen the next time.
void mergeIfDirty(const SlotView& slot, ResultStruct& record, const GaugeRules& rules) {
    std::uint32_t marks = slot.state.dirtyMarks.load(std::memory_order_acquire);
    if (marks == slot.seenMarks) return;
    slot.seenMarks = marks;
    // Marked first: what a process adds before it is killed is not cleared.
    markShared(record);
    mergeSlot(slot, record, rules);
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

}  // namespace

void writeResult() {
    ErrnoGuard guard;
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    if (!lockSemaphore(semaphore)) return;
    SlotView slot = viewOf(blockOf(0), 0);
    if (slot.state.dirtyMarks.load(std::memory_order_relaxed) != slot.seenMarks) {
        clearTakenGroups(record);
        mergeIfDirty(slot, record, kWorkerRules);
    }
    if (!unlockSemaphore(semaphore)) return;
    checkLatestConfigInfo();
}

void publishEveryInterval() {
    if (++currentRequestCount < requestInterval) return;
    currentRequestCount = 0;
    writeResult();
}

void publishSlots() {
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    bool shared = webServerType == kApacheThreads;
    if (shared && !lockSemaphore(semaphore)) return;
    clearTakenGroups(record);
    int slots = currMaxSockets.load(std::memory_order_acquire);
    for (int first = 0; first < slots; first += kSlotStep) {
        SlotBlock& block = blockOf(first);
        int size = slots - first < kSlotStep ? slots - first : kSlotStep;
        for (int i = 0; i < size; ++i) mergeIfDirty(viewOf(block, i), record, kMonitorRules);
    }
    if (shared) unlockSemaphore(semaphore);
}

void publishAtExit() {
    printErrorMsg("NOT PARENT!");
    ResultStruct& record = shmPtr[bucketNumber];
    int semaphore = semaphoreOf(bucketNumber);
    if (!lockAtExit(semaphore)) return;
    markShared(record);
    mergeSlot(viewOf(blockOf(0), 0), record, publishedAtExit ? kExitAgainRules : kExitRules);
    publishedAtExit = true;
    unlockSemaphore(semaphore);
}

void resetIntervalAfterFork() {
    currentRequestCount = 0;
}

}  // namespace tolvane
