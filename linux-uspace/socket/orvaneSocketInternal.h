/*
 * What the clients of the services on this machine share: connecting, and whole messages over the
 * stream.
 *
 * One loop sends all of the bytes and receives exactly so many, whatever portions the system moves.
 * The callers differ in which errors they repeat, so that is theirs to say: Retry(Error) gets each
 * negative result and answers true to go on at once, and may log. It is not asked about a result of
 * 0, which always ends the loop.
 *
 *   result > 0        all of the bytes moved (also when there were none to move)
 *   result 0          end of stream, or a send that took nothing
 *   result negative   the error that Retry refused
 *
 * Some of the bytes may have moved before a failure. All of it are cancellation points.
 */
#ifndef ORVANE_SOCKET_INTERNAL_H
#define ORVANE_SOCKET_INTERNAL_H

#include "orvaneSocket.h"

#include <netinet/in.h>

/* A connection to Server, which may have turned out to be one to itself: where nobody listens on a
 * port of this machine, and it lies in the range that connections take theirs from, the system may
 * give the caller that very port and join the two ends. What was sent would come back as its own
 * reply, and the service could not start. That is no server. */
static inline OV_ERR_T _OV_SocketConnect(OV_SOCKET Socket, const struct sockaddr_in &Server)
{
    struct sockaddr_in Own = {};
    socklen_t OwnLength = sizeof(Own);
    const OV_ERR_T Error =
        OV_Connect(Socket, reinterpret_cast<const struct sockaddr *>(&Server), sizeof(Server));

    if (Error < 0) {
        return Error;
    }
    getsockname(Socket, reinterpret_cast<struct sockaddr *>(&Own), &OwnLength);
    if (Own.sin_port != Server.sin_port || Own.sin_addr.s_addr != Server.sin_addr.s_addr) {
        return 0;
    }
    /* Closed without the usual wait, which would keep the service from its port for a minute. */
    const struct linger AtOnce = {1, 0};
    OV_SetSockOpt(Socket, SOL_SOCKET, SO_LINGER, &AtOnce, sizeof(AtOnce));
    return -ECONNREFUSED;
}

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
