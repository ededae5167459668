#include "shim_utils/discovery/config_lines.h"

#include <cstring>

#include "shim_utils/platform/text.h"

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
    return numberAt(text, text + std::strlen(text));
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

}  // namespace tolvane
