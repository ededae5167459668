#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "base/error.h"
#include "base/terminal.h"
#include "base/text.h"
#include "commands/commands.h"
#include "config/config_block.h"
#include "config/config_file.h"
#include "config/config_writer.h"
#include "segment/server.h"

namespace tolvane::agent {

namespace {

enum class WithoutSites { kRefused, kAccepted };

// A file without sites is most likely not the one that was meant, and would
// end the measurement of every site.
ConfigModel loadModel(const std::string& path, WithoutSites withoutSites) {
    auto text = readFile(path, kMaxTextFile, PipeWriter::kAwaited);
    if (!text) fail(kExitBadInput, "{}: {}", path, std::strerror(errno));
    ConfigFile file = parseConfigFile(*text);
    if (file.complaints.empty() && file.model.sites.empty() &&
        withoutSites == WithoutSites::kRefused) {
        file.complaints.push_back(
            {1, 1, "no [[site]] in the file; 'configure --remove-all' removes every site"});
    }
    if (file.complaints.empty()) return std::move(file.model);
    std::string message;
    for (const Complaint& complaint : file.complaints) {
        message +=
            fmt::format("{}:{}:{}: {}\n", path, complaint.line, complaint.column, complaint.text);
    }
    // Bare lines, as editors and compilers have them.
    fmt::print(stderr, "{}", message);
    fail(kExitBadInput, "{} is not valid; nothing was changed", path);
}

std::string summary(const ConfigModel& model) {
    std::size_t names = 0;
    std::size_t categories = 0;
    std::size_t patterns = 0;
    for (const SiteModel& site : model.sites) {
        names += 1 + site.hosts.size();
        categories += site.categories.size();
        for (const CategoryModel& category : site.categories) patterns += category.patterns.size();
    }
    std::string categoryCount =
        categories == 1 ? "1 category" : fmt::format("{} categories", categories);
    return fmt::format("{}, {}, {}, {}, interval {} s", plural(model.sites.size(), "site"),
                       plural(names, "host name"), categoryCount, plural(patterns, "URL pattern"),
                       model.interval);
}

// Marks the counts of sites and categories as taken: the next publication
// starts them from 0.
void resetSiteCounts(Segment& segment) {
    for (std::int32_t i = 0; i < segment.structures(); ++i) segment.markSitesTaken(i);
}

// Counts belong to the place of a site or category in the list. A name that
// now stands where another one has counts would take these over.
std::vector<std::string> renamed(const ConfigInfo& before, const ConfigInfo& after) {
    std::vector<std::string> changes;
    for (int s = 0; s < std::min(before.numSites, after.numSites); ++s) {
        if (std::string_view(before.siteName[s]) != after.siteName[s]) {
            changes.push_back(
                fmt::format("{} (was {})", after.siteName[s], printable(before.siteName[s])));
            continue;
        }
        for (int c = 0; c < std::min(before.numCategories[s], after.numCategories[s]); ++c) {
            const char* label = after.categories[s][c].label;
            const char* earlier = before.categories[s][c].label;
            if (std::string_view(label) == earlier) continue;
            changes.push_back(fmt::format("{} {} (was {})", after.siteName[s], printable(label),
                                          printable(earlier)));
        }
    }
    return changes;
}

}  // namespace

int checkCommand(const std::string& file) {
    writeOut(
        fmt::format("{}: valid: {}\n", file, summary(loadModel(file, WithoutSites::kRefused))));
    return kExitOk;
}

int configureCommand(const ConfigureOptions& options) {
    ConfigModel model = loadModel(
        options.file, options.removeAll ? WithoutSites::kAccepted : WithoutSites::kRefused);
    auto block = buildConfigBlock(model);
    Server server = selectServer(findServers(), options.server);
    ConfigLock lock(server.handoff.path);
    Segment segment(server.handoff.shmid, server.handoff.structures, Segment::Access::kWrite);
    ConfigCopy before = copyConfiguration(segment);
    std::int32_t version = writeConfiguration(segment, *block);
    if (options.reset) resetSiteCounts(segment);
    writeOut(fmt::format("Server {}: configuration {} written: {}.\n", nameOf(server), version,
                         summary(model)));
    auto changes = renamed(*before.info, *block);
    if (!changes.empty() && !options.reset && before.info->version > 0) {
        writeOut(
            fmt::format("Note: counts stay with their place in the list, so {} {} earlier "
                        "counts; --reset starts sites and categories from 0.\n",
                        listOf(changes), changes.size() == 1 ? "takes over" : "take over"));
    }
    writeOut("Each process takes it at its next publication.\n");
    return kExitOk;
}

}  // namespace tolvane::agent
