#include "segment/configuration_copy.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "os/text.h"
#include "tolvane/configuration_bounds.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

class Corrector {
  public:
    using Indices = std::initializer_list<int>;

    void number(std::int32_t& value, int limit, const char* field, Indices indices) {
        if (value >= 0 && value <= limit) return;
        report(fmt::format("{} is {} (0 to {})", place(field, indices), value, limit));
        value = bounded(value, limit);
    }
    void text(char* text, int size, const char* field, Indices indices) {
        if (std::memchr(text, '\0', static_cast<std::size_t>(size)) != nullptr) return;
        report(place(field, indices) + " is not terminated");
        text[size - 1] = '\0';
    }
    std::string complaint() && { return std::move(complaint_); }

  private:
    static std::string place(const char* field, Indices indices) {
        std::string text = field;
        for (int index : indices) text += fmt::format("[{}]", index);
        return text;
    }
    void report(const std::string& what) {
        constexpr std::size_t kEnough = 300;
        if (complaint_.size() > kEnough) return;
        complaint_ += (complaint_.empty() ? "" : ", ") + what;
    }
    std::string complaint_;
};

// In place: printable() never makes a text longer.
void makePrintable(char* text) {
    std::string clean = printable(text);
    std::memcpy(text, clean.c_str(), clean.size() + 1);
}

}  // namespace

std::string sanitiseConfiguration(ConfigInfo& config) {
    Corrector corrector;
    forEachBoundedField(config, corrector);
    for (int s = 0; s < config.numSites; ++s) {
        makePrintable(config.siteName[s]);
        for (int h = 0; h < config.numHosts[s]; ++h) makePrintable(config.hostName[s][h]);
        for (int c = 0; c < config.numCategories[s]; ++c) {
            char* label = config.categories[s][c].label;
            // Servers do not examine labels, so an unterminated label is not a fault.
            label[kLabelSize - 1] = '\0';
            makePrintable(label);
        }
    }
    return std::move(corrector).complaint();
}

ConfigCopy copyConfiguration(const Segment& segment) {
    constexpr auto kPatience = 2s;
    ConfigCopy copy{std::make_unique<ConfigInfo>(), false, ""};
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        std::int32_t before = segment.version();
        segment.copyConfig(*copy.info);
        std::atomic_thread_fence(std::memory_order_acquire);
        copy.steady = segment.version() == before && !isBeingWritten(before);
        copy.info->version = before;
        if (copy.steady || std::chrono::steady_clock::now() > deadline) break;
        std::this_thread::sleep_for(1ms);
    }
    copy.complaint = sanitiseConfiguration(*copy.info);
    return copy;
}

}  // namespace tolvane::agent
