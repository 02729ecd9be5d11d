#include "orvaneRtcLibnl.h"

#include "orvaneLibrtcLog.h"
#include "orvaneRtcLibnlInternal.h"

#include <errno.h>
#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

/* For a libnl error that has no counterpart; outside the range of errno. */
static constexpr OV_ERR_T UNKNOWN_NL_ERROR = -254;

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
    const int NlError = nl_connect(Sock.get(), NETLINK_ROUTE);
    if (NlError < 0) {
        const OV_ERR_T Error = OV_RTCTranslateNlError(NlError);
        OV_LOG_ERROR("nl_connect failed(ovRet = %d nlRet = %d(%s))", Error, NlError,
                     nl_geterror(NlError));
        return Error;
    }
    *nlSock = Sock.release();
    return 0;
}

void OV_RTCLibNlSockFree(struct nl_sock *nlSock)
{
    nl_socket_free(nlSock);
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
