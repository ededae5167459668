#include "configuration/config_load.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "os/text.h"

namespace tolvane::agent {

LoadedConfig loadConfig(const std::string& path, WithoutSites withoutSites, PipeWriter writer) {
    auto text = readFile(path, kMaxTextFile, writer);
    if (text) return checkedConfig(*text, path, withoutSites);
    LoadedConfig loaded;
    loaded.complaints.push_back(fmt::format("{}: {}", path, std::strerror(errno)));
    return loaded;
}

LoadedConfig checkedConfig(std::string_view text, const std::string& name,
                           WithoutSites withoutSites) {
    LoadedConfig loaded;
    ConfigFile file = parseConfigFile(text);
    if (file.complaints.empty() && file.model.sites.empty() &&
        withoutSites == WithoutSites::kRefused) {
        file.complaints.push_back(
            {1, 1, "no [[site]] in the file; 'configure --remove-all' removes every site"});
    }
    for (const Complaint& complaint : file.complaints) {
        loaded.complaints.push_back(
            fmt::format("{}:{}:{}: {}", name, complaint.line, complaint.column, complaint.text));
    }
    loaded.model = std::move(file.model);
    return loaded;
}

std::string summaryOf(const ConfigModel& model) {
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

}  // namespace tolvane::agent
