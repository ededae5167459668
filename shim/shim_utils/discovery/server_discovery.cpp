#include "shim_utils/discovery/server_discovery.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shim_utils/discovery/config_lines.h"
#include "shim_utils/discovery/port_table.h"
#include "shim_utils/discovery/server_path.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/text.h"
#include "tolvane/internal/shim_tables.h"
#include "tolvane/paths.h"

namespace tolvane {

namespace {

int discoveryCalls = 0;

void readNetscapeFile(std::FILE* file) {
    int port = -1;
    bool ssl = false;
    char word[kLineSize];
    char address[kLineSize] = "*";
    std::uint32_t addressNumber = kAnyAddress;

    char line[kLineSize];
    Directive directive;
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (!scanLine(line, directive)) continue;
        if (keywordIs(directive, "Security")) {
            wordValue(directive.value, word);
            if (equalIgnoringCase(word, "on")) {
                printErrorMsg("This is a SSL NETSCAPE server");
                ssl = true;
            }
        } else if (keywordIs(directive, "Port")) {
            port = numberValue(directive.value);
        } else if (keywordIs(directive, "Address")) {
            wordValue(directive.value, address);
            addressNumber = inet_addr(address);
        }
    }
    if (port < 0) {
        printErrorMsg("Could not find port no for Netscape Server");
        return;
    }
    appendAddress(ssl ? sslAddresses : plainAddresses, port, addressNumber, address,
                  static_cast<int>(std::strlen(address)));
    fillPortTables();
}

// False if the root is too long. No file under it could be opened.
bool setRootDir(const char* root) {
    std::size_t length = std::strlen(root);
    if (length + 2 > sizeof rootDir) return false;
    std::memcpy(rootDir, root, length + 1);
    if (length == 0 || root[length - 1] != '/') std::memcpy(rootDir + length, "/", 2);
    return true;
}

void readWayOfCounting() {
    const char* way = std::getenv("TOLVANE_COUNTING");
    if (way == nullptr || std::strcmp(way, "calls") == 0) return;
    countsMessages = std::strcmp(way, "messages") == 0;
    if (countsMessages) return;
    Text<256> message;
    message.add("Environment variable TOLVANE_COUNTING is neither calls nor messages but ");
    message.add(way).add(": socket calls are counted");
    printErrorMsg(message.text());
}

}  // namespace

void getNetscapeConfigInfo() {
    ServerPath path = serverPath(kNetscapeConfigurationFile);
    std::FILE* file = std::fopen(path.text(), "re");
    if (file == nullptr) {
        Text<1024> message;
        message.add("Config  file ").add(path.text()).add(" cannot be opened ");
        printErrorMsg(message.text());
        return;
    }
    readNetscapeFile(file);
    std::fclose(file);
}

void getWebServerInfo() {
    if (discoveryCalls > 0) return;
    discoveryCalls = 1;

    const char* server = std::getenv("WEB_SERVER");
    if (server == nullptr) {
        printErrorMsg("Error: Environment variable WEB_SERVER not defined");
        return;
    }
    if (equalIgnoringCase(server, "apache")) webServerType = kApacheProcesses;
    if (equalIgnoringCase(server, "netscape")) webServerType = kNetscape;

    readWayOfCounting();
    const char* root = std::getenv("WEB_SERVER_ROOT");
    if (root == nullptr) {
        printErrorMsg("Error: Environment variable WEB_SERVER_ROOT not defined");
        return;
    }
    if (!setRootDir(root)) {
        printErrorMsg("Error: Environment variable WEB_SERVER_ROOT is too long for a path");
        return;
    }
    if (webServerType == kNetscape) {
        getNetscapeConfigInfo();
    } else {
        getApacheConfigInfo();
    }
}

}  // namespace tolvane
