// Filling the tables of addresses on which the server listens.
#pragma once

#include <cstdint>

#include "tolvane/shim_tables.h"

namespace tolvane {

// The IPv4 address of the first `length` characters of `text`, in network byte
// order; kAnyAddress when they are none.
std::uint32_t addressValue(const char* text, int length);

// Appends (port, address, the first `length` characters of `text` as name).
// A table that is full stays as it is, with a log line that names the entry;
// `kind` is that line's word for the table.
void appendAddress(PortTable& table, int port, std::uint32_t address, const char* text, int length,
                   const char* kind);

}  // namespace tolvane
