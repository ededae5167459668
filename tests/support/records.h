// The segment's blocks as tests write and compare them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tolvane/segment_format.h"

namespace tolvane::test {

struct Site {
    std::string name;
    std::vector<std::string> categories;  // one pattern each
    std::vector<std::string> hosts = {};
};
// A pattern as operators write it: "*" stands for any text.
UrlSection pattern(std::string_view text);
void configure(ConfigInfo& config, const std::vector<Site>& sites);

// The fields of a record that are not 0: of the totals, a site, its category,
// as in "total: conn1 in100 | 0: req1 | 0.1: req1".
std::string describe(const ResultStruct& record);

// The counts of one record, or of several together.
struct Counts : ResultStruct {
    Counts() : ResultStruct{} {}
    // Without gauges: how often a gauge is added depends on the moments of the
    // publications.
    Counts& operator+=(const ResultStruct& other);
    // A request of so many bytes and its response, of status 0 when dropped.
    // A site or category of -1: the request has no site or category.
    void addRequest(int s, int c, std::size_t received, std::size_t sent, int status);
    // Without the response times, which no client knows.
    std::string text() const;
};

}  // namespace tolvane::test
