// Limits of the shim that an agent has to know.
#pragma once

namespace tolvane {

// Entries of each of the two tables, plain and SSL, of listening addresses.
inline constexpr int kMaxAddresses = 10;

}  // namespace tolvane
