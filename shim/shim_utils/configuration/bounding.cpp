// A new configuration is bounded and prepared once, when it is copied. Matching
// then relies on every count and length.
#include <cstring>
#include <initializer_list>

#include "shim_utils/configuration/configuration.h"
#include "tolvane/configuration_bounds.h"

namespace tolvane {
namespace {

// Brings each field within its bounds and reports the fields that were not, as
// far as they fit the report.
class Bounding {
  public:
    explicit Bounding(Text<512>& report) : report_(report) {}

    void number(std::int32_t& value, int limit, const char* field,
                std::initializer_list<int> indices) {
        const std::int32_t replacement = bounded(value, limit);
        if (value == replacement) return;
        name(field, indices);
        report_.add(" ").add(value).add(" (0 to ").add(limit).add(")");
        value = replacement;
    }
    void text(char* text, int size, const char* field, std::initializer_list<int> indices) {
        if (std::memchr(text, '\0', static_cast<std::size_t>(size)) != nullptr) return;
        name(field, indices);
        report_.add(" not terminated");
        text[size - 1] = '\0';
    }

  private:
    void name(const char* field, std::initializer_list<int> indices) {
        if (report_.length() > 0) report_.add(", ");
        report_.add(field);
        for (int index : indices) report_.add("[").add(index).add("]");
    }
    Text<512>& report_;
};

}  // namespace

void boundConfiguration(ConfigInfo& config, Text<512>& report) {
    forEachBoundedField(config, Bounding(report));
}

void prepareConfiguration(Configuration& config) {
    prepareNames(config.names, config.info);
    buildPatternIndex(config.patterns, config.info);
}

}  // namespace tolvane
