#include "shim_utils/discovery/ssl_hosts.h"

#include <arpa/inet.h>

#include <cstring>

#include "shim_utils/discovery/config_lines.h"
#include "shim_utils/discovery/port_table.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

constexpr int kSectionLineSize = 1024;

struct SectionAddress {
    char text[kLineSize];
    int port;
};

// Only the first address of the opening line is used.
void readSectionAddress(const char* value, SectionAddress& address) {
    const char* colon = std::strchr(value, ':');
    if (colon != nullptr) {
        copyText(address.text, sizeof address.text, value, static_cast<int>(colon - value));
        const char* port = skipBlanks(colon + 1);
        address.port = *port == '*' ? kAnyPort : numberValue(port);
        return;
    }
    int length = 0;
    while (length < wordLength(value) && value[length] != '>') ++length;
    copyText(address.text, sizeof address.text, value, length);
    address.port = kAnyPort;
}

bool closes(const Directive& directive, const char* bare, const char* whole) {
    return keywordIs(directive, bare) || keywordIs(directive, whole);
}

}  // namespace

void addSSLIpAddress(int port, const char* text) {
    bool wildcard = equalIgnoringCase(text, "_default_") || equalIgnoringCase(text, "*");
    appendAddress(sslAddresses, port, wildcard ? kAnyAddress : inet_addr(text), text,
                  static_cast<int>(std::strlen(text)));
}

void getSSLWebSites(std::FILE* stream, char* line) {
    SectionAddress address = {"", kAnyPort};
    Directive directive;
    do {
        if (!scanLine(line, directive)) continue;
        if (keywordIs(directive, "<VirtualHost")) {
            readSectionAddress(directive.value, address);
        } else if (keywordIs(directive, "SSLEngine")) {
            char word[kLineSize];
            wordValue(directive.value, word);
            if (equalIgnoringCase(word, "on")) addSSLIpAddress(address.port, address.text);
        } else if (closes(directive, "</VirtualHost", "</VirtualHost>")) {
            return;
        }
    } while (std::fgets(line, kSectionLineSize, stream) != nullptr);
}

void ignoreSSLdirectives(std::FILE* stream) {
    int opened = 1;
    int closed = 0;
    char line[kSectionLineSize];
    Directive directive;
    while (std::fgets(line, sizeof line, stream) != nullptr) {
        if (!scanLine(line, directive)) continue;
        if (keywordIs(directive, "<IfDefine")) ++opened;
        if (closes(directive, "</IfDefine", "</IfDefine>") && ++closed == opened) return;
    }
}

}  // namespace tolvane
