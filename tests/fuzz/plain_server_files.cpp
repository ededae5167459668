#include "plain_server_files.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <utility>

namespace tolvane::fuzz {
namespace {

constexpr std::uint32_t kAny = 0xFFFFFFFF;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char small(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether `text` is `name`, in any case.
bool is(std::string_view text, std::string_view name) {
    return std::equal(text.begin(), text.end(), name.begin(), name.end(),
                      [](char a, char b) { return small(a) == small(b); });
}

std::string_view withoutBlanks(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    return text.substr(i);
}

// The run at the start of `text` that holds no blank and none of `ends`.
std::string_view run(std::string_view text, std::string_view ends = "") {
    std::size_t i = 0;
    while (i < text.size() && !isBlank(text[i]) && ends.find(text[i]) == std::string_view::npos)
        ++i;
    return text.substr(0, i);
}

int number(std::string_view text) {
    long long value = 0;
    for (std::size_t i = 0; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = std::min<long long>(value * 10 + (text[i] - '0'), INT_MAX);
    }
    return static_cast<int>(value);
}

// A line as the C library's reader delivers it into a buffer of a given size,
// and its split into a keyword and what follows.
struct Line {
    std::string_view text;
    std::string_view keyword;  // empty: the line says nothing
    std::string_view value;
};

class File {
  public:
    explicit File(std::string_view text) : rest_(text) {}

    bool next(Line& line, std::size_t bufferSize) {
        if (rest_.empty()) return false;
        line.text = rest_.substr(0, bufferSize - 1);
        const std::size_t length = std::min(line.text.find('\n'), line.text.size() - 1) + 1;
        line.text = line.text.substr(0, length);
        line.text = line.text.substr(0, line.text.find('\0'));
        rest_.remove_prefix(length);

        const std::string_view words = withoutBlanks(line.text);
        line.keyword = run(words);
        line.value = withoutBlanks(words.substr(line.keyword.size()));
        if (line.keyword.substr(0, 1) == "#") line.keyword = "";
        return true;
    }

  private:
    std::string_view rest_;
};

constexpr std::size_t kLine = 1025;
constexpr std::size_t kSectionLine = 1024;

std::uint32_t addressOf(std::string_view text) {
    char word[kLine];
    word[text.copy(word, sizeof word - 1)] = '\0';
    return inet_addr(word);
}

PlainAddress entry(int port, std::uint32_t address, std::string_view text) {
    return {port, address, text.substr(0, 49)};
}

// An Apache configuration on its way.
class Apache {
  public:
    explicit Apache(const ApacheFiles& files) : files_(files), file_(files.conf) {}

    PlainServer read() {
        readModule();
        if (!is(module_, "none") && !is(module_, "prefork")) server_.type = 3;
        Line line;
        while (file_.next(line, kLine)) {
            if (!line.keyword.empty()) readLine(line);
        }
        if (!listenSeen_ && port_ > 0) {
            const bool bound = bindAddress_ != 0 && bindAddress_ != kAny;
            server_.plain = {bound ? entry(port_, bindAddress_, bindText_)
                                   : entry(port_, kAny, "*")};
        }
        finish();
        return server_;
    }

  private:
    void readModule() {
        if (!files_.hasModuleInfo) return;
        File info(files_.moduleInfo);
        Line line;
        while (info.next(line, kLine)) module_ = run(withoutBlanks(line.text));
    }

    void readLine(const Line& line) {
        if (files_.sslMode && is(line.keyword, "<virtualhost")) {
            readVirtualHost(line);
        } else if (!files_.sslMode && is(line.keyword, "<ifdefine")) {
            readIfDefine(line.value);
        } else if (is(line.keyword, "port")) {
            port_ = number(line.value);
        } else if (is(line.keyword, "listen")) {
            readListen(line.value);
        } else if (is(line.keyword, "bindaddress")) {
            bindText_ = run(line.value);
            bindAddress_ = addressOf(bindText_);
        } else if (is(line.keyword, "maxclients")) {
            server_.maxProcesses = number(line.value);
        } else {
            readOther(line);
        }
    }

    void readListen(std::string_view value) {
        const std::size_t colon = value.find(':');
        listenSeen_ = true;
        if (colon == std::string_view::npos) {
            server_.plain.push_back(entry(number(value), kAny, "*"));
            return;
        }
        const std::string_view text = value.substr(0, colon);
        server_.plain.push_back(entry(number(value.substr(colon + 1)), addressOf(text), text));
    }

    void readOther(const Line& line) {
        if (line.text.find("<IfModule") != std::string_view::npos &&
            line.text.find(module_) != std::string_view::npos) {
            inModule_ = true;
        }
        if (inModule_ && is(module_, "perchild") && is(line.keyword, "numservers")) {
            server_.maxProcesses = number(line.value);
            inModule_ = false;
        }
    }

    void readIfDefine(std::string_view value) {
        std::size_t letters = 0;
        while (letters < value.size() && small(value[letters]) >= 'a' &&
               small(value[letters]) <= 'z') {
            ++letters;
        }
        if (letters < value.size() && value[letters] == '\n') return;
        if (!is(value.substr(0, letters), "SSL")) return;
        int open = 1;
        Line line;
        while (open > 0 && file_.next(line, kSectionLine)) {
            if (is(line.keyword, "<ifdefine")) ++open;
            if (is(line.keyword, "</ifdefine") || is(line.keyword, "</ifdefine>")) --open;
        }
    }

    void readVirtualHost(Line line) {
        std::string_view text;  // in the file, whose bytes stay
        int port = -1;
        do {
            if (is(line.keyword, "<virtualhost")) {
                readSectionAddress(line.value, text, port);
            } else if (is(line.keyword, "sslengine") && is(run(line.value), "on")) {
                const bool any = is(text, "_default_") || text == "*";
                server_.ssl.push_back(entry(port, any ? kAny : addressOf(text), text));
            } else if (is(line.keyword, "</virtualhost") || is(line.keyword, "</virtualhost>")) {
                return;
            }
        } while (file_.next(line, kSectionLine));
    }

    static void readSectionAddress(std::string_view value, std::string_view& text, int& port) {
        const std::size_t colon = value.find(':');
        if (colon == std::string_view::npos) {
            text = run(value, ">");
            port = -1;
            return;
        }
        text = value.substr(0, colon);
        const std::string_view behind = withoutBlanks(value.substr(colon + 1));
        port = !behind.empty() && behind[0] == '*' ? -1 : number(behind);
    }

    static bool holds(const std::vector<PlainAddress>& list, const PlainAddress& address) {
        return std::any_of(list.begin(), list.end(),
                           [&](const PlainAddress& other) { return other.equals(address); });
    }

    void finish() {
        std::vector<PlainAddress> ssl;
        std::vector<PlainAddress> plain;
        for (const PlainAddress& address : server_.ssl) {
            if (!holds(ssl, address)) ssl.push_back(address);
        }
        for (const PlainAddress& address : server_.plain) {
            if (!holds(plain, address) && !holds(ssl, address)) plain.push_back(address);
        }
        const auto firstTen = [](std::vector<PlainAddress>& list) {
            if (list.size() > 10) list.erase(list.begin() + 10, list.end());
        };
        firstTen(ssl);
        firstTen(plain);
        server_.ssl = std::move(ssl);
        server_.plain = std::move(plain);
    }

    const ApacheFiles& files_;
    File file_;
    PlainServer server_;
    std::string_view module_ = "NONE";
    int port_ = -1;
    bool listenSeen_ = false;
    std::uint32_t bindAddress_ = 0;
    std::string_view bindText_;
    bool inModule_ = false;
};

}  // namespace

PlainServer readApacheFiles(const ApacheFiles& files) {
    return Apache(files).read();
}

PlainServer readNetscapeFiles(std::string_view magnus) {
    PlainServer server;
    server.type = 1;
    int port = -1;
    bool ssl = false;
    PlainAddress address = {0, kAny, "*"};
    File file(magnus);
    Line line;
    while (file.next(line, kLine)) {
        if (is(line.keyword, "security") && is(run(line.value), "on")) ssl = true;
        if (is(line.keyword, "port")) port = number(line.value);
        if (is(line.keyword, "address")) {
            const std::string_view text = run(line.value);
            address = entry(0, addressOf(text), text);
        }
    }
    address.port = port;
    if (port >= 0) (ssl ? server.ssl : server.plain).push_back(address);
    return server;
}

}  // namespace tolvane::fuzz
