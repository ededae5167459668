#include "apache/apache_config.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "os/error.h"
#include "os/text.h"
#include "tolvane/limits.h"

namespace tolvane::agent {

namespace {

constexpr std::size_t kTableSize = kMaxAddresses;
// Apache's defaults.
constexpr int kPreforkDefaultLimit = 256;
constexpr int kThreadedDefaultLimit = 400;

struct LogicalLine {
    std::size_t first;
    std::size_t last;
    std::string text;
};

// A line that ends in a backslash continues in the next line.
std::vector<LogicalLine> logicalLines(const std::string& text) {
    std::vector<LogicalLine> lines;
    std::size_t number = 0;
    bool continued = false;
    for (std::string_view line : splitLines(text)) {
        ++number;
        if (!continued) lines.push_back({number, number, ""});
        lines.back().last = number;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        continued = !line.empty() && line.back() == '\\';
        lines.back().text += line.substr(0, line.size() - (continued ? 1 : 0));
    }
    return lines;
}

// The words of a directive, separated by blanks. Quoted text is a single word. The
// ">" that closes a section is not a word.
std::vector<std::string> directiveWords(std::string_view line) {
    std::vector<std::string> words;
    line = trim(line);
    if (!line.empty() && line.front() == '<' && line.back() == '>') line.remove_suffix(1);
    std::string word;
    bool inWord = false;
    char quote = 0;
    for (char c : line) {
        if (quote != 0 ? c == quote : (c == '"' || c == '\'')) {
            quote = quote != 0 ? '\0' : c;
            inWord = true;
        } else if (quote == 0 && (c == ' ' || c == '\t')) {
            if (inWord) words.push_back(std::move(word));
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) words.push_back(std::move(word));
    return words;
}

// Compares versions such as "2.4.62" and "2.4"; missing parts count as 0.
int compareVersions(const std::string& a, const std::string& b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() || j < b.size()) {
        std::size_t endA = std::min(a.find('.', i), a.size());
        std::size_t endB = std::min(b.find('.', j), b.size());
        int left = i < a.size() ? parseInt32(a.substr(i, endA - i)).value_or(0) : 0;
        int right = j < b.size() ? parseInt32(b.substr(j, endB - j)).value_or(0) : 0;
        if (left != right) return left < right ? -1 : 1;
        i = endA + 1;
        j = endB + 1;
    }
    return 0;
}

enum class SslSwitch { kUnset, kOn, kOff };

struct Section {
    std::string name;  // "ifmodule"
    bool active;
};

struct Host {
    std::vector<Endpoint> endpoints;
    SslSwitch ssl = SslSwitch::kUnset;
};

class Walker {
  public:
    Walker(const ServerFacts& facts, const FileReader& readText, const VariableReader& variable)
        : facts_(facts), readText_(readText), variable_(variable) {}
    MeasuredConfig read();

  private:
    void walk(const IncludedFile& file);
    void directive(const std::string& text);
    void openSection(const std::string& name, const std::vector<std::string>& words);
    void closeSection(const std::string& name);
    void openHost(const std::vector<std::string>& words);
    void listen(const std::vector<std::string>& words);
    bool conditionHolds(const std::string& name, const std::vector<std::string>& words) const;
    bool moduleLoaded(const std::string& name) const;
    bool versionHolds(const std::vector<std::string>& words) const;
    bool active() const;
    std::string substitute(const std::string& text) const;
    void settleSsl();
    void addSslHost(const Endpoint& endpoint);
    void noteFullTables();
    void noteMacros();

    const ServerFacts& facts_;
    const FileReader& readText_;
    const VariableReader& variable_;
    MeasuredConfig result_;
    std::vector<Section> sections_;
    std::vector<Host> hosts_;
    bool inHost_ = false;
    bool macrosNoted_ = false;
    SslSwitch mainSsl_ = SslSwitch::kUnset;
    std::vector<Endpoint> httpsListen_;
};

void Walker::walk(const IncludedFile& file) {
    auto text = readText_(file.path);
    if (!text) fail(ErrorKind::kFailed, "{}: cannot be read", file.path);
    auto next = file.files.begin();
    for (const LogicalLine& line : logicalLines(*text)) {
        directive(line.text);
        for (; next != file.files.end() && next->line <= line.last; ++next) walk(*next);
    }
    for (; next != file.files.end(); ++next) walk(*next);
}

bool Walker::active() const {
    return std::all_of(sections_.begin(), sections_.end(),
                       [](const Section& section) { return section.active; });
}

std::string Walker::substitute(const std::string& text) const {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t close = text.compare(at, 2, "${") == 0 ? text.find('}', at) : std::string::npos;
        if (close == std::string::npos) {
            result += text[at++];
            continue;
        }
        std::string name = text.substr(at + 2, close - at - 2);
        auto defined = facts_.defines.find(name);
        std::optional<std::string> value;
        if (defined != facts_.defines.end()) {
            value = defined->second;
        } else {
            value = variable_(name);
        }
        result += value.value_or(text.substr(at, close - at + 1));
        at = close + 1;
    }
    return result;
}

void Walker::directive(const std::string& text) {
    std::string_view bare = trim(text);
    if (bare.empty() || bare.front() == '#') return;
    auto words = directiveWords(substitute(text));
    if (words.empty()) return;
    std::string keyword = lower(words[0]);
    if (keyword.compare(0, 2, "</") == 0) {
        closeSection(keyword.substr(2));
    } else if (keyword[0] == '<') {
        openSection(keyword.substr(1), words);
    } else if (active() && words.size() > 1) {
        if (keyword == "listen") {
            listen(words);
        } else if (keyword == "use") {
            noteMacros();
        } else if (keyword == "maxclients" || keyword == "maxrequestworkers") {
            result_.processLimit = parseInt32(words[1]).value_or(0);
            result_.needsTranslation |= keyword == "maxrequestworkers";
        } else if (keyword == "sslengine") {
            SslSwitch setting = lower(words[1]) == "on" ? SslSwitch::kOn : SslSwitch::kOff;
            (inHost_ ? hosts_.back().ssl : mainSsl_) = setting;
        }
    }
}

void Walker::openSection(const std::string& name, const std::vector<std::string>& words) {
    // The text of a macro has no effect before its use.
    bool holds = name != "macro" && conditionHolds(name, words);
    if (name == "virtualhost" && active()) openHost(words);
    // The shim reads directives in such sections regardless of the condition.
    if (!holds) result_.needsTranslation = true;
    sections_.push_back({name, holds});
}

void Walker::closeSection(const std::string& name) {
    if (sections_.empty()) return;
    sections_.pop_back();
    if (name == "virtualhost") inHost_ = false;
}

void Walker::openHost(const std::vector<std::string>& words) {
    Host host;
    for (std::size_t i = 1; i < words.size(); ++i) {
        auto endpoint = parseEndpoint(words[i], false);
        if (!endpoint) continue;
        result_.needsTranslation |= words[i][0] == '[' || words.size() > 2;
        // A wildcard for every port would also match the plain ports.
        if (words[i][0] == '[' && !endpoint->port && endpoint->address == "*") {
            result_.notes.push_back(
                fmt::format("<VirtualHost {}> has no port; if it is an SSL host, add a port",
                            printable(words[i])));
            continue;
        }
        host.endpoints.push_back(*endpoint);
    }
    hosts_.push_back(std::move(host));
    inHost_ = true;
}

void Walker::listen(const std::vector<std::string>& words) {
    auto endpoint = parseEndpoint(words[1], true);
    if (!endpoint || !endpoint->port) {
        result_.notes.push_back(fmt::format("Listen {} cannot be parsed", printable(words[1])));
        return;
    }
    result_.needsTranslation |= words[1][0] == '[';
    auto& list = result_.listen;
    if (std::find(list.begin(), list.end(), *endpoint) == list.end()) list.push_back(*endpoint);
    if (words.size() > 2 && lower(words[2]) == "https") httpsListen_.push_back(*endpoint);
}

// Modules are named by their identifier (ssl_module) or by the name of their
// source file (mod_ssl.c, prefork.c).
bool Walker::moduleLoaded(const std::string& name) const {
    if (facts_.modules.count(name) > 0) return true;
    if (name.size() < 3 || name.compare(name.size() - 2, 2, ".c") != 0) return false;
    std::string stem = name.substr(0, name.size() - 2);
    if (stem.compare(0, 4, "mod_") == 0) stem = stem.substr(4);
    if (stem == "http_core") stem = "http";
    return facts_.modules.count(stem + "_module") > 0 ||
           facts_.modules.count("mpm_" + stem + "_module") > 0;
}

bool Walker::versionHolds(const std::vector<std::string>& words) const {
    std::string comparison = words.size() > 2 ? words[1] : "=";
    bool negated = comparison.size() > 1 && comparison[0] == '!';
    if (negated) comparison.erase(0, 1);
    int order = compareVersions(facts_.version, words.back());
    bool holds = true;
    if (comparison == "=" || comparison == "==") {
        holds = order == 0;
    } else if (comparison == ">") {
        holds = order > 0;
    } else if (comparison == ">=") {
        holds = order >= 0;
    } else if (comparison == "<") {
        holds = order < 0;
    } else if (comparison == "<=") {
        holds = order <= 0;
    }
    return holds != negated;
}

bool Walker::conditionHolds(const std::string& name, const std::vector<std::string>& words) const {
    if (words.size() < 2) return true;
    if (name == "ifversion") return versionHolds(words);
    bool negated = words[1][0] == '!';
    std::string value = words[1].substr(negated ? 1 : 0);
    if (name == "ifmodule") return moduleLoaded(value) != negated;
    if (name == "ifdefine") return (facts_.defines.count(value) > 0) != negated;
    if (name == "iffile") {
        std::string path =
            value.empty() || value[0] == '/' ? value : facts_.serverRoot + "/" + value;
        return (::access(path.c_str(), F_OK) == 0) != negated;
    }
    return true;
}

void Walker::addSslHost(const Endpoint& endpoint) {
    auto& list = result_.sslHosts;
    if (std::find(list.begin(), list.end(), endpoint) == list.end()) list.push_back(endpoint);
}

// A host without an SSLEngine directive inherits the main server's. The main server
// answers on ports without a host.
void Walker::settleSsl() {
    auto hostHas = [&](const Endpoint& listen) {
        return std::any_of(hosts_.begin(), hosts_.end(), [&](const Host& host) {
            return std::any_of(host.endpoints.begin(), host.endpoints.end(),
                               [&](const Endpoint& e) { return !e.port || e.port == listen.port; });
        });
    };
    for (const Host& host : hosts_) {
        SslSwitch setting = host.ssl == SslSwitch::kUnset ? mainSsl_ : host.ssl;
        if (setting != SslSwitch::kOn) continue;
        for (const Endpoint& endpoint : host.endpoints) addSslHost(endpoint);
    }
    const auto& ownPorts = mainSsl_ == SslSwitch::kOn ? result_.listen : httpsListen_;
    for (const Endpoint& endpoint : ownPorts) {
        if (hostHas(endpoint)) continue;
        addSslHost(endpoint);
        result_.needsTranslation = true;
    }
}

void Walker::noteMacros() {
    if (std::exchange(macrosNoted_, true)) return;
    result_.notes.push_back(
        "macros are not expanded; if they contain Listen lines or SSL hosts, create a root by "
        "hand and pass it with --root");
}

void Walker::noteFullTables() {
    if (result_.listen.size() > kTableSize) {
        result_.notes.push_back(
            fmt::format("{} listening addresses; only the first {} are measured",
                        result_.listen.size(), kTableSize));
    }
    if (result_.sslHosts.size() > kTableSize) {
        result_.notes.push_back(fmt::format("{} SSL addresses; only the first {} count as SSL",
                                            result_.sslHosts.size(), kTableSize));
    }
}

MeasuredConfig Walker::read() {
    for (const std::string& text : facts_.before) directive(text);
    walk(facts_.mainFile);
    for (const std::string& text : facts_.after) directive(text);
    result_.needsTranslation |= !facts_.before.empty() || !facts_.after.empty();
    result_.module = processingModule(facts_);
    if (result_.module.empty()) {
        fail(ErrorKind::kInvalidInput, "the server has loaded no multi-processing module");
    }
    if (result_.listen.empty()) {
        fail(ErrorKind::kInvalidInput,
             "{} and its included files contain no Listen line outside of macros; create a root by "
             "hand (see docs/operations.md) and pass it with --root",
             facts_.mainFile.path);
    }
    if (result_.processLimit <= 0) {
        result_.processLimit =
            result_.module == "prefork" ? kPreforkDefaultLimit : kThreadedDefaultLimit;
        result_.needsTranslation = true;
    }
    settleSsl();
    noteFullTables();
    return std::move(result_);
}

}  // namespace

MeasuredConfig readMeasuredConfig(const ServerFacts& facts, const FileReader& readText,
                                  const VariableReader& variable) {
    return Walker(facts, readText, variable).read();
}

}  // namespace tolvane::agent
