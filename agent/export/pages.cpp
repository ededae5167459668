#include "export/pages.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "export/history_json.h"
#include "export/metrics.h"
#include "export/page_files.h"
#include "export/servers_json.h"
#include "os/process_facts.h"

namespace tolvane::agent {

namespace {

HttpResponse data(std::string contentType, std::string body) {
    return {200, std::move(contentType), std::move(body), {{"Cache-Control", "no-store"}}};
}

HttpResponse plainText(int status, const std::string& line) {
    HttpResponse response = data("text/plain; charset=utf-8", line + "\n");
    response.status = status;
    return response;
}

std::optional<std::string> argument(const HttpRequest& request, const std::string& name) {
    auto found = request.query.find(name);
    return found == request.query.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

Pages::Pages(StateReader read, std::string version)
    : read_(std::move(read)), version_(std::move(version)) {}

HttpResponse Pages::answer(const HttpRequest& request, std::time_t now) const {
    const std::string& path = request.path;
    if (const PageFile* file = pageFile(path)) {
        // Revalidated each time: the program may have been replaced.
        return {
            200, file->contentType, std::string(file->content), {{"Cache-Control", "no-cache"}}};
    }
    std::string body;
    if (path == "/metrics") {
        ProcessFacts process = readProcessFacts();
        read_([&](const CollectorState& state) { body = metricsText(state, process, version_); });
        return data("text/plain; version=0.0.4; charset=utf-8", std::move(body));
    }
    std::optional<std::string> server = argument(request, "server");
    if (path == "/api/servers") {
        read_(
            [&](const CollectorState& state) { body = serversJson(state, version_, now, server); });
        return data("application/json", std::move(body));
    }
    if (path == "/api/history") {
        read_([&](const CollectorState& state) { body = historyJson(state, now, server); });
        return data("application/json", std::move(body));
    }
    if (path == "/health") {
        read_([&](const CollectorState& state) { body = complaintOf(state.health, now); });
        return body.empty() ? plainText(200, "ok") : plainText(503, body);
    }
    return plainText(404, "paths: / /metrics /api/servers /api/history /health");
}

std::string complaintOf(const CollectorHealth& health, std::time_t now) {
    constexpr double kPatience = 30;
    constexpr double kIntervals = 5;
    std::time_t last = std::max(health.lastRound, health.started);
    auto silent = static_cast<double>(now - last);
    if (silent > std::max(kPatience, kIntervals * health.interval)) {
        return fmt::format("no round for {:.0f} seconds", silent);
    }
    if (!health.storeWorks) return "the totals cannot be saved";
    return "";
}

}  // namespace tolvane::agent
