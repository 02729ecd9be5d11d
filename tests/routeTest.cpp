/* Routes and rules: a route that is not the one asked for, a refusal with the wrong code or without
 * its line, a leg or a descriptor left behind, a record read past its end, a dump that loses
 * routes, a rule of the kernel's own that goes. */
#include "orvaneRtcIpRule.h"
#include "orvaneRtcLibnl.h"
#include "orvaneRtcRoute.h"
#include "testSupport.h"

#include <arpa/inet.h>
#include <bit>
#include <errno.h>
#include <netlink/cache.h>
#include <thread>

static OV_CONF_IP_MASK Address(const std::string &Text, int PrefixLength)
{
    const bool IsIp6 = Contains(Text, ":");
    OV_CONF_IP_MASK Result = {};

    inet_pton(IsIp6 ? AF_INET6 : AF_INET, Text.c_str(), &Result.Ip6);
    Result.Ip = IsIp6 ? Result.Ip : ntohl(Result.Ip);
    Result.IpType = IsIp6 ? OV_IN_ADDR_TYPE_IPV6 : OV_IN_ADDR_TYPE_IPV4;
    Result.Mask = static_cast<uint8_t>(PrefixLength);
    return Result;
}

/* "address length table hop...": a hop is "gateway@interface", or less. What must not be looked at
 * is set. */
static OV_RTC_ROUTE_CONF Route(std::istringstream Words)
{
    OV_RTC_ROUTE_CONF Conf = {};
    std::string Word;
    int PrefixLength = 0;

    Words >> Word >> PrefixLength >> Conf.TableId;
    Conf.TargetIp = Address(Word, PrefixLength);
    for (; Words >> Word; Conf.NexthopNum++) {
        const int Index = std::min<int>(Conf.NexthopNum, OV_RTC_ROUTE_NEXTHOP_MAX - 1);
        const size_t At = Word.find('@');
        Conf.Nexthop[Index] = Address(Word.substr(0, At), 99);
        Conf.Nexthop[Index].IpType = 9;
        Word.copy(Conf.IfName[Index], sizeof(Conf.IfName[Index]), At + 1);
    }
    return Conf;
}

/* "priority address length table", and "@" for one of no family */
static OV_RTC_IP_RULE_CONF Rule(std::istringstream Words)
{
    uint16_t Priority = 0;

    Words >> Priority;
    OV_RTC_ROUTE_CONF Rest = Route(std::move(Words));
    const int Family = Rest.NexthopNum != 0 ? 2 : std::exchange(Rest.TargetIp.IpType, 9);
    return {static_cast<OV_IN_ADDR_TYPE>(Family), Priority, Rest.TableId, Rest.TargetIp};
}

/* What this thread dumped, less the kernel's own. */
static thread_local std::string s_Dumped;

static int Collect(OV_RTC_MONITOR_NOTIFY *Notify, void *Count)
{
    const OV_KERNEL_ROUTE_NOTIFY &Entry = Notify->RouteNotify;
    char Text[256];

    snprintf(Text, sizeof(Text), "\n%u %u %s/%u via %s dev %s table %u proto %u metric %u",
             Notify->Type, Entry.Event, Entry.Dst, Entry.DstMask, Entry.Gateway, Entry.ifName,
             Entry.TableId, Entry.Protocol, Entry.Priority);
    s_Dumped += Entry.Protocol > 2 ? Text : "";
    return ++*static_cast<int *>(Count); /* does not end the dump */
}

/* The record of a route ends where memory does. */
static int Call(const std::string &Line)
{
    int Dumped = 0;
    const size_t End = std::min(Line.find(' ', Line.find(' ') + 1), Line.size());
    const std::string Name = Line.substr(0, End);
    const OV_RTC_ROUTE_CONF Conf = Route(std::istringstream(Line.substr(End)));
    const OV_RTC_IP_RULE_CONF RuleConf = Rule(std::istringstream(Line.substr(End)));
    const GUARDED_TEXT Guarded({reinterpret_cast<const char *>(&Conf), sizeof(Conf)});
    const auto *RouteConf = reinterpret_cast<const OV_RTC_ROUTE_CONF *>(Guarded.Text());

    return Name == "route add"       ? OV_RTCRouteAdd(RouteConf)
           : Name == "route replace" ? OV_RTCRouteReplace(RouteConf)
           : Name == "route del"     ? OV_RTCRouteDel(RouteConf)
           : Name == "route dump"    ? OV_RTCRouteGetAll(Collect, &Dumped)
           : Name == "rule add"      ? OV_RTCIpRuleAdd(&RuleConf)
           : Name == "rule del"      ? OV_RTCIpRuleDel(&RuleConf)
                                     : OV_IsIpRuleExist(&RuleConf);
}

/* Routes and rules beyond the kernel's own, without quotes, empty flags and every path's weight. */
static std::string Held()
{
    return Shell(R"(
B="show table all proto boot"; for w in "-4 route $B" "-6 route $B" "-4 rule" "-6 rule"; do
    ip -j $w; done | sed -E 's/"//g; s/,flags:\[\]|,weight:1//g; s/^\[|\]$//g
s/,?\{priority:(0,src:all,table:local|3276[67][^}]*)\}//g; s/^,//' | tr -d '\n')");
}

class RouteTest : public testing::Test {
  protected:
    static inline std::string OwnRules;
    const size_t Descriptors = (RecordLog(), s_Dumped.clear(), OpenDescriptors());
    static void SetUpTestSuite()
    {
        Shell(
            "ip link add x index 8 type veth peer name y index 9 && ip link set x up &&"
            "ip link set y up && ip addr add 1.1.1.1/24 dev x && ip addr add fd::1/64 dev x nodad");
        ASSERT_TRUE(WaitUntil([] { return Contains(Shell("ip -6 route"), "fd::/64 dev x"); }));
        OwnRules = Shell("ip rule; ip -6 rule");
    }
    void TearDown() override
    {
        EXPECT_EQ(OpenDescriptors(), Descriptors);
        EXPECT_EQ(nl_cache_mngt_require("route/rule"), nullptr);
        EXPECT_EQ(Held() + Shell("ip rule; ip -6 rule"), OwnRules);
    }
};

static constexpr char STORY[] = R"(
> route add 8.0.0.0 8 0 1.1.1.2@ = 0
[INFO][_OV_RTCRouetProcess]route add inet 8.0.0.0/8 type unicast via 1.1.1.2 \n.
{dst:8.0.0.0/8,gateway:1.1.1.2,dev:x}
> route add 8.0.0.0 8 0 @y = -17
[INFO][_OV_RTCRouetProcess]route add inet 8.0.0.0/8 type unicast via dev 9 \n.
[ERROR][_OV_RTCRouetProcess]rtnl_route_add failed(ovRet = -17 nlRet = -6(Object exists)).
> route replace 8.0.0.0 8 0 @y = 0
[INFO][_OV_RTCRouetProcess]route replace inet 8.0.0.0/8 type unicast via dev 9 \n.
{dst:8.0.0.0/8,dev:y,scope:link}
> route replace 8.0.0.0 8 0 = -19
[INFO][_OV_RTCRouetProcess]route replace inet 8.0.0.0/8 type unicast \n.
[ERROR][_OV_RTCRouetProcess]rtnl_route_add failed(ovRet = -19 nlRet = -31(No such device)).
> route del 8.0.0.0 8 0 1.1.1.2@ = -2
[INFO][_OV_RTCRouetProcess]route del inet 8.0.0.0/8 via 1.1.1.2 \n.
[ERROR][_OV_RTCRouetProcess]rtnl_route_delete failed(ovRet = -2 nlRet = -12(Object not found)).
> route del 8.0.0.0 8 0 @y = 0, nothing held
[INFO][_OV_RTCRouetProcess]route del inet 8.0.0.0/8 via dev 9 \n.
> route add 8.0.0.0 8 1000 1.1.1.2@ @y 1.1.1.3@x = 0
[INFO][_OV_RTCRouetProcess]route add inet 8.0.0.0/8 table 0x3e8 type unicast via 1.1.1.2 via dev 9 via 1.1.1.3 dev 8 \n.
{dst:8.0.0.0/8,table:1000,nexthops:[{gateway:1.1.1.2,dev:x},{dev:y},{gateway:1.1.1.3,dev:x}]}
> route del 8.0.0.0 8 1000 = 0, nothing held
[INFO][_OV_RTCRouetProcess]route del inet 8.0.0.0/8 table 0x3e8 \n.
> route add 8.0.0.0 8 0 @y 1.1.1.1@ = 0
[INFO][_OV_RTCRouetProcess]route add inet 8.0.0.0/8 type unicast via dev 9 via 1.1.1.1 \n.
{dst:8.0.0.0/8,scope:link,nexthops:[{dev:y},{gateway:1.1.1.1,dev:x}]}
$ ip route replace 8.0.0.0/8 via 1.1.1.2 && ip route append 8.0.0.0/8 via 1.1.1.3
> route replace 8.0.0.0 8 0 1.1.1.3@ = -17
[INFO][_OV_RTCRouetProcess]route replace inet 8.0.0.0/8 type unicast via 1.1.1.3 \n.
[DEBUG][_OV_RTCRouetProcess]rtnl_route_add failed(ovRet = -17 nlRet = -6(Object exists)).
{dst:8.0.0.0/8,gateway:1.1.1.2,dev:x},{dst:8.0.0.0/8,gateway:1.1.1.3,dev:x}
$ ip route flush 8.0.0.0/8
$ ip route add 8.0.0.0/8 dev y metric 5 && ip route add 8.0.0.0/8 dev y metric 6
> route del 8.0.0.0 8 0 = 0
[INFO][_OV_RTCRouetProcess]route del inet 8.0.0.0/8 \n.
{dst:8.0.0.0/8,dev:y,scope:link,metric:6}
$ ip route flush 8.0.0.0/8; ip route add 8.0.0.0/8 dev y proto 4
> route del 8.0.0.0 8 0 = 0, nothing held
[INFO][_OV_RTCRouetProcess]route del inet 8.0.0.0/8 \n.
> route add 8:: 64 0 fd::2@ fd::3@x = 0
[INFO][_OV_RTCRouetProcess]route add inet6 8::/64 type unicast via fd::2 via fd::3 dev 8 \n.
{dst:8::/64,metric:1024,pref:medium,nexthops:[{gateway:fd::2,dev:x},{gateway:fd::3,dev:x}]}
$ for m in 5 6 7; do ip -6 route add 8::/64 via fd::2 metric $m; done
> route del 8:: 64 0 = 0, nothing held
[INFO][_OV_RTCRouetProcess]route del inet6 8::/64 \n.
$ ip route add 8.7.0.0/24 table 7 metric 77 proto 4 nexthop dev y nexthop via 1.1.1.2
$ ip route add 8.8.0.0/16 via 1.1.1.2 table 1000 proto 4; ip route add default via 1.1.1.2 proto 4
> route dump = 0
2 1 8.7.0.0/24 via  dev y table 7 proto 4 metric 77
2 1 8.8.0.0/16 via 1.1.1.2 dev x table 252 proto 4 metric 0
2 1 0.0.0.0/0 via 1.1.1.2 dev x table 254 proto 4 metric 0
$ ip route flush table all proto 4
> route add 8.0.0.0 8 0 = -22
> route add 8.0.0.0 8 0 1.1.1.2@ @ = -22
[ERROR][_OV_RTCRouteNexthopAdd]invalid parameters. at least one of Nexthop or IfName is required.
[ERROR][_OV_RTCRouetMsgBuild]_OV_RTCRouetNexthopBuild failed(ret = -22)
[ERROR][_OV_RTCRouetProcess]_OV_RTCRouetBuildMsg failed(ovRet = -22).
> route del 8:: 64 0 @x @x @x @x @x @x @x @x @x @x @x @x @x @x @x @0123456789abcdef = -19
[ERROR][_OV_RTCRouteNexthopAdd]if_nametoindex failed(IfName = 0123456789abcdef ifIndex = 0 errno = 19)
[ERROR][_OV_RTCRouetMsgBuild]_OV_RTCRouetNexthopBuild failed(ret = -19)
[ERROR][_OV_RTCRouetProcess]_OV_RTCRouetBuildMsg failed(ovRet = -19).
> route replace 8.0.0.0 8 0 @x @x @x @x @x @x @x @x @x @x @x @x @x @x @x @x @x = -22
[ERROR][_OV_RTCRouetNexthopBuild]too many nexthops(NexthopNum = 17)
[ERROR][_OV_RTCRouetMsgBuild]_OV_RTCRouetNexthopBuild failed(ret = -22)
[ERROR][_OV_RTCRouetProcess]_OV_RTCRouetBuildMsg failed(ovRet = -22).
> rule add 9 8.1.0.0 16 5 = 0
[INFO][_OV_RTCIpRuleConf]ip rule add        9 inet from 8.1.0.0/16 lookup 0x5 action unicast\n.
{priority:9,src:8.1.0.0,srclen:16,table:5}
> rule add 9 8.1.0.0 16 5 = -17
[INFO][_OV_RTCIpRuleConf]ip rule add        9 inet from 8.1.0.0/16 lookup 0x5 action unicast\n.
[ERROR][_OV_RTCIpRuleConf]rtnl_rule_add failed(ovRet = -17 nlRet = -6(Object exists)).
[ERROR][_OV_RTCIpRuleProcess]_OV_RTCIntfIpConf failed(ovRet = -17).
> rule add 0 fd05:: 32 2000 = 0
[INFO][_OV_RTCIpRuleConf]ip rule add        0 inet6 from fd05::/32 lookup 0x7d0 action unicast\n.
{priority:9,src:8.1.0.0,srclen:16,table:5}{priority:0,src:fd05::,srclen:32,table:2000}
> rule exists 0 fd05:: 32 2000 = 1
> rule exists 0 fd05:: 32 2001 = 0
$ ip rule add blackhole prio 60
> rule exists 60 0.0.0.0 0 0 = 1
{priority:9,src:8.1.0.0,srclen:16,table:5},{priority:60,src:all,action:blackhole}{priority:0,src:fd05::,srclen:32,table:2000}
$ ip rule del prio 60
> rule exists 9 8.1.0.0 16 5 = 1
{priority:9,src:8.1.0.0,srclen:16,table:5}{priority:0,src:fd05::,srclen:32,table:2000}
> rule exists 9 0.0.0.0 0 5 = 1
> rule exists 9 8.1.0.0 16 0 = 1
> rule exists 9 8.2.0.0 17 5 @ = 1
> rule exists 9 8.2.0.0 16 5 = 0
> rule exists 9 8.1.0.0 17 5 = 0
> rule exists 9 8.1.0.0 16 6 = 0
> rule exists 8 8.1.0.0 16 5 = 0
> rule exists 9 :: 0 5 = 0
> rule add 9 8.1.0.0 16 0 = -22
> rule add 9 8.1.0.0 16 5 @ = -22
> rule del 9 8.1.0.0 16 5 @ = -22
> rule del 0 fd05:: 32 0 = 0
[INFO][_OV_RTCIpRuleConf]ip rule del        0 inet6 from fd05::/32 action unspec\n.
{priority:9,src:8.1.0.0,srclen:16,table:5}
> rule del 9 0.0.0.0 0 6 = -2
[INFO][_OV_RTCIpRuleConf]ip rule del        9 inet lookup 0x6 action unspec\n.
[ERROR][_OV_RTCIpRuleConf]rtnl_rule_delete failed(ovRet = -2 nlRet = -12(Object not found)).
[ERROR][_OV_RTCIpRuleProcess]_OV_RTCIntfIpConf failed(ovRet = -2).
> rule del 9 0.0.0.0 0 0 = 0, nothing held
[INFO][_OV_RTCIpRuleConf]ip rule del        9 inet action unspec\n.
! route add 8.0.0.0 8 0 @x = -254
[ERROR][OV_RTCLibNlSockAlloc]nl_connect failed(ovRet = -254 nlRet = -1(Unspecific failure))
[ERROR][_OV_RTCRouetProcess]OV_RTCLibNlSockAlloc failed(ret = -254).
! rule add 9 8.1.0.0 16 5 = -254
[ERROR][OV_RTCLibNlSockAlloc]nl_connect failed(ovRet = -254 nlRet = -1(Unspecific failure))
[ERROR][_OV_RTCIpRuleProcess]OV_RTCLibNlSockAlloc failed(ret = -254).
! rule exists 9 8.1.0.0 16 5 = 0
[ERROR][OV_RTCLibNlSockAlloc]nl_connect failed(ovRet = -254 nlRet = -1(Unspecific failure))
[ERROR][OV_IsIpRuleExist]OV_RTCLibNlSockAlloc failed(ret = -254).
! route dump = -254
[ERROR][OV_RTCLibNlSockAlloc]nl_connect failed(ovRet = -254 nlRet = -1(Unspecific failure))
[ERROR][OV_RTCRouteGetAll] OV_RTCLibNlSockAlloc failed(ovRet = -254).
)";

TEST_F(RouteTest, TheStory)
{
    const auto Tell = [](const std::string &Line) {
        const std::string Result = std::to_string(Call(Line));
        return Result + std::exchange(s_Dumped, "");
    };
    EXPECT_EQ(Retell(STORY + 1, Tell, Held), STORY + 1);
}

TEST_F(RouteTest, WhatTheStoryCannotSay)
{
    OV_RTC_ROUTE_CONF Other = Route(std::istringstream("8.0.0.0 8 0 @x"));
    std::string Long = "route add 8:: 64 0";
    int Dumped = 0;
    std::istringstream Errors("254 254 4 9 11 12 17 22 34 90 95 97 2 22 22 22 22 75 75 2 93 22 93"
                              " 22 61 16 93 13 1 254 254 19 254 254");

    for (int Number = 0, Error; Errors >> Error; Number++) {
        EXPECT_EQ(OV_RTCTranslateNlError(Number), -Error) << Number;
        EXPECT_EQ(OV_RTCTranslateNlError(-Number), -Error) << Number;
    }
    const OV_IN_ADDR_TYPE None = std::bit_cast<OV_IN_ADDR_TYPE>(7); /* no value of the type */
    const OV_RTC_IP_RULE_CONF Odd = {None, 9, 5, {}};
    Other.TargetIp.IpType = 2;
    for (const OV_ERR_T Result :
         {OV_RTCRouteAdd(nullptr), OV_RTCRouteAdd(&Other), OV_RTCRouteReplace(nullptr),
          OV_RTCRouteReplace(&Other), OV_RTCRouteDel(nullptr), OV_RTCRouteDel(&Other),
          OV_RTCRouteGetAll(nullptr, nullptr), OV_RTCIpRuleAdd(nullptr), OV_RTCIpRuleDel(nullptr),
          OV_RTCIpRuleAdd(&Odd), OV_RTCIpRuleDel(&Odd)}) {
        EXPECT_EQ(Result, -EINVAL);
    }
    EXPECT_EQ(Logged(), "");
    for (const char Hop : std::string("0123456789abcdef")) {
        Long += std::string(" fd::1234:5678:9abc:") + Hop + "@x";
    }
    EXPECT_EQ(Call(Long), 0); /* its text is longer than the log's buffer */
    EXPECT_EQ(Logged().size(), strlen("[INFO][_OV_RTCRouetProcess]route add .\n") + 511);
    EXPECT_TRUE(Contains(Held(), "{gateway:fd::1234:5678:9abc:f,dev:x}]"));
    EXPECT_EQ(Call("route del 8:: 64 0"), 0);

    /* A dump of many messages; none is lost. */
    Shell("for i in $(seq 0 2999); do echo route add 8.$((i / 256)).$((i % 256)).0/24 dev y; done"
          " >/tmp/batch; ip -batch /tmp/batch");
    EXPECT_EQ(OV_RTCRouteGetAll(Collect, &Dumped), 0);
    EXPECT_EQ(Shell("ip -4 -o route show table all | wc -l"), std::to_string(Dumped) + "\n");
    Shell("ip route flush proto boot");
}

TEST_F(RouteTest, ManyThreadsAtOnce)
{
    std::vector<std::jthread> Threads;

    for (int Index = 1; Index < 5; Index++) {
        Threads.emplace_back([Net = " 8.2." + std::to_string(Index) + ".0 24 "] {
            for (int Round = 0; Round < 50; Round++) {
                EXPECT_EQ(Call("route add" + Net + "0 1.1.1.2@x @y"), 0);
                EXPECT_EQ(Call("rule add 9" + Net + "5") + Call("route dump"), 0);
                EXPECT_EQ(Call("rule exists 9" + Net + "5"), TRUE);
                EXPECT_EQ(Call("rule del 9" + Net + "5") + Call("route del" + Net + "0"), 0);
            }
        });
    }
}
