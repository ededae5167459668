#include "real_calls.h"

namespace tolvane {
namespace {

template <typename... Calls>
void prepare(Calls&... calls) {
    (calls.prepare(), ...);
}

// Looks all calls up at load. A later lookup could replace an error text of the
// dynamic linker that the server has not read yet, and in a child forked by a
// threaded server the linker's lock may be held forever.
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
