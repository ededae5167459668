#pragma once

#include <cstddef>
#include <string>

#include "tolvane/segment_format.h"

// Host name of the last name of the last site of fullestConfiguration.
inline constexpr char kLastHost[] = "host5.of-site9.example.com";

// Fills every capacity of the block: 10 sites of 7 names, each with 15
// categories of 6 sections of 6 pieces.
void fullestConfiguration(tolvane::ConfigInfo& config);

// A URL that one category of that site matches, and one of `length` bytes that
// matches nothing but holds every pair of neighbouring bytes that a pattern
// holds, and little but beginnings of pieces.
inline constexpr char kMatchingUrl[] =
    "/part0-9db/part1-9db/part2-9db/part3-9db/part4-9db/part5-9db?page=4";
std::string hostileUrl(std::size_t length);

// The text again and again, up to `length` bytes.
std::string repeated(const std::string& text, std::size_t length);

// Every site with 90 patterns of the kinds that people write.
void usualConfiguration(tolvane::ConfigInfo& config);

// The last site with 90 patterns whose second pieces end with each other, and
// whose first one hardly a URL has.
void nestedConfiguration(tolvane::ConfigInfo& config);

// One site, of name kLastHost, with one category of one section, "/shop*".
void smallConfiguration(tolvane::ConfigInfo& config);
