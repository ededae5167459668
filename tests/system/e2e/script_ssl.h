// The commands of the script server that use TLS libraries.
#pragma once

#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

extern std::string received;  // by the last receive call
std::string fromHex(const std::string& hex);

// Arguments: the library ("3" or "11"), a descriptor, where the object reads and "s" of a
// server or "c". Returns the number of the new object.
long newSslObject(const Arguments& arguments);

// Arguments: the call, the object, and the size of a buffer or, for a call that sends, its
// bytes.
long callSsl(const Arguments& arguments);

// Connects two descriptors, which the reply names.
long makePair(const Arguments& arguments);
