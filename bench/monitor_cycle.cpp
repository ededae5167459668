// Time of one cycle of the monitor over slots of which some have changed since
// the last cycle. Prints nanoseconds per cycle and per slot, the best of many.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fullest_configuration.h"
#include "shim_utils/accounting.h"
#include "shim_utils/configuration.h"
#include "shim_utils/process_memory.h"
#include "shim_utils/publication.h"
#include "tolvane/entry_points.h"
#include "tolvane/shim_tables.h"

using namespace tolvane;

namespace {

const std::string kRequest = std::string("GET /shop/1 HTTP/1.1\r\nHost: ") + kLastHost + "\r\n\r\n";
constexpr char kResponse[] = "HTTP/1.1 200 OK\r\n\r\n";

void openConnections(int count) {
    maxSockets = tableSize = count + 100;
    auto bytes = static_cast<std::size_t>(maxSockets) * sizeof(DescriptorState);
    descriptors = static_cast<DescriptorState*>(allocateZeroed(bytes));
    if (descriptors == nullptr || createResultStruct(webServerType) != 1) std::abort();
    for (int fd = 1; fd <= count; ++fd) countAccepted(fd, kPlain);
}

void serveRequest(int fd) {
    Connection connection = {descriptors[fd], slotAt(GETINDEX(webServerType, fd))};
    countReceived(connection, static_cast<ssize_t>(kRequest.size()),
                  {kRequest.data(), kRequest.size()});
    countSent(connection, sizeof kResponse - 1, {kResponse, sizeof kResponse - 1});
}

double cycleTime(int slots, int changed) {
    double best = 1e12;
    for (int round = 0; round < 200; ++round) {
        for (int i = 0; i < changed; ++i) serveRequest(1 + (i * 7919) % slots);
        auto start = std::chrono::steady_clock::now();
        publishSlots();
        std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
        best = std::min(best, took.count());
    }
    return best;
}

}  // namespace

// monitor_cycle SLOTS
int main(int argc, char** argv) {
    int slots = argc == 2 ? std::atoi(argv[1]) : 0;
    if (slots < 1) {
        std::fprintf(stderr, "usage: monitor_cycle SLOTS\n");
        return 1;
    }
    webServerType = kNetscape;  // one shared record, without a semaphore
    std::vector<char> segment(segmentSize(1));
    shmConfig = reinterpret_cast<ConfigInfo*>(segment.data());
    shmPtr = reinterpret_cast<ResultStruct*>(segment.data() + kConfigSize);
    smallConfiguration(*shmConfig);
    shmConfig->version = 1;
    takeConfiguration();
    openConnections(slots);
    publishSlots();
    for (int percent : {0, 1, 100}) {
        double time = cycleTime(slots, slots * percent / 100);
        std::printf("%d slots, %d %% changed: %.0f ns a cycle, %.2f ns a slot\n", slots, percent,
                    time, time / slots);
    }
}
