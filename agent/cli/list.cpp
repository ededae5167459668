#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/exit_code.h"
#include "cli/terminal.h"
#include "export/report_json.h"
#include "os/error.h"
#include "os/text.h"
#include "servers/server.h"

namespace tolvane::agent {

namespace {

std::string versionText(const Server& server) {
    if (!server.ownsSegment) return "-";
    if (isBeingWritten(server.version)) return "being written";
    if (server.version == kVersionCreated) return "none";
    if (server.version == kVersionRemoved) return "removed";
    return fmt::format("{}", server.version);
}

constexpr std::size_t kColumns = 8;
using Line = std::array<std::string, kColumns>;

Line lineOf(const Server& server) {
    return {runStateName(server.state),
            server.process > 0 ? fmt::format("{}", server.process) : "-",
            server.handoff.serverType.empty() ? "?" : server.handoff.serverType,
            server.handoff.listen.empty()
                ? "?"
                : fmt::format("{}", fmt::join(server.handoff.listen, ",")),
            server.handoff.shmid >= 0 ? fmt::format("{}", server.handoff.shmid) : "?",
            server.handoff.structures > 0 ? fmt::format("{}", server.handoff.structures) : "?",
            versionText(server),
            server.reason};
}

Colour colourOf(RunState state) {
    if (state == RunState::kLive) return Colour::kGreen;
    return state == RunState::kEnding ? Colour::kYellow : Colour::kRed;
}

void printTable(const std::vector<Server>& servers) {
    std::vector<Line> lines = {
        {"STATE", "PROCESS", "TYPE", "LISTEN", "SEGMENT", "RECORDS", "CONFIG", "REASON"}};
    for (const Server& server : servers) lines.push_back(lineOf(server));
    std::array<std::size_t, kColumns> widths{};
    for (const Line& line : lines) {
        for (std::size_t i = 0; i < kColumns; ++i) {
            widths[i] = std::max(widths[i], displayWidth(line[i]));
        }
    }
    bool colour = colourOn(STDOUT_FILENO);
    for (std::size_t row = 0; row < lines.size(); ++row) {
        std::string text;
        for (std::size_t i = 0; i < kColumns; ++i) {
            std::string padding =
                i + 1 < kColumns ? std::string(widths[i] - displayWidth(lines[row][i]) + 2, ' ')
                                 : "";
            Colour shade = Colour::kPlain;
            if (row == 0) {
                shade = Colour::kBold;
            } else if (i == 0) {
                shade = colourOf(servers[row - 1].state);
            }
            text += coloured(lines[row][i], shade, colour) + padding;
        }
        writeOut(text + "\n");
    }
}

}  // namespace

int listCommand(const ListOptions& options) {
    std::vector<Server> servers = findServers();
    if (options.json) {
        nlohmann::ordered_json json = nlohmann::ordered_json::array();
        for (const Server& server : servers) json.push_back(serverToJson(server));
        writeOut(json.dump(2) + "\n");
    } else if (servers.empty()) {
        writeOut("No measured server. Start a server with: tolvane run -- COMMAND\n");
    } else {
        printTable(servers);
    }
    return servers.empty() ? kExitFinding : kExitOk;
}

}  // namespace tolvane::agent
