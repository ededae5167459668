#include "port_table.h"

#include <arpa/inet.h>

#include <cstring>

#include "config_lines.h"
#include "log.h"
#include "text.h"

namespace tolvane {

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
