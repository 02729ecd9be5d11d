#include "linuxRtcNotifyInternal.h"

#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <string.h>

/* The highest route attribute that is looked for. */
static constexpr int ROUTE_ATTRIBUTE_MAX = RTA_EXPIRES;

static bool _IsLongEnough(const struct nlattr *Attribute, int Size)
{
    if (nla_len(Attribute) < Size) {
        OV_LOG_ERROR("route attribute %d: expected %d bytes, %d came", nla_type(Attribute), Size,
                     nla_len(Attribute));
        return false;
    }
    return true;
}

/* Leaves Text alone where there is no such attribute, and for an address that has no dotted text.
 */
static bool _ReadAddress(struct nlattr *Attribute, int Family, char (&Text)[OV_RTC_ROUTE_TEXT_SIZE])
{
    char Printed[OV_RTC_ROUTE_TEXT_SIZE] = "";

    if (Attribute == nullptr) {
        return true;
    }
    if (!_IsLongEnough(Attribute, Family == AF_INET6 ? 16 : 4)) {
        return false;
    }
    inet_ntop(Family, nla_data(Attribute), Printed, sizeof(Printed));
    OV_SafeStrCopy(Text, sizeof(Text), Printed);
    return true;
}

static bool _ReadU32(struct nlattr *Attribute, uint32_t *Value)
{
    if (Attribute == nullptr) {
        return true;
    }
    if (!_IsLongEnough(Attribute, sizeof(*Value))) {
        return false;
    }
    *Value = nla_get_u32(Attribute);
    return true;
}

/* The name of the first nexthop whose interface has one; a cut entry ends the walk. */
static void _ReadNexthopName(const struct nlattr *Multipath, char (&Name)[OV_RTC_IF_NAME_SIZE])
{
    const char *Entry = static_cast<const char *>(nla_data(Multipath));
    size_t Remaining = static_cast<size_t>(nla_len(Multipath));
    struct rtnexthop Nexthop;

    while (Remaining >= sizeof(Nexthop)) {
        memcpy(&Nexthop, Entry, sizeof(Nexthop));
        if (Nexthop.rtnh_len < sizeof(Nexthop) || Nexthop.rtnh_len > Remaining ||
            if_indextoname(static_cast<unsigned>(Nexthop.rtnh_ifindex), Name) != nullptr) {
            return;
        }
        const size_t Step = std::min<size_t>(RTNH_ALIGN(Nexthop.rtnh_len), Remaining);
        Entry += Step;
        Remaining -= Step;
    }
}

bool _OV_RTCRouteNotifyBuild(struct nlmsghdr *Header, const MISSING_DESTINATION &Missing,
                             OV_RTC_MONITOR_NOTIFY *Notify)
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
        if_indextoname(IfIndex, Route.ifName);
    } else if (Attributes[RTA_MULTIPATH] != nullptr) {
        _ReadNexthopName(Attributes[RTA_MULTIPATH], Route.ifName);
    }
    return true;
}
