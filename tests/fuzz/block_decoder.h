// Makes configuration blocks from the bytes of an input: mostly sensible ones of
// few letters, so that much matches, but any count, length or text is possible.
#pragma once

#include <string>

#include "fuzzing.h"
#include "tolvane/segment_format.h"

namespace tolvane::fuzz {

// Fills `block`. Labels have no end, since no code may read them.
void decodeBlock(Input& input, ConfigInfo& block);

// A URL or Host value out of the same letters, and of the first site's pieces
// or names. It stays until the next one is decoded.
const std::string& decodeUrl(Input& input, const ConfigInfo& block);
const std::string& decodeHost(Input& input, const ConfigInfo& block);

}  // namespace tolvane::fuzz
