#include "linuxRtcNotifyInternal.h"

#include "linuxRtcTextInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <string.h>
#include <sys/ioctl.h>

/* The highest route attribute that is looked for. */
static constexpr int ROUTE_ATTRIBUTE_MAX = RTA_EXPIRES;
static constexpr const char *ATTRIBUTE_KIND = "route attribute";

/* What a netio line may take; eight addresses of each family fit. */
static constexpr size_t NETIO_TEXT_SIZE = 1024;

static constexpr size_t UNION_OFFSET = offsetof(OV_RTC_MONITOR_NOTIFY, RouteNotify);

bool _OV_RTCRecordHolds(const char *Kind, int Number, int Size, int Came)
{
    if (Came < Size) {
        OV_LOG_ERROR("%s %d: expected %d bytes, %d came", Kind, Number, Size, Came);
        return false;
    }
    return true;
}

bool _OV_RTCAttributeHolds(const char *Kind, const struct nlattr *Attribute, int Size)
{
    return _OV_RTCRecordHolds(Kind, nla_type(Attribute), Size, nla_len(Attribute));
}

/* Leaves Text alone where there is no such attribute. Of other families only a text that is as
 * short as a dotted one has room. */
static bool _ReadAddress(struct nlattr *Attribute, int Family, char (&Text)[OV_RTC_ROUTE_TEXT_SIZE])
{
    char Printed[OV_RTC_ROUTE_TEXT_SIZE] = "";

    if (Attribute == nullptr) {
        return true;
    }
    if (!_OV_RTCAttributeHolds(ATTRIBUTE_KIND, Attribute, Family == AF_INET6 ? 16 : 4)) {
        return false;
    }
    if (Family == AF_INET) { /* what inet_ntop writes, sooner */
        OV_IN_ADDR Address;
        memcpy(&Address, nla_data(Attribute), sizeof(Address));
        OV_SafeStrFormatIp4Addr(Printed, sizeof(Printed), &Address);
    } else {
        inet_ntop(Family, nla_data(Attribute), Printed, sizeof(Printed));
    }
    OV_SafeStrCopy(Text, sizeof(Text), Printed);
    return true;
}

static bool _ReadU32(struct nlattr *Attribute, uint32_t *Value)
{
    if (Attribute == nullptr) {
        return true;
    }
    if (!_OV_RTCAttributeHolds(ATTRIBUTE_KIND, Attribute, sizeof(*Value))) {
        return false;
    }
    *Value = nla_get_u32(Attribute);
    return true;
}

/* if_indextoname opens a socket for each name, which takes longer than all the rest of an event. */
static bool _ReadName(int Socket, unsigned IfIndex, char (&Name)[OV_RTC_IF_NAME_SIZE])
{
    struct ifreq Request = {};
    bool IsFound = false;

    if (Socket < 0) {
        IsFound = if_indextoname(IfIndex, Name) != nullptr;
    } else {
        Request.ifr_ifindex = static_cast<int>(IfIndex);
        IsFound = ioctl(Socket, SIOCGIFNAME, &Request) == 0;
        OV_SafeStrCopy(Name, sizeof(Name), Request.ifr_name);
    }
    if (!IsFound && errno != ENODEV && errno != ENXIO) { /* not just an interface that is gone */
        OV_LOG_ERROR("no name for interface %u: %s", IfIndex, strerror(errno));
    }
    return IsFound;
}

/* The name of the first nexthop whose interface has one; a cut entry ends the walk. */
static void _ReadNexthopName(int Socket, const struct nlattr *Multipath,
                             char (&Name)[OV_RTC_IF_NAME_SIZE])
{
    const char *Entry = static_cast<const char *>(nla_data(Multipath));
    size_t Remaining = static_cast<size_t>(nla_len(Multipath));
    struct rtnexthop Nexthop;

    while (Remaining >= sizeof(Nexthop)) {
        memcpy(&Nexthop, Entry, sizeof(Nexthop));
        if (Nexthop.rtnh_len < sizeof(Nexthop) || Nexthop.rtnh_len > Remaining ||
            _ReadName(Socket, static_cast<unsigned>(Nexthop.rtnh_ifindex), Name)) {
            return;
        }
        const size_t Step = std::min<size_t>(RTNH_ALIGN(Nexthop.rtnh_len), Remaining);
        Entry += Step;
        Remaining -= Step;
    }
}

bool _OV_RTCRouteNotifyBuild(struct nlmsghdr *Header, const MISSING_DESTINATION &Missing,
                             int Socket, OV_RTC_MONITOR_NOTIFY *Notify)
{
    struct nlattr *Attributes[ROUTE_ATTRIBUTE_MAX + 1];
    OV_KERNEL_ROUTE_NOTIFY &Route = Notify->RouteNotify;
    uint32_t IfIndex = 0;

    if (nlmsg_parse(Header, sizeof(struct rtmsg), Attributes, ROUTE_ATTRIBUTE_MAX, nullptr) < 0) {
        return false;
    }
    const auto *Message = static_cast<const struct rtmsg *>(nlmsg_data(Header));
    memset(Notify, 0, sizeof(*Notify));
    Notify->Type = MONITOR_ROUTE;
    Route.Event = Header->nlmsg_type == RTM_NEWROUTE ? 1 : 0;
    Route.Protocol = Message->rtm_protocol;
    Route.TableId = Message->rtm_table;
    Route.DstMask = Message->rtm_dst_len;
    if (Attributes[RTA_DST] == nullptr) {
        OV_SafeStrCopy(Route.Dst, sizeof(Route.Dst),
                       Message->rtm_dst_len == 0 ? Missing.OfDefaultRoute : Missing.OfOther);
    }
    if (!_ReadAddress(Attributes[RTA_DST], Message->rtm_family, Route.Dst) ||
        !_ReadAddress(Attributes[RTA_GATEWAY], Message->rtm_family, Route.Gateway) ||
        !_ReadU32(Attributes[RTA_OIF], &IfIndex) ||
        !_ReadU32(Attributes[RTA_PRIORITY], &Route.Priority)) {
        return false;
    }
    if (Attributes[RTA_OIF] != nullptr) {
        _ReadName(Socket, IfIndex, Route.ifName);
    } else if (Attributes[RTA_MULTIPATH] != nullptr) {
        _ReadNexthopName(Socket, Attributes[RTA_MULTIPATH], Route.ifName);
    }
    return true;
}

/* Notify has Size bytes. */
static void _Fill(OV_RTC_MONITOR_NOTIFY *Notify, size_t Size, OV_RTC_MONITOR_TYPE Type,
                  RECORD Record)
{
    memset(static_cast<void *>(Notify), 0, Size);
    Notify->Type = Type;
    memcpy(reinterpret_cast<uint8_t *>(Notify) + UNION_OFFSET, Record.data(), Record.size());
}

void _OV_RTCNotifyInit(OV_RTC_MONITOR_NOTIFY *Notify, OV_RTC_MONITOR_TYPE Type, RECORD Record)
{
    _Fill(Notify, sizeof(*Notify), Type, Record);
}

NOTIFY_SCOPE _OV_RTCNotifyAlloc(OV_RTC_MONITOR_TYPE Type, RECORD Record, size_t Extra)
{
    const size_t Size = sizeof(OV_RTC_MONITOR_NOTIFY) + Extra;
    const uint32_t ModStart = g_LibrtcModStart;
    NOTIFY_SCOPE Notify(static_cast<OV_RTC_MONITOR_NOTIFY *>(OV_LibrtcMemAlloc(Size)), {ModStart});

    if (Notify) {
        _Fill(Notify.get(), Size, Type, Record);
    }
    return Notify;
}

OV_ERR_T _OV_RTCUrlFlowHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    const RECORD Url = Record.subspan(sizeof(OV_FLOW_URL_NOTIFY_INFO));
    const size_t Length = strnlen(reinterpret_cast<const char *>(Url.data()), Url.size());

    /* The block is zeroed: it ends the text, also one that came without its NUL. */
    const NOTIFY_SCOPE Notify = _OV_RTCNotifyAlloc(
        MONITOR_URL_FLOW, Record.first(sizeof(OV_FLOW_URL_NOTIFY_INFO) + Length), Length + 1);
    if (!Notify) {
        return -ENOMEM;
    }
    Deliver(Notify.get());
    return 0;
}

OV_ERR_T _OV_RTCReportHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_DP_REPORT_HEADER Header;

    memcpy(&Header, Record.data(), sizeof(Header));
    if (Header.DataLen < sizeof(Header) || Header.DataLen > Record.size()) {
        OV_LOG_ERROR("data-path report: expected a DataLen of %zu to %zu, %u came", sizeof(Header),
                     Record.size(), Header.DataLen);
        return -EBADMSG;
    }
    const NOTIFY_SCOPE Notify =
        _OV_RTCNotifyAlloc(MONITOR_DATAPATH, Record.first(Header.DataLen), Header.DataLen);
    if (!Notify) {
        return -ENOMEM;
    }
    Deliver(Notify.get());
    return 0;
}

struct NETIO_TEXT {
    char Text[NETIO_TEXT_SIZE];
};

/* Without the newline, which the log site adds. */
static NETIO_TEXT _NetioText(const OV_NETIO_STATE_NOTIFY &Netio)
{
    const OV_CONF_IPMULTI &Ip4 = Netio.IfAddr.IpMul;
    const OV_CONF_IP6MULTI &Ip6 = Netio.IfAddr.Ip6Mul;
    NETIO_TEXT Result;
    char *const Limit = Result.Text + sizeof(Result.Text);

    char *End =
        OV_SEPrintf(Result.Text, Limit,
                    "recv netio notify(Type: %d WanId: %d LanId: %d IfName: %.*s NotifySeq: %u",
                    Netio.Type, Netio.WanId, Netio.LanId, static_cast<int>(sizeof(Netio.IfName)),
                    Netio.IfName, Netio.NotifySeq);
    if (Netio.Type == OV_NETIO_NOTIFY_TYPE_IFSTATE) {
        OV_SEPrintf(End, Limit, " ifstate: %s)", Netio.IfState != 0 ? "down" : "up");
        return Result;
    }
    for (int Index = 0; Index < Ip4.IpCnt; Index++) {
        End = OV_SEPrintf(End, Limit, " ipv4[%d]:%s/%u", Index, _OV_RTCIp4Text(Ip4.Ip[Index]).Text,
                          Ip4.Mask[Index]);
    }
    for (int Index = 0; Index < Ip6.IpCnt; Index++) {
        End = OV_SEPrintf(End, Limit, " ipv6[%d]:%s/%u", Index,
                          _OV_RTCIp6Text(Ip6.Ip[Index].In6.U6Addr8).Text, Ip6.Mask[Index]);
    }
    OV_SEPrintf(End, Limit, ")");
    return Result;
}

static OV_ERR_T _CheckNetio(const OV_NETIO_STATE_NOTIFY &Netio)
{
    const uint8_t Ip4Count = Netio.IfAddr.IpMul.IpCnt;
    const uint8_t Ip6Count = Netio.IfAddr.Ip6Mul.IpCnt;

    if (Netio.Type != OV_NETIO_NOTIFY_TYPE_IFSTATE && Netio.Type != OV_NETIO_NOTIFY_TYPE_IFADDR) {
        OV_LOG_ERROR("Netio notify type %u is invalid", Netio.Type);
        return -EINVAL;
    }
    if (Netio.Type == OV_NETIO_NOTIFY_TYPE_IFADDR &&
        (Ip4Count > OV_CONF_IP_MAX || Ip6Count > OV_CONF_IP_MAX)) {
        OV_LOG_ERROR("netio: expected at most %d addresses of a family, %u and %u came",
                     OV_CONF_IP_MAX, Ip4Count, Ip6Count);
        return -EBADMSG;
    }
    return 0;
}

OV_ERR_T _OV_RTCNetioHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_RTC_MONITOR_NOTIFY Notify;

    _OV_RTCNotifyInit(&Notify, MONITOR_NETIO, Record.first(sizeof(OV_NETIO_STATE_NOTIFY)));
    const OV_ERR_T Error = _CheckNetio(Notify.NetioNotify);
    if (Error == 0) {
        OV_LOG_INFO("%s", _NetioText(Notify.NetioNotify).Text);
        Deliver(&Notify);
    }
    return Error;
}
