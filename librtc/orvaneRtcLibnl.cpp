#include "orvaneRtcLibnl.h"

#include "orvaneRtcLibnlInternal.h"

#include <algorithm>
#include <errno.h>
#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

/* For a libnl error that has no counterpart; outside the range of errno. */
static constexpr OV_ERR_T UNKNOWN_NL_ERROR = -254;

/* A connected socket, for a forked child to close. */
struct LIBNL_SOCKET {
    int Descriptor;
    uint32_t Port;   /* tells it from another one that got the number */
    pthread_t Owner; /* 0: no thread's */
};

static LIBNL_SOCKET *s_OpenSockets; /* all of it under s_LibNlLock */
static size_t s_OpenCount;
static size_t s_OpenRoom;

/* A child takes nothing from what its parent waits for. */
static void _CloseParentsSockets()
{
    for (size_t Index = 0; Index < s_OpenCount; Index++) {
        struct sockaddr_nl Local = {};
        socklen_t Length = sizeof(Local);
        const LIBNL_SOCKET &Open = s_OpenSockets[Index];

        if (Open.Owner != pthread_self() &&
            getsockname(Open.Descriptor, reinterpret_cast<struct sockaddr *>(&Local), &Length) ==
                0 &&
            Local.nl_family == AF_NETLINK && Local.nl_pid == Open.Port) {
            close(Open.Descriptor);
        }
    }
    s_OpenCount = 0;
}

/* Held by whoever is where libnl takes a lock of its own: connecting and freeing sockets, the cache
 * manager, and renderings, which ask that for the names of links. */
static constinit FORK_MUTEX s_LibNlLock(FORK_RANK_LIBNL, HELD_FOR_A_MOMENT, _CloseParentsSockets);

/* Where a rendering prints to. The stream is opened by the first one and stays: it is faster than
 * libnl's own buffer, but not if each text opened one. All of it under s_LibNlLock. */
static struct {
    FILE *Stream;
    char StreamBuffer[LIBNL_TEXT_SIZE];
    char *Text; /* the caller's, LIBNL_TEXT_SIZE bytes, zeroed */
    size_t Length;
} s_Rendering;

struct NL_ERROR {
    int NlError;
    OV_ERR_T Error;
};

static constexpr NL_ERROR NL_ERRORS[] = {
    {NLE_INTR, -EINTR},
    {NLE_BAD_SOCK, -EBADF},
    {NLE_AGAIN, -EAGAIN},
    {NLE_NOMEM, -ENOMEM},
    {NLE_EXIST, -EEXIST},
    {NLE_INVAL, -EINVAL},
    {NLE_RANGE, -ERANGE},
    {NLE_MSGSIZE, -EMSGSIZE},
    {NLE_OPNOTSUPP, -EOPNOTSUPP},
    {NLE_AF_NOSUPPORT, -EAFNOSUPPORT},
    {NLE_OBJ_NOTFOUND, -ENOENT},
    {NLE_NOATTR, -EINVAL},
    {NLE_MISSING_ATTR, -EINVAL},
    {NLE_AF_MISMATCH, -EINVAL},
    {NLE_SEQ_MISMATCH, -EINVAL},
    {NLE_MSG_OVERFLOW, -EOVERFLOW},
    {NLE_MSG_TRUNC, -EOVERFLOW},
    {NLE_NOADDR, -ENOENT},
    {NLE_SRCRT_NOSUPPORT, -EPROTONOSUPPORT},
    {NLE_MSG_TOOSHORT, -EINVAL},
    {NLE_MSGTYPE_NOSUPPORT, -EPROTONOSUPPORT},
    {NLE_OBJ_MISMATCH, -EINVAL},
    {NLE_NOCACHE, -ENODATA},
    {NLE_BUSY, -EBUSY},
    {NLE_PROTO_MISMATCH, -EPROTONOSUPPORT},
    {NLE_NOACCESS, -EACCES},
    {NLE_PERM, -EPERM},
    {NLE_NODEV, -ENODEV},
};

OV_ERR_T OV_RTCLibNlSockAlloc(struct nl_sock **nlSock)
{
    NL_SOCK_SCOPE Sock(nl_socket_alloc());

    if (!Sock) {
        OV_LOG_ERROR("nl_socket_alloc failed(ret = %d).", -ENOMEM);
        return -ENOMEM;
    }
    const int NlError = _OV_RTCLibNlConnect(Sock.get(), NETLINK_ROUTE, OWNED_BY_THREAD);
    if (NlError < 0) {
        const OV_ERR_T Error = OV_RTCTranslateNlError(NlError);
        OV_LOG_ERROR("nl_connect failed(ovRet = %d nlRet = %d(%s))", Error, NlError,
                     nl_geterror(NlError));
        return Error;
    }
    *nlSock = Sock.release();
    return 0;
}

/* Without memory a child does not learn of the socket, and has it open. */
static void _NoteOpen(const struct nl_sock *Sock, LIBNL_OWNER Owner)
{
    if (s_OpenCount == s_OpenRoom) {
        const size_t Room = s_OpenRoom * 2 + 8;
        void *Grown = realloc(s_OpenSockets, Room * sizeof(*s_OpenSockets));

        if (Grown == nullptr) {
            return;
        }
        s_OpenSockets = static_cast<LIBNL_SOCKET *>(Grown);
        s_OpenRoom = Room;
    }
    s_OpenSockets[s_OpenCount++] = {nl_socket_get_fd(Sock), nl_socket_get_local_port(Sock),
                                    Owner == OWNED_BY_THREAD ? pthread_self() : 0};
}

static void _NoteClosed(int Descriptor)
{
    for (size_t Index = 0; Index < s_OpenCount; Index++) {
        if (s_OpenSockets[Index].Descriptor == Descriptor) {
            s_OpenSockets[Index] = s_OpenSockets[--s_OpenCount];
            return;
        }
    }
}

void OV_RTCLibNlSockFree(struct nl_sock *nlSock)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(s_LibNlLock);

    if (nlSock != nullptr) {
        _NoteClosed(nl_socket_get_fd(nlSock));
        nl_socket_free(nlSock);
    }
}

void _OV_RTCLibNlSockLost(const struct nl_sock *Sock)
{
    const MUTEX_SCOPE Lock(s_LibNlLock);

    _NoteClosed(nl_socket_get_fd(Sock));
}

int _OV_RTCLibNlConnect(struct nl_sock *Sock, int Protocol, LIBNL_OWNER Owner)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(s_LibNlLock);
    const int NlError = nl_connect(Sock, Protocol);

    if (NlError == 0) {
        _NoteOpen(Sock, Owner);
    }
    return NlError;
}

int _OV_RTCLibNlCacheAlloc(const char *Kind, struct nl_cache **Cache)
{
    const MUTEX_SCOPE Lock(s_LibNlLock);

    return nl_cache_alloc_name(Kind, Cache);
}

struct nl_addr *OV_RTCLibNlAddrBuild(int Family, const void *Addr, size_t Size, uint8_t Mask)
{
    struct nl_addr *Built = nl_addr_build(Family, Addr, Size);

    if (Built == nullptr) {
        OV_LOG_ERROR("nl_addr_build failed.");
        return nullptr;
    }
    nl_addr_set_family(Built, Family);
    nl_addr_set_prefixlen(Built, Mask);
    return Built;
}

OV_ERR_T OV_RTCTranslateNlError(int NlError)
{
    for (const NL_ERROR &Known : NL_ERRORS) {
        if (NlError == Known.NlError || NlError == -Known.NlError) {
            return Known.Error;
        }
    }
    return UNKNOWN_NL_ERROR;
}

OV_ERR_T _OV_RTCLibNlSessionOpen(LIBNL_SESSION *Session)
{
    struct nl_sock *Sock = nullptr;
    const OV_ERR_T Error = OV_RTCLibNlSockAlloc(&Sock);

    if (Error < 0) {
        return Error;
    }
    Session->Sock.reset(Sock);
    /* Which would be a call more a message: all of them fit libnl's buffer of four pages. */
    nl_socket_disable_msg_peek(Sock);
    return 0;
}

/* Takes all and keeps what fits before the NUL. */
static ssize_t _AppendText(void * /*Cookie*/, const char *Bytes, size_t Size)
{
    const size_t Kept = std::min(Size, LIBNL_TEXT_SIZE - 1 - s_Rendering.Length);

    memcpy(s_Rendering.Text + s_Rendering.Length, Bytes, Kept);
    s_Rendering.Length += Kept;
    return static_cast<ssize_t>(Size);
}

static FILE *_RenderingStream()
{
    if (s_Rendering.Stream == nullptr) {
        s_Rendering.Stream = fopencookie(nullptr, "w", {nullptr, _AppendText, nullptr, nullptr});
        if (s_Rendering.Stream != nullptr) {
            setvbuf(s_Rendering.Stream, s_Rendering.StreamBuffer, _IOFBF,
                    sizeof(s_Rendering.StreamBuffer));
        }
    }
    return s_Rendering.Stream;
}

const char *_OV_RTCLibNlObjectText(struct nl_object *Object, char (&Text)[LIBNL_TEXT_SIZE])
{
    const MUTEX_SCOPE Lock(s_LibNlLock); /* libnl takes the names of links from a cache */
    struct nl_dump_params Params = {};

    memset(Text, 0, sizeof(Text));
    s_Rendering.Text = Text;
    s_Rendering.Length = 0;
    Params.dp_fd = _RenderingStream();
    if (Params.dp_fd != nullptr) {
        nl_object_dump(Object, &Params);
        fflush(Params.dp_fd);
    }
    return Text;
}

void _OV_RTCLibNlCacheProvide(const char *Kind, struct nl_cache *Cache)
{
    const MUTEX_SCOPE Lock(s_LibNlLock);

    /* A second cache would push the first out of its place without dropping its reference. */
    if (nl_cache_mngt_require(Kind) == nullptr) {
        nl_cache_mngt_provide(Cache);
    }
}

void _OV_RTCLibNlCacheFree(struct nl_cache *Cache)
{
    const MUTEX_SCOPE Lock(s_LibNlLock);

    nl_cache_mngt_unprovide(Cache); /* does nothing to another one that is in the place */
    nl_cache_free(Cache);
}

bool _OV_RTCIsConfAddrSet(int Family, const OV_CONF_IP_MASK &Address)
{
    static constexpr OV_IN6_ADDR None = {};

    return Family == AF_INET6 ? memcmp(&Address.Ip6, &None, sizeof(None)) != 0 : Address.Ip != 0;
}

NL_ADDR_SCOPE _OV_RTCLibNlConfAddrBuild(int Family, const OV_CONF_IP_MASK &Address, uint8_t Mask)
{
    const uint32_t Ip = htonl(Address.Ip);

    return NL_ADDR_SCOPE(
        Family == AF_INET6 ? OV_RTCLibNlAddrBuild(AF_INET6, &Address.Ip6, sizeof(Address.Ip6), Mask)
                           : OV_RTCLibNlAddrBuild(AF_INET, &Ip, sizeof(Ip), Mask));
}
