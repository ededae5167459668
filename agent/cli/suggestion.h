// The known word that a mistyped word resembles.
#pragma once

#include <string>
#include <vector>

namespace tolvane::agent {

// "; did you mean 'list'?", or an empty text if no word is similar.
std::string suggestionFor(const std::string& typed, const std::vector<std::string>& known);

}  // namespace tolvane::agent
