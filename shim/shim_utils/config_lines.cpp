#include "config_lines.h"

#include <arpa/inet.h>

#include <climits>
#include <cstring>

#include "log.h"
#include "text.h"

namespace tolvane {

const char* skipBlanks(const char* text) {
    while (isSpace(*text)) ++text;
    return text;
}

int wordLength(const char* text) {
    const char* end = text;
    while (*end != '\0' && !isSpace(*end)) ++end;
    return static_cast<int>(end - text);
}

bool scanLine(const char* line, Directive& directive) {
    directive.keyword = skipBlanks(line);
    directive.keywordLength = wordLength(directive.keyword);
    directive.value = skipBlanks(directive.keyword + directive.keywordLength);
    return directive.keywordLength > 0 && *directive.keyword != '#';
}

bool keywordIs(const Directive& directive, const char* name) {
    int i = 0;
    for (; i < directive.keywordLength && name[i] != '\0'; ++i) {
        if (lowerCase(directive.keyword[i]) != lowerCase(name[i])) return false;
    }
    return i == directive.keywordLength && name[i] == '\0';
}

int numberValue(const char* text) {
    int value = 0;
    for (; isDigit(*text); ++text) {
        int digit = *text - '0';
        if (value > (INT_MAX - digit) / 10) return INT_MAX;
        value = value * 10 + digit;
    }
    return value;
}

bool equalIgnoringCase(const char* a, const char* b) {
    for (; *a != '\0' && lowerCase(*a) == lowerCase(*b); ++a, ++b) {
    }
    return *a == *b;
}

void copyText(char* to, int size, const char* text, int length) {
    int kept = length < size ? length : size - 1;
    std::memcpy(to, text, static_cast<std::size_t>(kept));
    to[kept] = '\0';
}

std::uint32_t addressValue(const char* text, int length) {
    char whole[kLineSize];
    copyText(whole, sizeof whole, text, length);
    return inet_addr(whole);
}

void appendAddress(PortTable& table, int port, std::uint32_t address, const char* text, int length,
                   const char* kind) {
    int n = table.numHttpPort;
    char name[kAddressNameSize];
    copyText(name, sizeof name, text, length);
    if (n == kMaxAddresses) {
        Text<256> message;
        message.add("No room for another ").add(kind).add(" address: ").add(name).add(":");
        message.add(port).add(" is not measured");
        printErrorMsg(message.text());
        return;
    }
    table.httpPort[n] = port;
    table.ipAddress[n] = address;
    std::memcpy(table.ipAddressName[n], name, sizeof name);
    table.numHttpPort = n + 1;
}

}  // namespace tolvane
