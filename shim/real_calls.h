// The real functions of all interposed calls, each defined beside its wrapper.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstdio>

#include "real_call.h"

namespace tolvane {

extern RealCall<int(int, int)> real_listen;

using AcceptCall = int(int, sockaddr*, socklen_t*);
using Accept4Call = int(int, sockaddr*, socklen_t*, int);
extern RealCall<AcceptCall> real_accept;
extern RealCall<Accept4Call> real_accept4;

extern RealCall<int(int)> real_close;
extern RealCall<int(FILE*)> real_fclose;
extern RealCall<int(int, int)> real_dup2;
extern RealCall<int(int, int, int)> real_dup3;
extern RealCall<int(unsigned, unsigned, int)> real_close_range;
extern RealCall<void(int)> real_closefrom;

extern RealCall<ssize_t(int, void*, size_t)> real_read;
extern RealCall<ssize_t(int, void*, size_t, size_t)> real_read_chk;
extern RealCall<ssize_t(int, void*, size_t, int)> real_recv;
extern RealCall<ssize_t(int, void*, size_t, size_t, int)> real_recv_chk;
extern RealCall<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> real_recvfrom;
extern RealCall<ssize_t(int, void*, size_t, size_t, int, sockaddr*, socklen_t*)> real_recvfrom_chk;
extern RealCall<ssize_t(int, const iovec*, int)> real_readv;
using RecvmsgCall = ssize_t(int, msghdr*, int);
extern RealCall<RecvmsgCall> real_recvmsg;

extern RealCall<ssize_t(int, const void*, size_t)> real_write;
extern RealCall<ssize_t(int, const void*, size_t, int)> real_send;
extern RealCall<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> real_sendto;
extern RealCall<ssize_t(int, const iovec*, int)> real_writev;
using SendmsgCall = ssize_t(int, const msghdr*, int);
extern RealCall<SendmsgCall> real_sendmsg;
// A void pointer, because the offset's width does not matter here.
extern RealCall<ssize_t(int, int, void*, size_t)> real_sendfile;
extern RealCall<ssize_t(int, int, void*, size_t)> real_sendfile64;

#ifndef __LP64__
// A 32-bit program built for 64-bit times calls these instead of recvmsg and sendmsg.
extern RealCall<RecvmsgCall> real_recvmsg64;
extern RealCall<SendmsgCall> real_sendmsg64;
#endif

}  // namespace tolvane
