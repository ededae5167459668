// The listening addresses of the server's configuration: lists of them, the port
// tables filled from the lists, and the lookup of a socket.
#pragma once

#include <cstdint>

#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// The address that a socket is bound to.
struct SocketAddress {
    int port;               // host byte order
    std::uint32_t address;  // network byte order; 0: all addresses
};

// The IPv4 address in the first `length` characters of `text`, in network byte
// order; kAnyAddress if they are not an address.
std::uint32_t addressValue(const char* text, int length);

// Appends an entry to `list`, with the first `length` characters of `text` as its
// name, unless `list` contains an equal port and address. A full list does not
// change, and a log line names the entry.
void appendAddress(AddressList& list, int port, std::uint32_t address, const char* text,
                   int length);

// Fills plainPorts and sslPorts with the first ten entries of each list. An
// address in both lists counts as SSL only. For each address without a table
// entry, a log line states whether it is measured.
void fillPortTables();

// Whether an entry of `table` matches a socket bound to `socket`.
bool tableMatches(const PortTable& table, const SocketAddress& socket);

// Whether `socket` is bound to an SSL address for which sslPorts had no room. Such
// a socket is not measured, even if plainPorts matches it.
bool isSslWithoutEntry(const SocketAddress& socket);

}  // namespace tolvane
