// Reads the type, addresses and process limit of an Apache server from the
// environment, the module info file and conf/httpd.conf.
#include <arpa/inet.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shim_utils/discovery/config_lines.h"
#include "shim_utils/discovery/port_table.h"
#include "shim_utils/discovery/server_discovery.h"
#include "shim_utils/discovery/server_path.h"
#include "shim_utils/discovery/ssl_hosts.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/text.h"
#include "tolvane/internal/shim_tables.h"
#include "tolvane/paths.h"

namespace tolvane {

namespace {

struct ApacheReader {
    bool sslMode = false;
    char module[kLineSize] = "NONE";
    int port = -1;
    bool listenSeen = false;
    std::uint32_t bindAddress = 0;
    char bindText[kLineSize] = "";
    bool inModuleSection = false;
};

int environmentNumber(const char* value) {
    long number = std::strtol(value, nullptr, 10);
    if (number > INT_MAX) return INT_MAX;
    return number < INT_MIN ? INT_MIN : static_cast<int>(number);
}

void readEnvironment(ApacheReader& reader) {
    const char* ssl = std::getenv("SSL_FACTOR");
    reader.sslMode = ssl != nullptr && !equalIgnoringCase(ssl, "start");

    const char* semaphores = std::getenv("NUM_SEMAPHORES");
    if (semaphores != nullptr) {
        numSemaphores = environmentNumber(semaphores);
    } else {
        numSemaphores = -1;
        printErrorMsg(" cannot find NUM_SEMAPHORES env-varible");
    }

    const char* interval = std::getenv("REQUEST_INTERVAL");
    if (interval != nullptr) {
        requestInterval = environmentNumber(interval);
    } else {
        printErrorMsg("cannot find REQUEST_INTERVAL env-var");
    }
}

// Every line of the info file names the module; the last line is used.
void readModuleName(ApacheReader& reader) {
    ServerPath path = serverPath(kApacheModuleFile);
    std::FILE* file = std::fopen(path.text(), "re");
    if (file == nullptr) {
        Text<1024> message;
        message.add("The file ").add(path.text()).add(" cannot be read ");
        printErrorMsg(message.text());
        return;
    }
    char line[kLineSize];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        wordValue(skipBlanks(line), reader.module);
        Text<kLineSize + 64> message;
        message.add("The apache module is ").add(reader.module).add(":");
        message.add(static_cast<int>(std::strlen(reader.module)));
        printErrorMsg(message.text());
    }
    std::fclose(file);
}

void setGeneration(const ApacheReader& reader) {
    if (equalIgnoringCase(reader.module, "NONE") || equalIgnoringCase(reader.module, "prefork")) {
        printErrorMsg("This is apache server version 1.3.x(or apache2.0 with prefork module");
    } else {
        webServerType = kApacheThreads;
        printErrorMsg("This is apache server version 2.x");
    }
}

// With SSL off, a section that depends on the definition "SSL" does not apply.
void readIfDefine(const Directive& directive, std::FILE* file) {
    const char* end = directive.value;
    while (lowerCase(*end) >= 'a' && lowerCase(*end) <= 'z') ++end;
    if (*end == '\n') return;
    char name[kLineSize];
    copyText(name, sizeof name, directive.value, static_cast<int>(end - directive.value));
    if (equalIgnoringCase(name, "SSL")) ignoreSSLdirectives(file);
}

void readListen(const Directive& directive, ApacheReader& reader) {
    const char* text = directive.value;
    const char* colon = std::strchr(text, ':');
    int length = colon != nullptr ? static_cast<int>(colon - text) : 1;
    int port = numberValue(colon != nullptr ? colon + 1 : text);
    if (colon == nullptr) text = "*";
    appendAddress(plainAddresses, port, addressValue(text, length), text, length);
    reader.listenSeen = true;
}

// Any line that no other rule matches may open the installed module's section.
void readModuleSection(const Directive& directive, const char* line, ApacheReader& reader) {
    if (std::strstr(line, "<IfModule") != nullptr && std::strstr(line, reader.module) != nullptr) {
        printErrorMsg("Type of module installed  ..");
        printErrorMsg(line);
        reader.inModuleSection = true;
    }
    if (reader.inModuleSection && equalIgnoringCase(reader.module, "perchild") &&
        keywordIs(directive, "NumServers")) {
        maxNumProcess = numberValue(directive.value);
        reader.inModuleSection = false;
    }
}

void readDirective(const Directive& directive, char* line, std::FILE* file, ApacheReader& reader) {
    if (reader.sslMode && keywordIs(directive, "<VirtualHost")) {
        getSSLWebSites(file, line);
    } else if (!reader.sslMode && keywordIs(directive, "<IfDefine")) {
        readIfDefine(directive, file);
    } else if (keywordIs(directive, "Port")) {
        reader.port = numberValue(directive.value);
    } else if (keywordIs(directive, "Listen")) {
        readListen(directive, reader);
    } else if (keywordIs(directive, "BindAddress")) {
        wordValue(directive.value, reader.bindText);
        reader.bindAddress = inet_addr(reader.bindText);
    } else if (keywordIs(directive, "MaxClients")) {
        maxNumProcess = numberValue(directive.value);
    } else {
        readModuleSection(directive, line, reader);
    }
}

// "Port" and "BindAddress" apply only in a configuration without "Listen".
void addPortEntry(const ApacheReader& reader) {
    if (reader.listenSeen || reader.port <= 0) return;
    bool bound = reader.bindAddress != 0 && reader.bindAddress != kAnyAddress;
    const char* text = bound ? reader.bindText : "*";
    appendAddress(plainAddresses, reader.port, bound ? reader.bindAddress : kAnyAddress, text,
                  static_cast<int>(std::strlen(text)));
}

}  // namespace

void getApacheConfigInfo() {
    ApacheReader reader;
    readEnvironment(reader);
    readModuleName(reader);
    setGeneration(reader);

    std::FILE* file = std::fopen(serverPath(kApacheConfigurationFile).text(), "re");
    if (file == nullptr) {
        printErrorMsg("Could not open Apache config file!");
        return;
    }
    char line[kLineSize];
    Directive directive;
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (scanLine(line, directive)) readDirective(directive, line, file, reader);
    }
    std::fclose(file);

    addPortEntry(reader);
    fillPortTables();
}

}  // namespace tolvane
