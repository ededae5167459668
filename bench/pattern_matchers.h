// The decision of which URL categories a URL falls in, made by multi-pattern
// matchers that others would reach for.
#pragma once

#include <hs/hs.h>
#include <re2/set.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tolvane/segment_format.h"

namespace tolvane::bench {

// The patterns of one site as regular expressions. A pattern that must end the
// URL accepts only the first occurrence of its last piece, which takes two
// expressions: it ends the URL, and it does not occur sooner.
struct Expressions {
    explicit Expressions(const CategoryConfig (&categories)[kMaxCategories]);

    // The categories, bit c for category c, when exactly these expressions match.
    template <typename Matches>
    std::uint32_t categories(const Matches& matches) const {
        std::uint32_t bits = 0;
        for (const Pattern& pattern : patterns) {
            const bool excluded = pattern.without >= 0 && matches(pattern.without);
            if (!excluded && matches(pattern.expression)) bits |= 1U << pattern.category;
        }
        return bits;
    }

    struct Pattern {
        int category;
        int expression;
        int without;  // an expression that must not match; -1: none
    };
    std::vector<std::string> texts;
    std::vector<Pattern> patterns;
};

class Hyperscan {
  public:
    explicit Hyperscan(const Expressions& expressions);
    std::uint32_t categories(std::string_view url);

  private:
    template <auto free>
    struct Free {
        void operator()(auto* object) const { free(object); }
    };
    const Expressions& expressions_;
    std::unique_ptr<hs_database_t, Free<hs_free_database>> database_;
    std::unique_ptr<hs_scratch_t, Free<hs_free_scratch>> scratch_;
    std::vector<std::uint32_t> matchedIn_;  // number of the last scan that matched, by expression
    std::uint32_t scan_ = 0;
    bool any_ = false;
};

class Re2Set {
  public:
    explicit Re2Set(const Expressions& expressions);
    std::uint32_t categories(std::string_view url);

  private:
    const Expressions& expressions_;
    RE2::Set set_;
    std::vector<int> matched_;
    std::vector<char> isMatched_;
};

}  // namespace tolvane::bench
