// Serves the real pages with an invented state, for tests of the page. Prints
// its port, obeys a word per line and ends with its standard input:
//   take N     takes N requests more, of every server's first site and category
//   silence    the last round was long ago
//   unwritten  the totals could not be written down
//   invalid    the configuration file is not valid
#include <iostream>
#include <mutex>
#include <sstream>

#include "agent/invented_state.h"
#include "export/pages.h"
#include "http/http_server.h"

namespace {

using namespace tolvane::agent;

void collect(CollectorState& state, std::uint64_t requests) {
    ++state.health.rounds;
    state.health.lastRound = std::time(nullptr);
    for (auto& [name, server] : state.servers) {
        ++server.collections;
        ++server.lastCollection;  // a second for each, however long a test waited
        server.total[&tolvane::CounterBlock::requests] += requests;
        if (server.sites.empty()) continue;
        SiteTally& site = server.sites.front();
        site.counts[&tolvane::CounterBlock::requests] += requests;
        if (!site.categories.empty())
            site.categories.front().counts[&tolvane::CategoryCounters::requests] += requests;
    }
}

void handle(const std::string& line, CollectorState& state) {
    std::istringstream words(line);
    std::string word;
    std::uint64_t number = 0;
    words >> word >> number;
    if (word == "take") collect(state, number);
    if (word == "silence") state.health.lastRound = std::time(nullptr) - 300;
    if (word == "unwritten") state.health.storeWorks = false;
    if (word == "invalid") {
        state.health.configFile = "/etc/tolvane/sites.toml";
        state.health.configValid = false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CollectorState state =
            tolvane::test::inventedState(argc > 1 ? argv[1] : "shop", std::time(nullptr));
        std::mutex mutex;
        Pages pages(
            [&](const auto& reader) {
                std::lock_guard lock(mutex);
                reader(state);
            },
            "0.0.test");
        HttpServer server(parseListenAddress("127.0.0.1:0"), [&](const HttpRequest& request) {
            return pages.answer(request, std::time(nullptr));
        });
        std::cout << server.port() << std::endl;
        for (std::string line; std::getline(std::cin, line);) {
            std::lock_guard lock(mutex);
            handle(line, state);
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
