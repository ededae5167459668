// The heading and the notes above the counts of a sample.
#pragma once

#include <string>
#include <vector>

#include "counts/counts.h"

namespace tolvane::agent {

std::string serverHeading(const Server& server, const Sample& sample);
std::vector<std::string> sampleNotes(const Server& server, const Sample& sample);

}  // namespace tolvane::agent
