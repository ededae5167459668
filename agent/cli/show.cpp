#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/commands.h"
#include "cli/exit_code.h"
#include "cli/report_table.h"
#include "cli/sample_json.h"
#include "cli/sample_notes.h"
#include "cli/terminal.h"
#include "cli/threaded_server.h"
#include "counts/counts.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

using Seconds = std::chrono::duration<double>;

struct Measured {
    Server server;
    Sample sample;
    CountSet counts;
    CountSet added;
    double seconds = 0;
    std::string meaningOfRates;
};

void pause(Seconds length) {
    auto end = std::chrono::steady_clock::now() + length;
    Progress progress;
    while (std::chrono::steady_clock::now() < end) {
        Seconds left = end - std::chrono::steady_clock::now();
        progress.show(
            fmt::format("sampling, {:.0f} of {:.0f} s left", left.count(), length.count()));
        std::this_thread::sleep_for(std::min<Seconds>(left, Seconds(0.25)));
    }
}

void rateSinceFirstSample(Measured& measured) {
    Sample first = std::move(measured.sample);
    measured.sample = takeSample(measured.server);
    measured.added = increase(first.records, measured.sample.records);
    measured.seconds = Seconds(measured.sample.when - first.when).count();
    measured.meaningOfRates = fmt::format("of the last {:.1f} s", measured.seconds);
}

void rateSinceStart(Measured& measured) {
    std::time_t since = measured.sample.measuredSince;
    measured.added = countsOf(measured.sample.records);
    measured.seconds = std::max(std::difftime(std::time(nullptr), since), 1.0);
    measured.meaningOfRates = fmt::format("mean of {:.0f} s, since {:%Y-%m-%d %H:%M:%S}",
                                          measured.seconds, fmt::localtime(since));
}

// Runs the step for each server. A server that has ended meanwhile is reported and
// left out.
template <typename Step>
void forEachServer(std::vector<Measured>& all, int& exitCode, Step&& step) {
    std::erase_if(all, [&](Measured& measured) {
        try {
            step(measured);
            return false;
        } catch (const Error& error) {
            fmt::print(stderr, "tolvane: server {}: {}\n", nameOf(measured.server), error.what());
            exitCode = exitCodeOf(error);
            return true;
        }
    });
}

std::vector<Measured> measure(const std::vector<Server>& servers, double sampleSeconds,
                              int& exitCode) {
    std::vector<Measured> all(servers.size());
    for (std::size_t i = 0; i < servers.size(); ++i) all[i].server = servers[i];
    forEachServer(all, exitCode,
                  [](Measured& measured) { measured.sample = takeSample(measured.server); });
    if (sampleSeconds > 0 && !all.empty()) pause(Seconds(sampleSeconds));
    forEachServer(all, exitCode, sampleSeconds > 0 ? rateSinceFirstSample : rateSinceStart);
    for (Measured& measured : all) measured.counts = countsOf(measured.sample.records);
    return all;
}

std::vector<std::string> notesOn(const Measured& measured) {
    std::vector<std::string> notes = sampleNotes(measured.server, measured.sample);
    if (auto fault = threadsFault(measured.server)) {
        notes.push_back(
            fmt::format("{}, so its counts are incomplete; run 'tolvane doctor'", fault->text));
    }
    return notes;
}

void print(const Measured& measured, const Report& report) {
    bool colour = colourOn(STDOUT_FILENO);
    ReportLayout layout;
    layout.colour = colour;
    layout.width = isTerminal(STDOUT_FILENO) ? terminalSize(STDOUT_FILENO).columns : 0;
    std::string text = serverHeading(measured.server, measured.sample) + "\n";
    text += fmt::format("Rates: {}.\n", measured.meaningOfRates);
    for (const std::string& note : notesOn(measured)) {
        text += coloured("Note: " + note, Colour::kYellow, colour) + "\n";
    }
    for (const std::string& line : renderReport(report, layout)) text += line + "\n";
    writeOut(text);
}

std::vector<Server> wantedServers(const std::optional<std::string>& wanted) {
    std::vector<Server> servers = findServers();
    if (wanted) return {selectServer(servers, wanted)};
    std::erase_if(servers, [](const Server& server) { return server.state != RunState::kLive; });
    if (servers.empty()) selectServer(servers, wanted);  // throws
    return servers;
}

}  // namespace

int showCommand(const ShowOptions& options) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    bool first = true;
    int exitCode = kExitOk;
    for (const Measured& measured :
         measure(wantedServers(options.server), options.sampleSeconds, exitCode)) {
        Report report = buildReport(*measured.sample.config.info, measured.counts, measured.added,
                                    measured.seconds);
        if (options.json) {
            all.push_back(sampleToJson(measured.server, measured.sample, report, measured.seconds,
                                       notesOn(measured)));
        } else {
            if (!first) writeOut("\n");
            print(measured, report);
        }
        first = false;
    }
    if (options.json) {
        writeOut(all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    }
    return exitCode;
}

}  // namespace tolvane::agent
