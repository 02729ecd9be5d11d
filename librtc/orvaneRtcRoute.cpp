#include "orvaneRtcRoute.h"

#include "linuxRtcNotifyInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneRtcLibnlInternal.h"
#include "orvaneSafeStr.h"

#include <errno.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <string.h>
#include <sys/ioctl.h>

static constexpr uint8_t IP4_HOST_PREFIX = 32;
static constexpr uint8_t IP6_HOST_PREFIX = 128;

static constexpr LIBNL_REQUEST<struct rtnl_route> ROUTE_REQUESTS[] = {
    {OV_RTC_LIBNL_OP_ADD, "route add", "rtnl_route_add", rtnl_route_add, NLM_F_EXCL},
    {OV_RTC_LIBNL_OP_REPLACE, "route replace", "rtnl_route_add", rtnl_route_add, NLM_F_REPLACE},
    {OV_RTC_LIBNL_OP_DEL, "route del", "rtnl_route_delete", rtnl_route_delete, 0},
};

using IF_NAME = char[OV_RTC_IF_NAME_SIZE];

static int _FamilyOf(const OV_RTC_ROUTE_CONF *RouteConf)
{
    return RouteConf->TargetIp.IpType != OV_IN_ADDR_TYPE_IPV4 ? AF_INET6 : AF_INET;
}

/* Which scope a route has and whether a gateway is sent is decided by all 16 bytes, also of an IPv4
 * address. */
static bool _HasGateway(const OV_CONF_IP_MASK &Nexthop)
{
    return _OV_RTCIsConfAddrSet(AF_INET6, Nexthop);
}

/* What if_nametoindex gives, without the socket that it opens for each name (nor its ENOENT when it
 * gets none, which would read as a missing route). */
static unsigned _IfIndexOf(struct nl_sock *Sock, const char *Name)
{
    struct ifreq Request = {};

    if (OV_SafeStrCopy(Request.ifr_name, sizeof(Request.ifr_name), Name) >=
        sizeof(Request.ifr_name)) {
        errno = ENODEV;
        return 0;
    }
    return ioctl(nl_socket_get_fd(Sock), SIOCGIFINDEX, &Request) == 0
               ? static_cast<unsigned>(Request.ifr_ifindex)
               : 0;
}

/* Gives Route one more nexthop, which it then owns. */
static OV_ERR_T _OV_RTCRouteNexthopAdd(struct nl_sock *Sock, struct rtnl_route *Route, int Family,
                                       const OV_CONF_IP_MASK &Gateway, const IF_NAME &IfName)
{
    if (IfName[0] == '\0' && !_OV_RTCIsConfAddrSet(Family, Gateway)) {
        OV_LOG_ERROR("invalid parameters. at least one of Nexthop or IfName is required.");
        return -EINVAL;
    }
    RTNL_NEXTHOP_SCOPE Nexthop(rtnl_route_nh_alloc());
    if (!Nexthop) {
        OV_LOG_ERROR("rtnl_route_nh_alloc failed");
        return -ENOMEM;
    }
    if (IfName[0] != '\0') {
        const FIELD_TEXT Name(IfName); /* all 16 may be used: too long for an interface */
        errno = 0;
        const unsigned IfIndex = _IfIndexOf(Sock, Name.Text);
        if (IfIndex == 0) {
            const int IfErrno = errno;
            OV_LOG_ERROR("if_nametoindex failed(IfName = %s ifIndex = %u errno = %d)", Name.Text,
                         IfIndex, IfErrno);
            return IfErrno > 0 ? -IfErrno : -EIO;
        }
        rtnl_route_nh_set_ifindex(Nexthop.get(), static_cast<int>(IfIndex));
    }
    if (_HasGateway(Gateway)) {
        const NL_ADDR_SCOPE Address = _OV_RTCLibNlConfAddrBuild(
            Family, Gateway, Family == AF_INET6 ? IP6_HOST_PREFIX : IP4_HOST_PREFIX);
        if (!Address) {
            OV_LOG_CONF_ADDR_FAILURE(Family, Gateway);
            return -ENOMEM;
        }
        rtnl_route_nh_set_gateway(Nexthop.get(), Address.get());
    }
    rtnl_route_add_nexthop(Route, Nexthop.release());
    return 0;
}

static OV_ERR_T _OV_RTCRouetNexthopBuild(struct nl_sock *Sock, struct rtnl_route *Route,
                                         const OV_RTC_ROUTE_CONF *RouteConf)
{
    if (RouteConf->NexthopNum > OV_RTC_ROUTE_NEXTHOP_MAX) {
        OV_LOG_ERROR("too many nexthops(NexthopNum = %u)", RouteConf->NexthopNum);
        return -EINVAL;
    }
    for (int Index = 0; Index < RouteConf->NexthopNum; Index++) {
        const OV_ERR_T Error = _OV_RTCRouteNexthopAdd(
            Sock, Route, _FamilyOf(RouteConf), RouteConf->Nexthop[Index], RouteConf->IfName[Index]);
        if (Error < 0) {
            return Error;
        }
    }
    return 0;
}

static OV_ERR_T _OV_RTCRouetMsgBuild(struct nl_sock *Sock, uint8_t RouteOpType,
                                     const OV_RTC_ROUTE_CONF *RouteConf, RTNL_ROUTE_SCOPE *OutRoute)
{
    const int Family = _FamilyOf(RouteConf);
    const OV_CONF_IP_MASK &Target = RouteConf->TargetIp;
    RTNL_ROUTE_SCOPE Route(rtnl_route_alloc());

    if (!Route) {
        OV_LOG_ERROR("rtnl_route_alloc failed");
        return -ENOMEM;
    }
    if (RouteOpType == OV_RTC_LIBNL_OP_DEL) { /* the kernel then matches any protocol and scope */
        rtnl_route_set_protocol(Route.get(), RTPROT_UNSPEC);
        rtnl_route_set_scope(Route.get(), RT_SCOPE_NOWHERE);
    } else {
        const bool IsOnLink = RouteConf->NexthopNum == 0 || !_HasGateway(RouteConf->Nexthop[0]);
        rtnl_route_set_protocol(Route.get(), RTPROT_BOOT);
        rtnl_route_set_type(Route.get(), RTN_UNICAST);
        rtnl_route_set_scope(Route.get(), IsOnLink ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE);
    }
    if (RouteConf->TableId != 0) {
        rtnl_route_set_table(Route.get(), RouteConf->TableId);
    }
    rtnl_route_set_family(Route.get(), static_cast<uint8_t>(Family));

    const NL_ADDR_SCOPE Destination = _OV_RTCLibNlConfAddrBuild(Family, Target, Target.Mask);
    if (!Destination) {
        OV_LOG_CONF_ADDR_FAILURE(Family, Target);
        return -ENOMEM;
    }
    rtnl_route_set_dst(Route.get(), Destination.get());

    const OV_ERR_T Error = _OV_RTCRouetNexthopBuild(Sock, Route.get(), RouteConf);
    if (Error < 0) {
        OV_LOG_ERROR("_OV_RTCRouetNexthopBuild failed(ret = %d)", Error);
        return Error;
    }
    *OutRoute = std::move(Route);
    return 0;
}

static OV_ERR_T _OV_RTCRouetProcess(uint8_t RouteOpType, const OV_RTC_ROUTE_CONF *RouteConf)
{
    LIBNL_SESSION Session;
    RTNL_ROUTE_SCOPE Route;
    char Text[LIBNL_TEXT_SIZE];

    OV_ERR_T Error = _OV_RTCLibNlSessionOpen(&Session);
    if (Error < 0) {
        OV_LOG_ERROR("OV_RTCLibNlSockAlloc failed(ret = %d).", Error);
        return Error;
    }
    Error = _OV_RTCRouetMsgBuild(Session.Sock.get(), RouteOpType, RouteConf, &Route);
    if (Error < 0) {
        OV_LOG_ERROR("_OV_RTCRouetBuildMsg failed(ovRet = %d).", Error);
        return Error;
    }
    const auto *Request = _OV_RTCLibNlRequestFind(ROUTE_REQUESTS, RouteOpType);
    if (Request == nullptr) {
        OV_LOG_ERROR("unkown route operation type(RouteOpType = %u) .", RouteOpType);
        return -EINVAL;
    }

    OV_LOG_INFO("%s %s.", Request->Name, _OV_RTCLibNlObjectText(OBJ_CAST(Route.get()), Text));
    const int NlResult = Request->Call(Session.Sock.get(), Route.get(), Request->Flags);
    Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        const bool IsExpected = RouteOpType == OV_RTC_LIBNL_OP_REPLACE && Error == -EEXIST;
        OV_LOG_SITE(IsExpected ? OV_AGENT_LOG_LEVEL_DEBUG : OV_AGENT_LOG_LEVEL_ERROR, "\n",
                    "%s failed(ovRet = %d nlRet = %d(%s)).", Request->CallName, Error, NlResult,
                    nl_geterror(NlResult));
        return Error;
    }
    if (RouteOpType == OV_RTC_LIBNL_OP_DEL && _FamilyOf(RouteConf) == AF_INET6) {
        while (Request->Call(Session.Sock.get(), Route.get(), Request->Flags) >= 0) {
            /* each leg of an IPv6 multipath route is a route of its own */
        }
    }
    return 0;
}

static bool _IsUsable(const OV_RTC_ROUTE_CONF *RouteConf)
{
    return RouteConf != nullptr && (RouteConf->TargetIp.IpType == OV_IN_ADDR_TYPE_IPV4 ||
                                    RouteConf->TargetIp.IpType == OV_IN_ADDR_TYPE_IPV6);
}

OV_ERR_T OV_RTCRouteAdd(const OV_RTC_ROUTE_CONF *RouteConf)
{
    if (!_IsUsable(RouteConf) || RouteConf->NexthopNum == 0) {
        return -EINVAL;
    }
    return _OV_RTCRouetProcess(OV_RTC_LIBNL_OP_ADD, RouteConf);
}

OV_ERR_T OV_RTCRouteReplace(const OV_RTC_ROUTE_CONF *RouteConf)
{
    return _IsUsable(RouteConf) ? _OV_RTCRouetProcess(OV_RTC_LIBNL_OP_REPLACE, RouteConf) : -EINVAL;
}

OV_ERR_T OV_RTCRouteDel(const OV_RTC_ROUTE_CONF *RouteConf)
{
    return _IsUsable(RouteConf) ? _OV_RTCRouetProcess(OV_RTC_LIBNL_OP_DEL, RouteConf) : -EINVAL;
}

/* Who is told, and the dump's own socket, which names interfaces, too. */
struct ROUTE_DUMP {
    OV_RTC_ROUTE_CALLBACK_WITH_ARG Receiver;
    int Socket;
};

static int _OV_RTCRouteParseCallback(struct nl_msg *Message, void *Arg)
{
    const auto *Dump = static_cast<const ROUTE_DUMP *>(Arg);
    OV_RTC_MONITOR_NOTIFY Notify;

    if (_OV_RTCRouteNotifyBuild(nlmsg_hdr(Message), {"0.0.0.0", "0"}, Dump->Socket, &Notify)) {
        Notify.RouteNotify.Event = 1; /* listed counts as added */
        Dump->Receiver.Callback(&Notify, Dump->Receiver.Arg);
    }
    return NL_OK;
}

OV_ERR_T OV_RTCRouteGetAll(const RouteNotifyCallback Callback, void *Arg)
{
    struct rtmsg Request = {};
    LIBNL_SESSION Session;

    if (Callback == nullptr) {
        return -EINVAL;
    }
    OV_ERR_T Error = _OV_RTCLibNlSessionOpen(&Session);
    if (Error < 0) {
        OV_LOG_ERROR(" OV_RTCLibNlSockAlloc failed(ovRet = %d).", Error);
        return Error;
    }

    struct nl_sock *Sock = Session.Sock.get();
    ROUTE_DUMP Dump = {{Callback, Arg}, nl_socket_get_fd(Sock)};
    nl_socket_disable_seq_check(Sock);
    int NlResult =
        nl_socket_modify_cb(Sock, NL_CB_VALID, NL_CB_CUSTOM, _OV_RTCRouteParseCallback, &Dump);
    Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        OV_LOG_ERROR("nl_socket_modify_cb failed(ovRet = %d nlRet = %d(%s))", Error, NlResult,
                     nl_geterror(NlResult));
        return Error;
    }
    Request.rtm_family = AF_INET;
    NlResult = nl_send_simple(Sock, RTM_GETROUTE, NLM_F_DUMP, &Request, sizeof(Request));
    Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        OV_LOG_ERROR("nl_send_simple failed(ovRet = %d nlRet = %d(%s))", Error, NlResult,
                     nl_geterror(NlResult));
        return Error;
    }
    NlResult = nl_recvmsgs_default(Sock);
    Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        OV_LOG_ERROR("nl_recvmsgs_default failed(ovRet = %d nlRet = %d(%s))", Error, NlResult,
                     nl_geterror(NlResult));
    }
    return Error;
}

OV_ERR_T OV_RTCRouteInit(void)
{
    return 0;
}

void OV_RTCRouteRelease(void) {}
