// A configuration block within the capacities of the format: the reference for
// how the shim bounds it.
#pragma once

#include "tolvane/segment_format.h"

namespace tolvane::fuzz {

// Bounds `block` as plainly as possible. Returns whether anything was out of range.
bool boundPlainly(ConfigInfo& block);

// Whether two bounded blocks hold the same, as far as their counts go.
bool sameAsFarAsUsed(const ConfigInfo& a, const ConfigInfo& b);

}  // namespace tolvane::fuzz
