#include "collector/name_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace tolvane::agent {

namespace {

constexpr int kNowhere = -1;

// An index for each wanted name: its present index, else a free index, else the
// index of a name that is no longer wanted.
std::vector<int> places(const std::vector<std::string>& wanted,
                        const std::vector<std::string>& present) {
    std::vector<int> place(wanted.size(), kNowhere);
    std::vector<bool> used(present.size(), false);
    auto give = [&](std::size_t w, std::size_t i) {
        place[w] = static_cast<int>(i);
        used[i] = true;
    };
    for (std::size_t w = 0; w < wanted.size(); ++w) {
        auto found = std::find(present.begin(), present.end(), wanted[w]);
        auto i = static_cast<std::size_t>(found - present.begin());
        if (found != present.end() && !used[i]) give(w, i);
    }
    for (bool empty : {true, false}) {
        for (std::size_t w = 0; w < wanted.size(); ++w) {
            for (std::size_t i = 0; i < present.size() && place[w] == kNowhere; ++i) {
                if (!used[i] && present[i].empty() == empty) give(w, i);
            }
        }
    }
    return place;
}

void placeCategories(ConfigInfo& placed, int site, const ConfigInfo& wanted, int from,
                     const SiteEntry& present) {
    std::vector<std::string> labels;
    for (int c = 0; c < wanted.numCategories[from]; ++c) {
        labels.push_back(labelOf(wanted.categories[from][c], c));
    }
    // Labels of another site at this index have no meaning for this one.
    std::vector<std::string> earlier(kMaxCategories);
    if (present.name == wanted.siteName[from]) {
        earlier.assign(present.labels.begin(), present.labels.end());
    }
    std::vector<int> place = places(labels, earlier);
    int count = 0;
    for (std::size_t c = 0; c < place.size(); ++c) {
        placed.categories[site][place[c]] = wanted.categories[from][c];
        count = std::max(count, place[c] + 1);
    }
    placed.numCategories[site] = count;
}

}  // namespace

std::string labelOf(const CategoryConfig& category, int index) {
    std::string label = category.label;
    return label.empty() ? fmt::format("#{}", index + 1) : label;
}

void updateNames(NameTable& names, const ConfigInfo& config, NameUpdate update) {
    for (int s = 0; s < config.numSites; ++s) {
        std::string name = config.siteName[s];
        if (name.empty()) continue;
        SiteEntry& site = names[static_cast<std::size_t>(s)];
        if (site.name != name) {
            if (!site.name.empty() && update == NameUpdate::kNewOnly) continue;
            site = {std::move(name), {}};
        }
        for (int c = 0; c < config.numCategories[s]; ++c) {
            const CategoryConfig& category = config.categories[s][c];
            std::string& label = site.labels[static_cast<std::size_t>(c)];
            if (category.numSections == 0) continue;
            if (label.empty() || update == NameUpdate::kAll) label = labelOf(category, c);
        }
    }
}

std::unique_ptr<ConfigInfo> placeConfiguration(const ConfigInfo& wanted, const NameTable& names) {
    auto placed = std::make_unique<ConfigInfo>();
    placed->interval = wanted.interval;
    std::vector<std::string> sites;
    for (int s = 0; s < wanted.numSites; ++s) sites.emplace_back(wanted.siteName[s]);
    std::vector<std::string> present;
    for (const SiteEntry& site : names) present.push_back(site.name);
    std::vector<int> place = places(sites, present);
    for (int from = 0; from < wanted.numSites; ++from) {
        int to = place[static_cast<std::size_t>(from)];
        std::memcpy(placed->siteName[to], wanted.siteName[from], sizeof placed->siteName[to]);
        placed->numHosts[to] = wanted.numHosts[from];
        std::memcpy(placed->hostName[to], wanted.hostName[from], sizeof placed->hostName[to]);
        placeCategories(*placed, to, wanted, from, names[static_cast<std::size_t>(to)]);
        placed->numSites = std::max(placed->numSites, to + 1);
    }
    return placed;
}

}  // namespace tolvane::agent
