// Writing beside the server: what goes wrong there must not reach it.
#pragma once

struct iovec;

namespace tolvane {

// Writes the vector with one bare call. A broken pipe or a file at the limit of
// its size raises no signal in the server, whose signals and their mask stay as
// they are. What cannot be written is dropped.
void writeQuietly(int fd, const iovec* vector, int count);

}  // namespace tolvane
