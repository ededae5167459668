// Limits of the shim that an agent needs.
#pragma once

namespace tolvane {

// Capacity of each of the two tables of listening addresses, plain and SSL.
inline constexpr int kMaxAddresses = 10;

}  // namespace tolvane
