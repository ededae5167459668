#include <fmt/format.h>
#include <unistd.h>

#include "cli/commands.h"
#include "cli/configuration_input.h"
#include "cli/exit_code.h"
#include "cli/terminal.h"
#include "collector/ownership_lock.h"
#include "configuration/config_block.h"
#include "configuration/config_writer.h"
#include "os/error.h"
#include "os/text.h"
#include "segment/configuration_copy.h"
#include "servers/server.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

// Marks the counts of sites and categories as collected: the next publication
// resets them.
void resetSiteCounts(Segment& segment) {
    for (std::int32_t i = 0; i < segment.structures(); ++i) segment.markSitesCollected(i);
}

// A collector keeps its totals by name and adds differences. Counts that start
// from 0 would be missing in them.
void refuseResetOfKeptCounts(const Server& server) {
    if (::access(kOwnershipFile, F_OK) != 0) return;
    if (pid_t holder = OwnershipLock(kOwnershipFile).acquire(server.handoff.shmid); holder != 0) {
        fail(ErrorKind::kInvalidInput,
             "the collector with process id {} keeps totals of this server by name: --reset is "
             "not necessary and would lose counts; nothing was changed",
             holder);
    }
}

// Counts belong to an index. A new name at an index takes over the counts of the
// name before it.
std::vector<std::string> renamed(const ConfigInfo& before, const ConfigInfo& after) {
    std::vector<std::string> changes;
    for (int s = 0; s < std::min(before.numSites, after.numSites); ++s) {
        if (std::string_view(before.siteName[s]) != after.siteName[s]) {
            changes.push_back(fmt::format("{} (was {})", after.siteName[s], before.siteName[s]));
            continue;
        }
        for (int c = 0; c < std::min(before.numCategories[s], after.numCategories[s]); ++c) {
            const char* label = after.categories[s][c].label;
            const char* earlier = before.categories[s][c].label;
            if (std::string_view(label) == earlier) continue;
            changes.push_back(fmt::format("{} {} (was {})", after.siteName[s], label, earlier));
        }
    }
    return changes;
}

}  // namespace

int checkCommand(const std::string& file) {
    writeOut(fmt::format("{}: valid: {}\n", file == "-" ? "<stdin>" : file,
                         summaryOf(modelIn(file, WithoutSites::kRefused))));
    return kExitOk;
}

int configureCommand(const ConfigureOptions& options) {
    ConfigModel model =
        modelIn(options.file, options.removeAll ? WithoutSites::kAccepted : WithoutSites::kRefused);
    auto block = buildConfigBlock(model);
    Server server = selectServer(findServers(), options.server);
    Progress progress;
    auto notice = [&](std::string_view text) { progress.show(text); };
    ConfigLock lock(server.handoff.path, std::chrono::seconds(10), notice);
    Segment segment(server.handoff.shmid, server.handoff.structures, Segment::Access::kWrite);
    if (options.reset) refuseResetOfKeptCounts(server);
    ConfigCopy before = copyConfiguration(segment);
    Uptake uptake = uptakeOf(modeOf(server.handoff, server.process), *before.info, block->interval);
    WrittenConfiguration written =
        writeConfiguration(segment, *block, std::chrono::seconds(5), notice);
    keepInForceTime(server.handoff.path, uptake);
    progress.clear();
    if (written.replacedMark != 0) {
        writeOut(
            fmt::format("Note: the unfinished configuration of another agent (version {}) is "
                        "replaced.\n",
                        written.replacedMark));
    }
    if (options.reset) resetSiteCounts(segment);
    writeOut(fmt::format("Server {}: configuration {} written: {}.\n", nameOf(server),
                         written.version, summaryOf(model)));
    auto changes = renamed(*before.info, *block);
    if (!changes.empty() && !options.reset && before.info->version > 0) {
        writeOut(
            fmt::format("Note: counts belong to an index in the file, so {} {} earlier "
                        "counts; --reset resets sites and categories to 0.\n",
                        listOf(changes), changes.size() == 1 ? "takes over" : "take over"));
    }
    writeOut(uptake.text + "\n");
    return kExitOk;
}

}  // namespace tolvane::agent
