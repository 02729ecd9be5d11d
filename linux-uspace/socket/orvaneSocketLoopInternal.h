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

/* Move(Done, Left) is one call of the system's. */
template <typename MOVE, typename RETRY>
static inline OV_LEN_ERR_T _OV_SocketMoveAll(size_t Size, RETRY Retry, MOVE Move)
{
    for (size_t Done = 0; Done < Size;) {
        const OV_LEN_ERR_T Result = Move(Done, Size - Done);

        if (Result > 0) {
            Done += static_cast<size_t>(Result);
        } else if (Result == 0 || !Retry(Result)) {
            return Result;
        }
    }
    return 1;
}

/* A peer that is gone gives -EPIPE and no signal. */
template <typename RETRY>
static inline OV_LEN_ERR_T _OV_SocketSendAll(OV_SOCKET Socket, const void *Data, size_t Size,
                                             RETRY Retry)
{
    return _OV_SocketMoveAll(Size, Retry, [&](size_t Done, size_t Left) {
        return OV_Send(Socket, static_cast<const char *>(Data) + Done, Left, MSG_NOSIGNAL);
    });
}

/* Only bytes that arrive are written to Buffer. */
template <typename RETRY>
static inline OV_LEN_ERR_T _OV_SocketReceiveExactly(OV_SOCKET Socket, void *Buffer, size_t Size,
                                                    RETRY Retry)
{
    return _OV_SocketMoveAll(Size, Retry, [&](size_t Done, size_t Left) {
        return OV_Recv(Socket, static_cast<char *>(Buffer) + Done, Left, 0);
    });
}

#endif
