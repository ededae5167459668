// What a server's configuration files say about its addresses and processes,
// read word by word into lists of any length: the reference for the readers.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace tolvane::fuzz {

struct PlainAddress {
    int port;
    std::uint32_t address;
    std::string_view name;  // in the file

    bool equals(const PlainAddress& other) const {
        return port == other.port && address == other.address;
    }
};

struct PlainServer {
    int type = 0;
    int maxProcesses = 1;
    std::vector<PlainAddress> plain;  // of the tables: without duplicates, ten at most
    std::vector<PlainAddress> ssl;
};

PlainServer readNetscapeFiles(std::string_view magnus);

struct ApacheFiles {
    bool sslMode;
    bool hasModuleInfo;
    std::string_view moduleInfo;
    std::string_view conf;
};
PlainServer readApacheFiles(const ApacheFiles& files);

}  // namespace tolvane::fuzz
