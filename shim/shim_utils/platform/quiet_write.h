// Writing in a server's process without a signal on failure.
#pragma once

struct iovec;

namespace tolvane {

// Writes the vector with one bare call. A broken pipe or a file at its size limit
// raises no signal in the server. The server's pending signals and signal mask do
// not change. Data that cannot be written are dropped.
void writeQuietly(int fd, const iovec* vector, int count);

}  // namespace tolvane
