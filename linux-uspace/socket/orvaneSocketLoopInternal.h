/*
 * Whole messages over a stream socket: one loop that sends all of the bytes and one that receives
 * exactly so many, whatever portions the system moves. The callers differ in which errors they
 * repeat, so that is theirs to say: Retry(Error) gets each negative result and answers true to go
 * on at once, and may log. It is not asked about a result of 0, which always ends the loop.
 *
 *   result > 0        all of the bytes moved (also when there were none to move)
 *   result 0          end of stream, or a send that took nothing
 *   result negative   the error that Retry refused
 *
 * Some of the bytes may have moved before a failure. Both calls are cancellation points.
 */
#ifndef ORVANE_SOCKET_LOOP_INTERNAL_H
#define ORVANE_SOCKET_LOOP_INTERNAL_H

#include "orvaneSocket.h"

/* A peer that is gone gives -EPIPE and no signal. */
template <typename RETRY>
static inline OV_LEN_ERR_T _OV_SocketSendAll(OV_SOCKET Socket, const void *Data, size_t Size,
                                             RETRY Retry)
{
    const char *Next = static_cast<const char *>(Data);

    while (Size > 0) {
        const OV_LEN_ERR_T Result = OV_Send(Socket, Next, Size, MSG_NOSIGNAL);

        if (Result > 0) {
            Next += Result;
            Size -= static_cast<size_t>(Result);
        } else if (Result == 0 || !Retry(Result)) {
            return Result;
        }
    }
    return 1;
}

/* Only bytes that arrive are written to Buffer. */
template <typename RETRY>
static inline OV_LEN_ERR_T _OV_SocketReceiveExactly(OV_SOCKET Socket, void *Buffer, size_t Size,
                                                    RETRY Retry)
{
    char *Next = static_cast<char *>(Buffer);

    while (Size > 0) {
        const OV_LEN_ERR_T Result = OV_Recv(Socket, Next, Size, 0);

        if (Result > 0) {
            Next += Result;
            Size -= static_cast<size_t>(Result);
        } else if (Result == 0 || !Retry(Result)) {
            return Result;
        }
    }
    return 1;
}

#endif
