// What the agent wrote is bounded and prepared once, when it is taken, so that
// matching can trust every count and length.
#include <cstring>
#include <initializer_list>

#include "shim_utils/configuration/configuration.h"

namespace tolvane {
namespace {

// Names the places that were out of range, as many as fit.
class Report {
  public:
    explicit Report(Text<512>& text) : text_(text) {}

    // Bounds `value` to 0..limit; `indices` are printed in brackets.
    void bound(std::int32_t& value, int limit, const char* field,
               std::initializer_list<int> indices) {
        if (value >= 0 && value <= limit) return;
        name(field, indices);
        text_.add(" ").add(value).add(" (0 to ").add(limit).add(")");
        value = value < 0 ? 0 : limit;
    }
    // Ends a text field that has no NUL.
    void terminate(char* text, int size, const char* field, std::initializer_list<int> indices) {
        if (std::memchr(text, '\0', static_cast<std::size_t>(size)) != nullptr) return;
        name(field, indices);
        text_.add(" not terminated");
        text[size - 1] = '\0';
    }

  private:
    void name(const char* field, std::initializer_list<int> indices) {
        if (text_.length() > 0) text_.add(", ");
        text_.add(field);
        for (int index : indices) text_.add("[").add(index).add("]");
    }
    Text<512>& text_;
};

void boundSection(UrlSection& section, int s, int c, int k, Report& report) {
    report.bound(section.numPieces, kMaxPieces, "numPieces", {s, c, k});
    for (int p = 0; p < section.numPieces; ++p) {
        report.terminate(section.piece[p], kPieceSize, "piece", {s, c, k, p});
        report.bound(section.pieceLength[p], kPieceSize - 1, "pieceLength", {s, c, k, p});
    }
}

void boundSite(ConfigInfo& config, int s, Report& report) {
    report.terminate(config.siteName[s], kNameSize, "siteName", {s});
    report.bound(config.numHosts[s], kMaxExtraHosts, "numHosts", {s});
    for (int h = 0; h < config.numHosts[s]; ++h) {
        report.terminate(config.hostName[s][h], kNameSize, "hostName", {s, h});
    }
    report.bound(config.numCategories[s], kMaxCategories, "numCategories", {s});
    for (int c = 0; c < config.numCategories[s]; ++c) {
        CategoryConfig& category = config.categories[s][c];
        report.bound(category.numSections, kMaxSections, "numSections", {s, c});
        for (int k = 0; k < category.numSections; ++k) {
            boundSection(category.sections[k], s, c, k, report);
        }
    }
}

}  // namespace

void boundConfiguration(ConfigInfo& config, Text<512>& text) {
    Report report(text);
    report.bound(config.numSites, kMaxSites, "numSites", {});
    for (int s = 0; s < config.numSites; ++s) boundSite(config, s, report);
}

void prepareConfiguration(Configuration& config) {
    prepareNames(config.names, config.info);
    buildPatternIndex(config.patterns, config.info);
}

}  // namespace tolvane
