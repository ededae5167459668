#include "shim_utils/slots/records.h"

#include <ctime>

#include "shim_utils/configuration/configuration.h"
#include "tolvane/entry_points.h"

namespace tolvane {
namespace {

void clearBlock(CounterBlock& block, bool clearGauge) {
    std::int32_t gauge = clearGauge ? 0 : block.openConnections;
    block = CounterBlock{};
    block.openConnections = gauge;
}

void clearCounters(CategoryCounters& counters, bool clearGauge) {
    std::int32_t gauge = clearGauge ? 0 : counters.inProgress;
    counters = CategoryCounters{};
    counters.inProgress = gauge;
}

}  // namespace
}  // namespace tolvane

using namespace tolvane;

int createResultStruct(int serverType) {
    bool known =
        serverType == kApacheProcesses || serverType == kNetscape || serverType == kApacheThreads;
    if (known && createSlots(serverType)) return 1;
    tolvaneShimEnabled.store(0, std::memory_order_relaxed);
    return 0;
}

void reinitializeResult(ResultStruct* record, int clearGauges, int level) {
    bool gauges = clearGauges == 1;
    if (level == kTotals || level == kAll) {
        clearBlock(record->total, gauges);
        record->totalDirty = 0;
    }
    if (level == kSites || level == kAll) {
        for (CounterBlock& site : record->site) clearBlock(site, gauges);
        record->sitesDirty = 0;
    }
    if (level == kCategories || level == kAll) {
        for (auto& site : record->category) {
            for (CategoryCounters& category : site) clearCounters(category, gauges);
        }
        record->categoriesDirty = 0;
    }
}

void reinitializeRequestInfo(RequestInfo* slot) {
    slot->numMatched = 0;
    slot->siteIndex = 0;
    slot->pendingBytes = 0;
    for (std::int32_t& category : slot->matched) category = 0;
}

int hardCodeWebSites() {
    static constexpr const char* kExamples[] = {"www.example.com", "shop.example.com",
                                                "news.example.com"};
    int version = static_cast<int>(std::time(nullptr));
    ConfigInfo& config = editConfiguration();
    for (int s = 0; s < 3; ++s) {
        std::strcpy(config.siteName[s], kExamples[s]);
        config.numCategories[s] = 0;
    }
    config.numSites = 3;
    config.interval = kDefaultInterval;
    config.version = version;
    useEditedConfiguration();
    return version;
}
