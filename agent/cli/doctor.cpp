#include <fmt/format.h>
#include <unistd.h>

#include "cli/commands.h"
#include "cli/doctor_findings.h"
#include "cli/exit_code.h"
#include "cli/terminal.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

int doctorCommand() {
    Findings findings;
    {
        Progress progress;
        progress.show("checking the installation and the running servers");
        examineInstallation(findings);
        try {
            examineServers(findServers(), findings);
        } catch (const Error& error) {
            findings.problem(error.what(), "run doctor as root, or repair the directory");
        }
    }
    bool colour = colourOn(STDOUT_FILENO);
    std::size_t problems = 0;
    for (const Finding& finding : findings.all()) {
        std::string mark = coloured("ok     ", Colour::kGreen, colour);
        if (finding.level == Finding::Level::kNote)
            mark = coloured("note   ", Colour::kYellow, colour);
        if (finding.level == Finding::Level::kProblem) {
            mark = coloured("problem", Colour::kRed, colour);
            ++problems;
        }
        std::string remedy = finding.remedy.empty() ? "" : " -> " + finding.remedy;
        writeOut(fmt::format("{}  {}{}\n", mark, printable(finding.text), printable(remedy)));
    }
    writeOut(problems == 0 ? "No problem found.\n" : plural(problems, "problem") + " found.\n");
    return problems == 0 ? kExitOk : kExitFinding;
}

}  // namespace tolvane::agent
