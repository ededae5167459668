#include "pattern_matchers.h"

#include <algorithm>

#include "measured_rows.h"

namespace tolvane::bench {
namespace {

constexpr char kAnyText[] = ".*";

std::string literal(const char* text) {
    std::string escaped;
    for (; *text != '\0'; ++text) {
        if (std::isalnum(static_cast<unsigned char>(*text)) == 0) escaped += '\\';
        escaped += *text;
    }
    return escaped;
}

RE2::Options options() {
    RE2::Options options;
    options.set_encoding(RE2::Options::EncodingLatin1);
    options.set_dot_nl(true);
    options.set_never_capture(true);
    options.set_max_mem(256 << 20);
    return options;
}

}  // namespace

Expressions::Expressions(const CategoryConfig (&categories)[kMaxCategories]) {
    for (int c = 0; c < kMaxCategories; ++c) {
        for (int k = 0; k < categories[c].numSections; ++k) {
            const UrlSection& section = categories[c].sections[k];
            std::string text = section.leadingWildcard == 0 ? "^" : "";
            for (int p = 0; p < section.numPieces; ++p) {
                text += (p > 0 ? kAnyText : "") + literal(section.piece[p]);
            }
            Pattern pattern = {c, static_cast<int>(texts.size()), -1};
            texts.push_back(section.trailingWildcard == 0 ? text + "\\z" : text);
            if (section.trailingWildcard == 0) {
                pattern.without = static_cast<int>(texts.size());
                texts.push_back(text + ".");
            }
            patterns.push_back(pattern);
        }
    }
}

Hyperscan::Hyperscan(const Expressions& expressions)
    : expressions_(expressions), matchedIn_(expressions.texts.size()) {
    std::vector<const char*> texts;
    std::vector<unsigned> numbers;
    for (const std::string& text : expressions.texts) {
        numbers.push_back(static_cast<unsigned>(numbers.size()));
        texts.push_back(text.c_str());
    }
    const std::vector<unsigned> flags(texts.size(), HS_FLAG_DOTALL | HS_FLAG_SINGLEMATCH);
    hs_database_t* database = nullptr;
    hs_compile_error_t* error = nullptr;
    if (hs_compile_multi(texts.data(), flags.data(), numbers.data(),
                         static_cast<unsigned>(texts.size()), HS_MODE_BLOCK, nullptr, &database,
                         &error) != HS_SUCCESS) {
        fail(error->message);
    }
    database_.reset(database);
    hs_scratch_t* scratch = nullptr;
    if (hs_alloc_scratch(database, &scratch) != HS_SUCCESS) fail("hs_alloc_scratch");
    scratch_.reset(scratch);
}

std::uint32_t Hyperscan::categories(std::string_view url) {
    ++scan_;
    any_ = false;
    const auto found = [](unsigned number, unsigned long long, unsigned long long, unsigned,
                          void* context) {
        auto* self = static_cast<Hyperscan*>(context);
        self->matchedIn_[number] = self->scan_;
        self->any_ = true;
        return 0;
    };
    if (hs_scan(database_.get(), url.data(), static_cast<unsigned>(url.size()), 0, scratch_.get(),
                found, this) != HS_SUCCESS) {
        fail("hs_scan");
    }
    if (!any_) return 0;
    return expressions_.categories(
        [this](int i) { return matchedIn_[static_cast<std::size_t>(i)] == scan_; });
}

Re2Set::Re2Set(const Expressions& expressions)
    : expressions_(expressions),
      set_(options(), RE2::UNANCHORED),
      isMatched_(expressions.texts.size()) {
    for (const std::string& text : expressions.texts) {
        std::string error;
        if (set_.Add(text, &error) < 0) fail(error);
    }
    if (!set_.Compile()) fail("RE2::Set has no memory");
}

std::uint32_t Re2Set::categories(std::string_view url) {
    matched_.clear();
    RE2::Set::ErrorInfo error;
    if (!set_.Match({url.data(), url.size()}, &matched_, &error)) {
        if (error.kind != RE2::Set::kNoError) fail("RE2::Set gave up");
        return 0;
    }
    std::fill(isMatched_.begin(), isMatched_.end(), 0);
    for (int i : matched_) isMatched_[static_cast<std::size_t>(i)] = 1;
    return expressions_.categories(
        [this](int i) { return isMatched_[static_cast<std::size_t>(i)] != 0; });
}

}  // namespace tolvane::bench
