// Makes configuration blocks from the bytes of an input: mostly sensible ones of
// few letters, so that much matches, but any count, length or text is possible.
#pragma once

#include <string>

#include "fuzzing.h"
#include "tolvane/segment_format.h"

namespace tolvane::fuzz {

// Fills `block`, which is all zero.
void decodeBlock(Input& input, ConfigInfo& block);

// Makes a bounded block that was decoded all zero again.
void clearBlock(ConfigInfo& block);

// A URL or Host value out of the same letters, and of the first site's pieces
// or names.
std::string decodeUrl(Input& input, const ConfigInfo& block);
std::string decodeHost(Input& input, const ConfigInfo& block);

}  // namespace tolvane::fuzz
