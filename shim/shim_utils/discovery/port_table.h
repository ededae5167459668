// The addresses on which the server's configuration makes it listen: collecting
// them, filling the port tables from them, and looking a socket up.
#pragma once

#include <cstdint>

#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// The address that a socket is bound to.
struct SocketAddress {
    int port;               // host byte order
    std::uint32_t address;  // network byte order; 0: all addresses
};

// The IPv4 address of the first `length` characters of `text`, in network byte
// order; kAnyAddress when they are not an address.
std::uint32_t addressValue(const char* text, int length);

// Appends (port, address, the first `length` characters of `text` as name)
// unless `list` holds an equal port and address. A list that is full stays as
// it is, with a log line that names the entry.
void appendAddress(AddressList& list, int port, std::uint32_t address, const char* text,
                   int length);

// Fills plainPorts and sslPorts with the first ten entries of each list. An
// address in both lists counts as SSL only. An address without a table entry
// gets a log line that says what happens to it.
void fillPortTables();

// Whether a socket bound to `socket` is one of those in `table`.
bool tableMatches(const PortTable& table, const SocketAddress& socket);

// Whether `socket` is bound to an SSL address that found no room in sslPorts:
// it is not measured, whatever plainPorts says.
bool isSslWithoutEntry(const SocketAddress& socket);

}  // namespace tolvane
