// The configuration file: TOML, checked against every capacity of the segment
// before anything is written to a segment.
//
//   interval = 10
//
//   [[site]]
//   name = "shop.example"
//   hosts = ["www.shop.example"]
//
//   [[site.category]]
//   label = "checkout"
//   urls = ["/cart*", "/shop*.jsp"]
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "configuration/url_pattern.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

inline constexpr std::int32_t kMaxInterval = 86400;  // seconds

struct CategoryModel {
    std::string label;
    std::vector<UrlPattern> patterns;
};

struct SiteModel {
    std::string name;
    std::vector<std::string> hosts;
    std::vector<CategoryModel> categories;
};

struct ConfigModel {
    std::int32_t interval = kDefaultInterval;
    std::vector<SiteModel> sites;
};

struct Complaint {
    std::size_t line;
    std::size_t column;
    std::string text;
};

struct ConfigFile {
    ConfigModel model;
    std::vector<Complaint> complaints;  // in the order of the file; empty when it is valid
};

ConfigFile parseConfigFile(std::string_view text);

}  // namespace tolvane::agent
