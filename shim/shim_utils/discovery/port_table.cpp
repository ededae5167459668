#include "shim_utils/discovery/port_table.h"

#include <arpa/inet.h>

#include <cstring>

#include "shim_utils/discovery/config_lines.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

namespace {

using Message = Text<256>;

bool contains(const AddressList& list, int port, std::uint32_t address) {
    for (int i = 0; i < list.count; ++i) {
        if (list.port[i] == port && list.address[i] == address) return true;
    }
    return false;
}

bool entryMatches(int port, std::uint32_t address, const SocketAddress& socket) {
    bool sameAddress = address == socket.address || address == kAnyAddress;
    if (port == kAnyPort) return sameAddress;
    return port == socket.port && (sameAddress || socket.address == 0);
}

void addEntry(PortTable& table, const AddressList& list, int i) {
    int n = table.numHttpPort++;
    table.httpPort[n] = list.port[i];
    table.ipAddress[n] = list.address[i];
    std::memcpy(table.ipAddressName[n], list.name[i], kAddressNameSize);
}

// The address that the server's socket for entry `i` is bound to.
SocketAddress boundAddress(const AddressList& list, int i) {
    const char* name = list.name[i];
    bool all = equalIgnoringCase(name, "*") || equalIgnoringCase(name, "_default_");
    return {list.port[i], all ? 0 : list.address[i]};
}

// Logs that the table of its kind has no room for entry `i` of `list`.
void logWithoutEntry(const AddressList& list, int i, const char* kind) {
    // Another entry may match its socket.
    SocketAddress socket = boundAddress(list, i);
    bool covered =
        tableMatches(sslPorts, socket) || (&list == &plainAddresses && !isSslWithoutEntry(socket) &&
                                           tableMatches(plainPorts, socket));
    Message message;
    message.add("No room for another ").add(kind).add(" address: ").add(list.name[i]).add(":");
    message.add(list.port[i]);
    message.add(covered ? " is measured through another entry" : " is not measured");
    printErrorMsg(message.text());
}

// Fills `table` from `list` without the entries that `other` also contains.
void fillTable(PortTable& table, const AddressList& list, const AddressList* other,
               const char* kind) {
    table.numHttpPort = 0;
    for (int i = 0; i < list.count; ++i) {
        if (other != nullptr && contains(*other, list.port[i], list.address[i])) continue;
        if (table.numHttpPort < kMaxAddresses) {
            addEntry(table, list, i);
        } else {
            logWithoutEntry(list, i, kind);
        }
    }
}

}  // namespace

std::uint32_t addressValue(const char* text, int length) {
    char whole[kLineSize];
    copyText(whole, sizeof whole, text, length);
    return inet_addr(whole);
}

void appendAddress(AddressList& list, int port, std::uint32_t address, const char* text,
                   int length) {
    if (contains(list, port, address)) return;
    char name[kAddressNameSize];
    copyText(name, sizeof name, text, length);
    if (list.count == AddressList::kCapacity) {
        Message message;
        message.add("More addresses than the configuration reader holds: ").add(name).add(":");
        message.add(port).add(" is not measured");
        printErrorMsg(message.text());
        return;
    }
    int n = list.count++;
    list.port[n] = port;
    list.address[n] = address;
    std::memcpy(list.name[n], name, sizeof name);
}

void fillPortTables() {
    fillTable(sslPorts, sslAddresses, nullptr, "SSL");
    fillTable(plainPorts, plainAddresses, &sslAddresses, "listening");
}

bool tableMatches(const PortTable& table, const SocketAddress& socket) {
    for (int i = 0; i < table.numHttpPort; ++i) {
        if (entryMatches(table.httpPort[i], table.ipAddress[i], socket)) return true;
    }
    return false;
}

bool isSslWithoutEntry(const SocketAddress& socket) {
    for (int i = kMaxAddresses; i < sslAddresses.count; ++i) {
        if (entryMatches(sslAddresses.port[i], sslAddresses.address[i], socket)) return true;
    }
    return false;
}

}  // namespace tolvane
