#include "real_calls.h"

namespace tolvane {
namespace {

template <typename... Calls>
void prepare(Calls&... calls) {
    (calls.prepare(), ...);
}

// Looks all of them up at load. Later the server may have an error text of the
// dynamic linker's to fetch, which a look-up would replace; and in a child forked
// by a server with threads the linker's lock may be held for good.
__attribute__((constructor)) void findRealCalls() {
    prepare(real_listen, real_accept, real_accept4, real_close, real_fclose, real_dup2, real_dup3,
            real_close_range, real_closefrom, real_read, real_read_chk, real_recv, real_recv_chk,
            real_recvfrom, real_recvfrom_chk, real_readv, real_recvmsg, real_write, real_send,
            real_sendto, real_writev, real_sendmsg, real_sendfile, real_sendfile64);
#ifndef __LP64__
    prepare(real_recvmsg64, real_sendmsg64);
#endif
}

}  // namespace
}  // namespace tolvane
