#include "configuration/config_file.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <optional>

#include "configuration/host_name.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t substituted = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({substituted, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b.size()];
}

const char* typeName(const toml::node& node) {
    switch (node.type()) {
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "an integer";
        case toml::node_type::floating_point:
            return "a floating-point number";
        case toml::node_type::boolean:
            return "true or false";
        case toml::node_type::array:
            return "a list";
        case toml::node_type::table:
            return "a table";
        default:
            return "a date or time";
    }
}

class Reader {
  public:
    ConfigFile read(const toml::table& file);

  private:
    void complain(const toml::source_region& where, std::string text) {
        result_.complaints.push_back({where.begin.line, where.begin.column, std::move(text)});
    }
    void checkKeys(const toml::table& table, std::string_view what,
                   std::initializer_list<std::string_view> known);
    // Empty after a complaint.
    std::optional<std::string> text(const toml::node& node, std::string_view key,
                                    std::string_view example);
    const toml::array* list(const toml::node& node, std::string_view key, std::string_view example);
    // The tables of [[site]] or [[site.category]], at most `limit` of them.
    std::vector<const toml::table*> tables(const toml::table& parent, std::string_view key,
                                           std::string_view heading, std::size_t limit,
                                           std::string_view holder);
    void readInterval(const toml::node& node);
    SiteModel readSite(const toml::table& table);
    void readName(const toml::node& node, std::string_view key, std::vector<std::string>& into);
    CategoryModel readCategory(const toml::table& table,
                               std::map<std::string, std::size_t>& lineOfLabel);
    void readPatterns(const toml::array& urls, CategoryModel& category);

    ConfigFile result_;
    std::map<std::string, std::size_t> lineOfName_;
};

void Reader::checkKeys(const toml::table& table, std::string_view what,
                       std::initializer_list<std::string_view> known) {
    for (auto&& [key, value] : table) {
        std::string_view name = key.str();
        if (std::find(known.begin(), known.end(), name) != known.end()) continue;
        std::string hint = fmt::format("known here: {}", fmt::join(known, ", "));
        for (std::string_view candidate : known) {
            if (editDistance(lower(name), candidate) <= 2) {
                hint = fmt::format("did you mean '{}'?", candidate);
            }
        }
        complain(key.source(), fmt::format("unknown key '{}' {}; {}", printable(name), what, hint));
    }
}

std::optional<std::string> Reader::text(const toml::node& node, std::string_view key,
                                        std::string_view example) {
    if (auto value = node.value_exact<std::string>()) {
        if (value->find('\0') == std::string::npos) return value;
        complain(node.source(), fmt::format("{} must not contain a NUL character", key));
        return std::nullopt;
    }
    complain(node.source(),
             fmt::format("{} is {}; write a string: {}", key, typeName(node), example));
    return std::nullopt;
}

const toml::array* Reader::list(const toml::node& node, std::string_view key,
                                std::string_view example) {
    if (const toml::array* array = node.as_array()) return array;
    complain(node.source(),
             fmt::format("{} is {}; write a list: {}", key, typeName(node), example));
    return nullptr;
}

std::vector<const toml::table*> Reader::tables(const toml::table& parent, std::string_view key,
                                               std::string_view heading, std::size_t limit,
                                               std::string_view holder) {
    std::vector<const toml::table*> found;
    const toml::node* node = parent.get(key);
    if (node == nullptr) return found;
    const toml::array* array = node->as_array();
    if (array == nullptr) {
        complain(node->source(),
                 fmt::format("'{}' is {}; begin each entry with [[{}]], in double brackets", key,
                             typeName(*node), heading));
        return found;
    }
    for (const toml::node& element : *array) {
        if (const toml::table* table = element.as_table()) {
            found.push_back(table);
        } else {
            complain(element.source(), fmt::format("'{}' contains {}; begin each entry with [[{}]]",
                                                   key, typeName(element), heading));
        }
    }
    if (found.size() > limit) {
        complain(found[limit]->source(), fmt::format("this is number {} of {}; {} has at most {}",
                                                     limit + 1, found.size(), holder, limit));
        found.resize(limit);
    }
    return found;
}

void Reader::readInterval(const toml::node& node) {
    auto value = node.value_exact<std::int64_t>();
    if (!value) {
        complain(node.source(),
                 fmt::format("interval is {}; write an integer, in seconds: interval = 10",
                             typeName(node)));
    } else if (*value < 1 || *value > kMaxInterval) {
        complain(node.source(),
                 fmt::format("interval is {} seconds; write 1 to {}", *value, kMaxInterval));
    } else {
        result_.model.interval = static_cast<std::int32_t>(*value);
    }
}

// A name without a port has the default ports of both kinds of connections.
std::vector<std::string> addressesOf(const std::string& name) {
    std::size_t end = name[0] == '[' ? name.find(']') : 0;
    if (name.find(':', end) != std::string::npos) return {name};
    return {name + ":80", name + ":443"};
}

void Reader::readName(const toml::node& node, std::string_view key,
                      std::vector<std::string>& into) {
    auto name = text(node, key, "\"shop.example\"");
    if (!name) return;
    try {
        checkHostName(*name);
    } catch (const Error& error) {
        complain(node.source(), fmt::format("{} \"{}\": {}", key, printable(*name), error.what()));
        return;
    }
    for (const std::string& address : addressesOf(lower(*name))) {
        auto [earlier, added] = lineOfName_.emplace(address, node.source().begin.line);
        if (added) continue;
        complain(node.source(),
                 fmt::format("\"{}\" is already in line {}, and a request counts for "
                             "the first site only; remove a line",
                             *name, earlier->second));
        return;
    }
    into.push_back(*name);
}

SiteModel Reader::readSite(const toml::table& table) {
    SiteModel site;
    checkKeys(table, "in a site", {"name", "hosts", "category"});
    if (const toml::node* name = table.get("name")) {
        std::vector<std::string> names;
        readName(*name, "name", names);
        if (!names.empty()) site.name = names.front();
    } else {
        complain(table.source(), "the site has no name; add name = \"shop.example\"");
    }
    if (const toml::node* hosts = table.get("hosts")) {
        const toml::array* array = list(*hosts, "hosts", "hosts = [\"www.shop.example\"]");
        for (std::size_t i = 0; array != nullptr && i < array->size(); ++i) {
            if (i == kMaxExtraHosts) {
                complain((*array)[i].source(),
                         fmt::format("this is number {} of {}; a site has at most {} further "
                                     "names",
                                     i + 1, array->size(), kMaxExtraHosts));
                break;
            }
            readName((*array)[i], "host", site.hosts);
        }
    }
    std::map<std::string, std::size_t> lineOfLabel;
    for (const toml::table* category :
         tables(table, "category", "site.category", kMaxCategories, "a site")) {
        site.categories.push_back(readCategory(*category, lineOfLabel));
    }
    return site;
}

CategoryModel Reader::readCategory(const toml::table& table,
                                   std::map<std::string, std::size_t>& lineOfLabel) {
    CategoryModel category;
    checkKeys(table, "in a category", {"label", "urls"});
    const toml::node* label = table.get("label");
    if (label == nullptr) {
        complain(table.source(), "the category has no label; add label = \"checkout\"");
    } else if (auto value = text(*label, "label", "label = \"checkout\"")) {
        *value = printable(*value);
        category.label = *value;
        auto [earlier, added] = lineOfLabel.emplace(*value, label->source().begin.line);
        if (value->empty() || value->size() >= kLabelSize) {
            complain(label->source(), fmt::format("the label has {} bytes; write 1 to {}",
                                                  value->size(), kLabelSize - 1));
        } else if (!added) {
            complain(label->source(),
                     fmt::format("label \"{}\" is already in line {}; the labels of a site must "
                                 "differ",
                                 *value, earlier->second));
        }
    }
    const toml::node* urls = table.get("urls");
    if (urls == nullptr) {
        complain(table.source(), "the category has no patterns; add urls = [\"/shop*\"]");
    } else if (const toml::array* array = list(*urls, "urls", "urls = [\"/shop*\"]")) {
        if (array->empty()) {
            complain(array->source(),
                     "a category without patterns matches nothing; write urls = [\"/shop*\"]");
        }
        readPatterns(*array, category);
    }
    return category;
}

void Reader::readPatterns(const toml::array& urls, CategoryModel& category) {
    for (std::size_t i = 0; i < urls.size(); ++i) {
        const toml::node& node = urls[i];
        if (i == kMaxSections) {
            complain(node.source(),
                     fmt::format("this is number {} of {}; a category has at most {} patterns",
                                 i + 1, urls.size(), kMaxSections));
            return;
        }
        auto pattern = text(node, "url", "\"/shop*\"");
        if (!pattern) continue;
        try {
            category.patterns.push_back(parseUrlPattern(*pattern));
        } catch (const Error& error) {
            complain(node.source(),
                     fmt::format("url \"{}\": {}", printable(*pattern), error.what()));
        }
    }
}

ConfigFile Reader::read(const toml::table& file) {
    checkKeys(file, "at the top", {"interval", "site"});
    if (const toml::node* interval = file.get("interval")) readInterval(*interval);
    for (const toml::table* site : tables(file, "site", "site", kMaxSites, "a segment")) {
        result_.model.sites.push_back(readSite(*site));
    }
    std::stable_sort(result_.complaints.begin(), result_.complaints.end(),
                     [](const Complaint& a, const Complaint& b) {
                         return std::pair(a.line, a.column) < std::pair(b.line, b.column);
                     });
    return std::move(result_);
}

}  // namespace

ConfigFile parseConfigFile(std::string_view text) {
    try {
        return Reader().read(toml::parse(text));
    } catch (const toml::parse_error& error) {
        ConfigFile invalid;
        toml::source_position at = error.source().begin;
        invalid.complaints.push_back(
            {at.line, at.column, "not valid TOML: " + std::string(error.description())});
        return invalid;
    }
}

}  // namespace tolvane::agent
