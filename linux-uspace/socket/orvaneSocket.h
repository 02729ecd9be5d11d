/*
 * Sockets: one name for each of the system's calls, reporting by the convention of
 * orvanePlatformResult.h. Arguments go to the call as they are; nothing is retried and nothing is
 * logged.
 */
#ifndef ORVANE_SOCKET_H
#define ORVANE_SOCKET_H

#include "orvanePlatformResult.h"

#include <poll.h>
#include <stddef.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

typedef int OV_SOCKET; /* a descriptor; negative: none */

/* TRUE for a descriptor that is none. */
static inline BOOL OV_SocketIsErr(OV_SOCKET Socket)
{
    return Socket < 0;
}

/* Other platforms start and stop a socket library here. */
static inline OV_ERR_T OV_SocketAPIInit(void)
{
    return 0;
}

/* Ends what OV_SocketAPIInit started. */
static inline void OV_SocketAPIExit(void) {}

/* Stores the descriptor only on success. */
static inline OV_ERR_T OV_Socket(int Family, int Type, int Protocol, OV_SOCKET *Socket)
{
    const OV_ERR_T Result = OV_PlatformResult(socket(Family, Type, Protocol));

    if (Result < 0) {
        return Result;
    }
    *Socket = Result;
    return 0;
}

/* bind: 0, or a negative errno value. */
static inline OV_ERR_T OV_Bind(OV_SOCKET Socket, const struct sockaddr *Addr, socklen_t AddrLen)
{
    return OV_PlatformResult(bind(Socket, Addr, AddrLen));
}

/* connect: 0, or a negative errno value; waits as long as the system does. */
static inline OV_ERR_T OV_Connect(OV_SOCKET Socket, const struct sockaddr *Addr, socklen_t AddrLen)
{
    return OV_PlatformResult(connect(Socket, Addr, AddrLen));
}

/* listen: 0, or a negative errno value. */
static inline OV_ERR_T OV_Listen(OV_SOCKET Socket, int BackLog)
{
    return OV_PlatformResult(listen(Socket, BackLog));
}

/* Stores the descriptor only on success. A child inherits it: accept has no flag for that. */
static inline OV_ERR_T OV_Accept(OV_SOCKET ListenSocket, struct sockaddr *Addr, socklen_t *AddrLen,
                                 OV_SOCKET *ClientSocket)
{
    const OV_ERR_T Result = OV_PlatformResult(accept(ListenSocket, Addr, AddrLen));

    if (Result < 0) {
        return Result;
    }
    *ClientSocket = Result;
    return 0;
}

/* These four return the bytes moved. MSG_NOSIGNAL among the Flags of a send keeps a peer that is
 * gone from ending the process. */
static inline OV_LEN_ERR_T OV_Send(OV_SOCKET Socket, const void *Buff, size_t Len, int Flags)
{
    return OV_PlatformResult(send(Socket, Buff, Len, Flags));
}

/* The bytes received; 0 when the peer has closed. */
static inline OV_LEN_ERR_T OV_Recv(OV_SOCKET Socket, void *Buff, size_t Size, int Flags)
{
    return OV_PlatformResult(recv(Socket, Buff, Size, Flags));
}

/* The bytes sent. */
static inline OV_LEN_ERR_T OV_SendTo(OV_SOCKET Socket, const void *Buff, size_t Len, int Flags,
                                     const struct sockaddr *Addr, socklen_t AddrLen)
{
    return OV_PlatformResult(sendto(Socket, Buff, Len, Flags, Addr, AddrLen));
}

/* The bytes received. */
static inline OV_LEN_ERR_T OV_RecvFrom(OV_SOCKET Socket, void *Buff, size_t Size, int Flags,
                                       struct sockaddr *Addr, socklen_t *AddrLen)
{
    return OV_PlatformResult(recvfrom(Socket, Buff, Size, Flags, Addr, AddrLen));
}

/* close: 0, or a negative errno value; the descriptor is gone in both cases. */
static inline OV_ERR_T OV_SocketClose(OV_SOCKET Socket)
{
    return OV_PlatformResult(close(Socket));
}

/* setsockopt: 0, or a negative errno value. */
static inline OV_ERR_T OV_SetSockOpt(OV_SOCKET Socket, int Level, int OptName, const void *OptVal,
                                     socklen_t OptLen)
{
    return OV_PlatformResult(setsockopt(Socket, Level, OptName, OptVal, OptLen));
}

/* These two return how many descriptors are ready. */
static inline OV_LEN_ERR_T OV_Select(int Nfds, fd_set *ReadFds, fd_set *WriteFds, fd_set *ExceptFds,
                                     struct timeval *Timeout)
{
    return OV_PlatformResult(select(Nfds, ReadFds, WriteFds, ExceptFds, Timeout));
}

/* Timeout in milliseconds, -1 for ever; 0 when it passed. */
static inline OV_LEN_ERR_T OV_Poll(struct pollfd *Fds, nfds_t Nfds, int Timeout)
{
    return OV_PlatformResult(poll(Fds, Nfds, Timeout));
}

#endif
