#include "measured_process.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include "shim_utils/configuration.h"
#include "shim_utils/process_memory.h"
#include "shim_utils/publication.h"
#include "shim_utils/semaphores.h"
#include "support/sandbox.h"
#include "tolvane/entry_points.h"

namespace tolvane::test {
namespace {

std::size_t tableBytes() {
    return static_cast<std::size_t>(maxSockets) * sizeof(DescriptorState);
}

// Lets the next process find its lowest slot free; nothing else remembers it.
void freeLowestSlot() {
    SlotBlock& block = blockOf(0);
    if (webServerType == kApacheProcesses || block.used == 0) return;
    descriptors[0].slotPlusOne.store(1);
    RELEASEINDEX(0);
}

using Field = std::pair<const char*, double>;

void addFields(std::ostream& text, const std::string& group, std::initializer_list<Field> fields) {
    bool first = true;
    for (const auto& [name, value] : fields) {
        if (value == 0) continue;
        text << (first ? group : "") << " " << name << value;
        first = false;
    }
}

void addBlock(std::ostream& text, const std::string& group, const CounterBlock& block) {
    addFields(text, group,
              {{"conn", block.connections},
               {"req", block.requests},
               {"in", block.bytesReceived},
               {"out", block.bytesSent},
               {"open", block.openConnections},
               {"redir", block.redirects},
               {"err", block.errors},
               {"cerr", block.clientErrors},
               {"serr", block.serverErrors},
               {"drop", block.droppedRequests}});
}

void copyName(char* to, std::size_t size, std::string_view text) {
    std::memset(to, 0, size);
    std::memcpy(to, text.data(), std::min(size, text.size()));
}

}  // namespace

void MeasuredProcess::Freed::operator()(void* memory) const {
    std::free(memory);
}

MeasuredProcess::MeasuredProcess(ServerType type, int descriptorLimit, int records)
    : records_(records) {
    webServerType = type;
    maxSockets = tableSize = descriptorLimit;
    descriptors = static_cast<DescriptorState*>(allocateZeroed(tableBytes()));
    EXPECT_EQ(createResultStruct(type), 1);
    segment_.reset(std::calloc(1, segmentSize(static_cast<std::size_t>(records))));
    shmConfig = static_cast<ConfigInfo*>(segment_.get());
    shmPtr = reinterpret_cast<ResultStruct*>(static_cast<char*>(segment_.get()) + kConfigSize);
    if (type != kNetscape) {
        EXPECT_TRUE(createSemaphores(records));
    }
    numStructures = records;
    bucketNumber = 0;
    requestInterval = 5;
    resetIntervalAfterFork();
    putIntoForce({});
    tolvaneShimEnabled.store(1);
}

MeasuredProcess::~MeasuredProcess() {
    tolvaneShimEnabled.store(0);
    for (int i = 0; i < records_; ++i) removeSemaphore(semaphoreOf(i));
    freeLowestSlot();
    for (int first = 0; first < currMaxSockets.load(); first += kSlotStep) {
        munmap(slotBlocks[first / kSlotStep].exchange(nullptr), sizeof(SlotBlock));
    }
    currMaxSockets.store(0);
    munmap(descriptors, tableBytes());
    maxSockets = tableSize = 0;
}

UrlSection pattern(std::string_view text) {
    UrlSection section = {};
    section.leadingWildcard = text.starts_with('*');
    section.trailingWildcard = text.ends_with('*');
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('*', at), text.size());
        if (end > at) {
            const int i = section.numPieces++;
            copyName(section.piece[i], kPieceSize, text.substr(at, end - at));
            section.pieceLength[i] = static_cast<std::int32_t>(end - at);
        }
        at = end + 1;
    }
    return section;
}

void configure(ConfigInfo& config, const std::vector<Site>& sites) {
    config.numSites = static_cast<std::int32_t>(sites.size());
    for (std::size_t s = 0; s < sites.size(); ++s) {
        copyName(config.siteName[s], kNameSize, sites[s].name);
        config.numHosts[s] = static_cast<std::int32_t>(sites[s].hosts.size());
        for (std::size_t h = 0; h < sites[s].hosts.size(); ++h) {
            copyName(config.hostName[s][h], kNameSize, sites[s].hosts[h]);
        }
        config.numCategories[s] = static_cast<std::int32_t>(sites[s].categories.size());
        for (std::size_t c = 0; c < sites[s].categories.size(); ++c) {
            config.categories[s][c].numSections = 1;
            config.categories[s][c].sections[0] = pattern(sites[s].categories[c]);
        }
    }
}

void putIntoForce(const std::vector<Site>& sites) {
    ConfigInfo& config = editConfiguration();
    std::memset(&config, 0, sizeof config);
    configure(config, sites);
    useEditedConfiguration();
}

std::string describe(const ResultStruct& record) {
    std::ostringstream text;
    text.precision(17);
    addBlock(text, "total:", record.total);
    for (int s = 0; s < kMaxSites; ++s) {
        addBlock(text, " | " + std::to_string(s) + ":", record.site[s]);
        for (int c = 0; c < kMaxCategories; ++c) {
            const CategoryCounters& category = record.category[s][c];
            addFields(text, " | " + std::to_string(s) + "." + std::to_string(c) + ":",
                      {{"req", category.requests},
                       {"out", category.bytesSent},
                       {"busy", category.inProgress},
                       {"err", category.errors},
                       {"drop", category.droppedRequests},
                       {"time", double{category.responseTimeSum}}});
        }
    }
    return text.str();
}

LogTail::LogTail() : seen_(logMessages().size()) {}

std::vector<std::string> LogTail::next() {
    std::vector<std::string> all = logMessages();
    std::vector<std::string> added(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return added;
}

void inChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see the child's messages above";
}

}  // namespace tolvane::test
