#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/doctor_findings.h"
#include "cli/exit_code.h"
#include "cli/terminal.h"
#include "os/error.h"
#include "os/text.h"
#include "servers/handoff_repair.h"

namespace tolvane::agent {

namespace {

void repairDamaged(std::vector<Server>& servers, Findings& findings) {
    for (const Server& server : servers) {
        if (server.state != RunState::kLive || server.damage.empty()) continue;
        try {
            repairHandoff(server);
            findings.ok(fmt::format("{} is written anew", server.handoff.path));
        } catch (const Error& error) {
            findings.problem(error.what(), "run doctor as root");
        }
    }
    servers = findServers();
}

Findings examineAll(const DoctorOptions& options) {
    Findings findings;
    Progress progress;
    progress.show("checking the installation and the running servers");
    examineInstallation(findings);
    try {
        std::vector<Server> servers = findServers();
        if (options.repair) repairDamaged(servers, findings);
        examineServers(servers, findings);
    } catch (const Error& error) {
        findings.problem(error.what(), "run doctor as root, or repair the directory");
    }
    return findings;
}

const char* levelName(Finding::Level level) {
    if (level == Finding::Level::kOk) return "ok";
    return level == Finding::Level::kNote ? "note" : "problem";
}

std::string asText(const std::vector<Finding>& findings) {
    bool colour = colourOn(STDOUT_FILENO);
    constexpr Colour kShades[] = {Colour::kGreen, Colour::kYellow, Colour::kRed};
    std::string text;
    for (const Finding& finding : findings) {
        std::string mark = fmt::format("{:7}", levelName(finding.level));
        std::string remedy = finding.remedy.empty() ? "" : " -> " + finding.remedy;
        text += fmt::format("{}  {}{}\n",
                            coloured(mark, kShades[static_cast<int>(finding.level)], colour),
                            printable(finding.text), printable(remedy));
    }
    return text;
}

std::string asJson(const std::vector<Finding>& findings, std::size_t problems) {
    nlohmann::ordered_json json = {{"problems", problems},
                                   {"findings", nlohmann::ordered_json::array()}};
    for (const Finding& finding : findings) {
        json["findings"].push_back({{"level", levelName(finding.level)},
                                    {"text", printable(finding.text)},
                                    {"remedy", printable(finding.remedy)}});
    }
    return json.dump(2) + "\n";
}

}  // namespace

int doctorCommand(const DoctorOptions& options) {
    std::vector<Finding> findings = examineAll(options).all();
    auto problems = static_cast<std::size_t>(std::count_if(
        findings.begin(), findings.end(),
        [](const Finding& finding) { return finding.level == Finding::Level::kProblem; }));
    if (options.json) {
        writeOut(asJson(findings, problems));
    } else {
        writeOut(asText(findings) + (problems == 0 ? "No problem" : plural(problems, "problem")) +
                 " found.\n");
    }
    return problems == 0 ? kExitOk : kExitFinding;
}

}  // namespace tolvane::agent
