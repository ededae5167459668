#pragma once

#include "tolvane/segment_format.h"

// Host name of the last name of the last site of fullestConfiguration.
inline constexpr char kLastHost[] = "host5.of-site9.example.com";

// Fills every capacity of the block: 10 sites of 7 names, each with 15
// categories of 6 sections of 6 pieces.
void fullestConfiguration(tolvane::ConfigInfo& config);

// One site, of name kLastHost, with one category of one section, "/shop*".
void smallConfiguration(tolvane::ConfigInfo& config);
