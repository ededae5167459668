#include "collector_support.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include "support/sandbox.h"

namespace tolvane::agent::test {

void change(int semaphore, short units) {
    sembuf operation = {0, units, SEM_UNDO};
    semop(semaphore, &operation, 1);
}

void publish(const FakeServer& server, int record, std::uint32_t requests) {
    int semaphore = server.semaphores()[static_cast<std::size_t>(record)];
    server.edit([&](ConfigInfo&, ResultStruct* records) {
        change(semaphore, -1);
        ResultStruct& r = records[record];
        for (CounterBlock* block : {&r.total, &r.site[0]}) {
            block->requests += requests;
            block->bytesSent += requests * 1000;
        }
        r.category[0][0].requests += requests;
        r.category[0][0].responseTimeSum = r.category[0][0].responseTimeSum + 0.25 * requests;
        r.totalDirty = r.sitesDirty = r.categoriesDirty = 1;
        change(semaphore, 1);
    });
}

void endServer(const FakeServer& server) {
    for (int semaphore : server.semaphores()) semctl(semaphore, 0, IPC_RMID);
    server.edit([](ConfigInfo& config, ResultStruct*) { config.version = kVersionRemoved; });
    shmctl(server.shmid(), IPC_RMID, nullptr);
    unlink(server.handoff().c_str());
}

void writeSites(const std::string& first, const std::string& second) {
    std::string text = "interval = 7\n[[site]]\nname = \"" + first +
                       "\"\n[[site.category]]\nlabel = \"all\"\nurls = [\"*\"]\n";
    if (!second.empty()) text += "[[site]]\nname = \"" + second + "\"\n";
    tolvane::test::writeFile(kConfig, text);
}

CollectorOptions options(const char* config) {
    return {config, kState, 1};
}

Rows rowsOf(const Collector& collector, const std::string& server) {
    Rows rows;
    collector.read([&](const CollectorState& state) {
        auto found = state.servers.find(server);
        if (found == state.servers.end()) return;
        auto text = [](std::uint64_t requests, std::uint64_t bytes) {
            return std::to_string(requests) + "/" + std::to_string(bytes);
        };
        const ServerTally& tally = found->second;
        rows[""] =
            text(tally.total[&CounterBlock::requests], tally.total[&CounterBlock::bytesSent]);
        for (const SiteTally& site : tally.sites) {
            rows[site.name] =
                text(site.counts[&CounterBlock::requests], site.counts[&CounterBlock::bytesSent]);
            for (const CategoryTally& category : site.categories) {
                rows[site.name + " " + category.label] =
                    text(category.counts[&CategoryCounters::requests],
                         static_cast<std::uint64_t>(category.counts.responseTimeSum * 100));
            }
        }
    });
    return rows;
}

RunState stateOf(const Collector& collector) {
    RunState state = RunState::kUnreadable;
    collector.read([&](const CollectorState& all) {
        const auto& runs = all.servers.at("*:8080").runs;
        ASSERT_EQ(runs.size(), 1U);
        state = runs[0].state;
    });
    return state;
}

}  // namespace tolvane::agent::test
