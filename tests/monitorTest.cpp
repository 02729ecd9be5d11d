/* The netlink monitor on the sandbox's own kernel: links, bridges and routes made by ip. The family
 * of the data path is on no such machine: its group is any that the kernel has, named by the
 * resolver below, and its messages are sent from here. */
#include "linuxRtcGenlMonitorInternal.h"
#include "loopbackServer.h"
#include "netlinkMessage.h"
#include "orvaneRtcRoute.h"
#include "testSupport.h"

#include <algorithm>
#include <atomic>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/genetlink.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <mutex>
#include <net/if.h>
#include <netlink/errno.h>
#include <set>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr int BURST = 2000;
#else
static constexpr int BURST = 100000;
#endif

/* ---- The library's waits, and its view of the family ---- */

static std::atomic<int> s_Group = -1;    /* the family's group; -1: absent */
static std::atomic<unsigned> s_Slept;    /* seconds asked for since the family was looked for */
static std::atomic<unsigned> s_Interval; /* how many those were between two looks */
static std::atomic<int> s_AbsentLooks;   /* that did not find it */
static std::atomic<int> s_PauseCount;    /* of one second */
static std::atomic<bool> s_IsReceiveBroken;
static std::atomic<int> s_FailureCount;

extern "C" unsigned sleep(unsigned Seconds)
{
    s_Slept += Seconds;
    s_PauseCount += Seconds == 1 ? 1 : 0;
    usleep(2000); /* a place to be cancelled, like the real one */
    return 0;
}

extern "C" int nl_recvmsgs_default(struct nl_sock *Sock)
{
    static const auto Real =
        reinterpret_cast<int (*)(struct nl_sock *)>(dlsym(RTLD_NEXT, "nl_recvmsgs_default"));

    if (s_IsReceiveBroken) {
        s_FailureCount++;
        return -NLE_NOMEM;
    }
    return Real(Sock);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
/* Whose books of 30 MiB for each message take longer than the message. */
extern "C" int nl_socket_set_msg_buf_size(struct nl_sock *Sock, size_t)
{
    using FUNCTION = int (*)(struct nl_sock *, size_t);

    return reinterpret_cast<FUNCTION>(dlsym(RTLD_NEXT, "nl_socket_set_msg_buf_size"))(Sock, 65536);
}
#endif

extern "C" int genl_ctrl_resolve_grp(struct nl_sock *, const char *Family, const char *Group)
{
    EXPECT_STREQ(Family, "ov_con_family");
    EXPECT_STREQ(Group, "ov_con_mcgrp");
    const unsigned Slept = s_Slept.exchange(0);
    s_Interval = Slept > 0 ? Slept : s_Interval.load();
    const int Known = s_Group;
    s_AbsentLooks += Known < 0 ? 1 : 0;
    return Known;
}

/* ---- What the callbacks saw ---- */

static std::mutex s_Lock;
static std::vector<OV_RTC_MONITOR_NOTIFY> s_Events; /* under s_Lock */
static std::atomic<int> s_Count;
static std::atomic<bool> s_Hold; /* keeps a callback inside */
static std::atomic<bool> s_IsInside;

static int Keep(OV_RTC_MONITOR_NOTIFY *Notify)
{
    const std::lock_guard<std::mutex> Guard(s_Lock);

    s_Events.push_back(*Notify);
    return 0;
}

static int Count(OV_RTC_MONITOR_NOTIFY *Notify)
{
    s_Count += Notify->Type == MONITOR_ROUTE ? 1 : 0;
    return -1; /* looked at by nobody */
}

static int Hold(OV_RTC_MONITOR_NOTIFY *)
{
    s_IsInside = true;
    while (s_Hold) {
        usleep(1000);
    }
    s_IsInside = false;
    return 0;
}

static std::vector<OV_RTC_MONITOR_NOTIFY> TakeEvents()
{
    const std::lock_guard<std::mutex> Guard(s_Lock);

    return std::exchange(s_Events, {});
}

/* An event in words. */
static std::string Words(const OV_RTC_MONITOR_NOTIFY &Notify)
{
    char Text[256] = "?";
    const OV_KERNEL_ROUTE_NOTIFY &Route = Notify.RouteNotify;
    const OV_KERNEL_LINK_NOTIFY &Link = Notify.LinkNotify;

    if (Notify.Type == MONITOR_ROUTE) {
        snprintf(Text, sizeof(Text), "%s %s/%d via '%s' dev '%s' table %d proto %d metric %u",
                 Route.Event == 1 ? "add" : "del", Route.Dst, Route.DstMask, Route.Gateway,
                 Route.ifName, Route.TableId, Route.Protocol, Route.Priority);
    } else if (Notify.Type == MONITOR_LINK) {
        snprintf(Text, sizeof(Text), "%s %s %d seq %u",
                 Link.Type == OV_NETIO_NOTIFY_TYPE_STPSTATE ? "stp" : "mtu", Link.IfName,
                 Link.Type == OV_NETIO_NOTIFY_TYPE_STPSTATE ? Link.StpState : Link.Mtu,
                 Link.NotifySeq);
    } else if (Notify.Type == MONITOR_CONN) {
        snprintf(Text, sizeof(Text), "conn %u", Notify.ConnNotify.Id);
    }
    return Text;
}

static bool Saw(const std::string &Event)
{
    for (const OV_RTC_MONITOR_NOTIFY &Notify : TakeEvents()) {
        if (Words(Notify) == Event) {
            return true;
        }
    }
    return false;
}

static bool Ip(const std::string &Command)
{
    return system(("ip " + Command).c_str()) == 0;
}

static constexpr const char *NO_NAME = "del 0.0.0.0/2 via '' dev '' table 2 proto 2 metric 0";
static constexpr const char *V0_NAME = "del 0.0.0.0/2 via '' dev 'v0' table 2 proto 2 metric 0";

/* The last descriptor that the monitor said to have added under that name. */
static int AddedSocket(const STRINGS &Log, const std::string &Name)
{
    int Fd = -1;

    for (const std::string &Line : Log) {
        const size_t At = Line.find("]add " + Name + " socket(");
        if (At != std::string::npos) {
            Fd = atoi(Line.c_str() + At + strlen("]add  socket(") + Name.size());
        }
    }
    return Fd;
}

/* Gathers lines in Log until Condition holds. */
static bool Logged(STRINGS *Log, const std::function<bool()> &Condition)
{
    return WaitUntil([&] {
        for (std::string &Line : TakeLog()) {
            Log->push_back(std::move(Line));
        }
        return !Log->empty() && Condition();
    });
}

class MonitorTest : public testing::Test {
  protected:
    static inline size_t Threads; /* without a monitor */

    static void SetUpTestSuite()
    {
        std::thread([] {}).join(); /* a sanitizer's own begins with the first */
        Threads = OpenThreads();
    }
    void SetUp() override
    {
        RecordLog();
        TakeEvents();
        s_Group = -1;
        s_Count = 0;
        if (if_nametoindex("v0") == 0) {
            ASSERT_TRUE(Ip("link add v0 type veth peer name v1") && Ip("link set v0 up") &&
                        Ip("link set v1 up") && Ip("addr add 10.1.0.1/24 dev v0"));
        }
    }
    void TearDown() override
    {
        OV_RTCGenlMonitorUninit();
    }
    /* Started, with a callback, and what the start delivered seen. Returns the routing socket. */
    int Start(NotifyCallback Callback = Keep)
    {
        EXPECT_EQ(OV_RTCGenlMonitorInit(), 0);
        EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Keep), 0);
        STRINGS Log;
        int Fd = -1;
        EXPECT_TRUE(Logged(&Log, [&] { return (Fd = AddedSocket(Log, "netlink-route")) >= 0; }));
        Settle();
        if (Callback != Keep) {
            EXPECT_EQ(OV_RTCGenlMonitorUnregCallback(0), 0);
            EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Callback), 0);
        }
        return Fd;
    }
    /* The family's socket, once it is there. */
    static int GenlSocket()
    {
        STRINGS Log;
        s_Group = -1;
        s_AbsentLooks = 0;
        EXPECT_TRUE(WaitUntil([] { return s_AbsentLooks >= 2; })); /* the first took it away */
        TakeLog();
        s_Group = 0x10;
        EXPECT_TRUE(Logged(&Log, [&] { return AddedSocket(Log, "netlink-genl") >= 0; }));
        return AddedSocket(Log, "netlink-genl");
    }
    /* A change of our own comes after all that came before it. */
    void Settle()
    {
        EXPECT_TRUE(Ip("route add 192.0.2.1/32 dev v0") && Ip("route del 192.0.2.1/32 dev v0"));
        EXPECT_TRUE(WaitUntil(
            [] { return Saw("del 192.0.2.1/32 via '' dev 'v0' table 254 proto 3 metric 0"); }));
    }
    STRINGS Events()
    {
        STRINGS Texts;
        EXPECT_TRUE(Ip("route add 192.0.2.2/32 dev v0") && Ip("route del 192.0.2.2/32 dev v0"));
        EXPECT_TRUE(WaitUntil([&] {
            for (const OV_RTC_MONITOR_NOTIFY &Notify : TakeEvents()) {
                Texts.push_back(Words(Notify));
            }
            return !Texts.empty() && Contains(Texts.back(), "del 192.0.2.2/32");
        }));
        Texts.resize(Texts.size() < 2 ? 0 : Texts.size() - 2);
        return Texts;
    }
};

TEST_F(MonitorTest, WhatChangesAfterTheStartIsTold)
{
    OV_RTC_ROUTE_CONF Route = {};

    Route.TargetIp = {{0x07000000}, OV_IN_ADDR_TYPE_IPV4, 8};
    Route.NexthopNum = 1;
    strcpy(Route.IfName[0], "v0");
    for (int Round = 0; Round < 20; Round++) {
        ASSERT_EQ(OV_RTCGenlMonitorInit(), 0);
        ASSERT_EQ(OV_RTCGenlMonitorRegCallback(Keep), 0);
        ASSERT_EQ(OV_RTCRouteAdd(&Route), 0);
        EXPECT_TRUE(WaitUntil(
            [] { return Saw("add 7.0.0.0/8 via '' dev 'v0' table 254 proto 3 metric 0"); }, 2));
        ASSERT_EQ(OV_RTCRouteDel(&Route), 0);
        OV_RTCGenlMonitorUninit();
    }
}

TEST_F(MonitorTest, Links)
{
    /* All links are told at the start, when somebody listens by then; 65536 has 17 bits. */
    EXPECT_TRUE(WaitUntil([] {
        OV_RTCGenlMonitorUninit();
        EXPECT_EQ(OV_RTCGenlMonitorInit(), 0);
        EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Keep), 0);
        usleep(20000);
        return Saw("mtu lo 0 seq 0");
    }));
    Ip("link set v0 mtu 1400");
    EXPECT_TRUE(WaitUntil([] { return Saw("mtu v0 1400 seq 0"); }));
    Ip("link set v1 down");
    EXPECT_TRUE(WaitUntil([] { return Saw("mtu v1 1500 seq 0"); }));
    Ip("link set v1 up");
    Ip("link add br0 type bridge");
    Ip("link set br0 up");
    Ip("link set v1 master br0"); /* forwarding, in time */
    EXPECT_TRUE(WaitUntil([] { return Saw("stp v1 3 seq 0"); }));
    Ip("link set v1 down");
    EXPECT_TRUE(WaitUntil([] { return Saw("stp v1 0 seq 0"); }));
    Ip("link del br0");
    EXPECT_TRUE(WaitUntil([] { return Saw("mtu br0 1500 seq 0"); }));
    Ip("link set v1 up");
    Ip("link set v0 mtu 1500");
}

TEST_F(MonitorTest, RoutesInTheirOrderAndNoAddresses)
{
    static const struct {
        const char *Command;
        const char *Event;
    } ROWS[] = {
        {"route add 10.9.0.0/16 via 10.1.0.2 metric 7",
         "add 10.9.0.0/16 via '10.1.0.2' dev 'v0' table 254 proto 3 metric 7"},
        {"route replace 10.9.0.0/16 via 10.1.0.3 metric 7 proto static",
         "add 10.9.0.0/16 via '10.1.0.3' dev 'v0' table 254 proto 4 metric 7"},
        {"route del 10.9.0.0/16",
         "del 10.9.0.0/16 via '10.1.0.3' dev 'v0' table 254 proto 4 metric 7"},
        {"route add default via 10.1.0.2 table 200",
         "add 0.0.0.0/0 via '10.1.0.2' dev 'v0' table 200 proto 3 metric 0"},
        {"route add 10.8.0.0/24 table 1000 dev v0",
         "add 10.8.0.0/24 via '' dev 'v0' table 252 proto 3 metric 0"},
        {"route add 10.7.0.0/24 nexthop via 10.1.0.4 nexthop via 10.1.0.5 dev v0",
         "add 10.7.0.0/24 via '' dev 'v0' table 254 proto 3 metric 0"},
        {"route add blackhole 10.6.0.0/24",
         "add 10.6.0.0/24 via '' dev '' table 254 proto 3 metric 0"},
        {"route del 10.7.0.0/24", "del 10.7.0.0/24 via '' dev 'v0' table 254 proto 3 metric 0"},
        {"route flush table 200",
         "del 0.0.0.0/0 via '10.1.0.2' dev 'v0' table 200 proto 3 metric 0"},
        {"route flush table 1000", "del 10.8.0.0/24 via '' dev 'v0' table 252 proto 3 metric 0"},
        {"route del blackhole 10.6.0.0/24",
         "del 10.6.0.0/24 via '' dev '' table 254 proto 3 metric 0"},
    };
    STRINGS Expected;

    Start();
    for (const auto &Row : ROWS) {
        EXPECT_TRUE(Ip(Row.Command)) << Row.Command;
        Expected.push_back(Row.Event);
        OV_RTCMonitorSendAddrRequest(); /* its answers are no events */
    }
    EXPECT_TRUE(Ip("addr add 10.1.0.9/32 dev lo noprefixroute"));
    EXPECT_TRUE(Ip("-6 route add 2001:db8::/64 dev v0") && Ip("-6 route del 2001:db8::/64 dev v0"));
    STRINGS Seen = Events();
    std::erase_if(Seen, [](const std::string &Event) { /* the address' own, by the kernel */
                                                       return Contains(Event, "table 255");
    });
    EXPECT_EQ(Seen, Expected);
    Ip("addr del 10.1.0.9/32 dev lo");
}

static uint32_t PortOf(int Socket)
{
    struct sockaddr_nl Local = {};
    socklen_t Length = sizeof(Local);

    EXPECT_EQ(getsockname(Socket, reinterpret_cast<struct sockaddr *>(&Local), &Length), 0);
    return Local.nl_pid;
}

TEST_F(MonitorTest, MalformedMessages)
{
    const uint32_t Port = PortOf(Start());
    const std::string Route(sizeof(struct rtmsg), AF_INET);
    const std::string Link(sizeof(struct ifinfomsg), '\0');
    const std::string BridgePort = '\x07' + Link.substr(1);
    const std::string Hop = BytesOf(rtnexthop{8, 0, 0, static_cast<int>(if_nametoindex("v0"))});
    const std::string Unknown = BytesOf(rtnexthop{8, 0, 0, 9999});
    const struct {
        uint16_t Type;
        const std::string &Header;
        NETLINK_ATTRIBUTES Attributes;
        const char *Event;
        const char *Error;
    } ROWS[] = {
        {RTM_NEWROUTE, Link.substr(0, 8), {}, "", ""},
        {RTM_NEWROUTE, Route, {{RTA_OIF, "11"}}, "", "route attribute 4: expected 4 bytes, 2 came"},
        {RTM_NEWROUTE,
         Route,
         {{RTA_DST, "123"}},
         "",
         "route attribute 1: expected 4 bytes, 3 came"},
        {RTM_NEWROUTE,
         Route,
         {{RTA_GATEWAY, ""}},
         "",
         "route attribute 5: expected 4 bytes, 0 came"},
        {RTM_NEWROUTE,
         Route,
         {{RTA_PRIORITY, "1"}},
         "",
         "route attribute 6: expected 4 bytes, 1 came"},
        {RTM_DELROUTE, Route, {{RTA_MULTIPATH, std::string(8, '\0') + Hop}}, NO_NAME, ""},
        {RTM_DELROUTE, Route, {{RTA_MULTIPATH, "\x10" + Hop.substr(1)}}, NO_NAME, ""},
        {RTM_DELROUTE, Route, {{RTA_MULTIPATH, Unknown + Hop}}, V0_NAME, ""},
        {RTM_NEWLINK, Link.substr(0, 12), {}, "", "Failed to nlmsg_parse"},
        {RTM_NEWLINK, Link, {{IFLA_MTU, "11"}}, "", "link attribute 4: expected 4 bytes, 2 came"},
        {RTM_NEWLINK, Link, {{IFLA_IFNAME, "no NUL behind it"}}, "mtu no NUL behind i 0 seq 0", ""},
        {RTM_DELLINK,
         BridgePort,
         {{IFLA_PROTINFO, std::string("\4\0\1\0", 4)}},
         "",
         "bridge port attribute 1: expected 1 bytes, 0 came"},
        {RTM_NEWLINK, BridgePort, {{IFLA_IFNAME, "p"}}, "stp p 0 seq 0", ""},
        {RTM_NEWNEIGH, Link, {}, "", "OV_Monitor: unknown type 28"},
    };

    TakeLog();
    for (const auto &Row : ROWS) {
        ASSERT_TRUE(
            SendMessage(NETLINK_ROUTE, Port, NetlinkMessage(Row.Type, Row.Header, Row.Attributes)));
        EXPECT_EQ(Events(), *Row.Event != '\0' ? STRINGS{Row.Event} : STRINGS{}) << Row.Error;
        STRINGS Errors = TakeLog();
        std::erase_if(Errors, [](const std::string &Line) { return !Contains(Line, "[ERROR]"); });
        ASSERT_EQ(Errors.size(), *Row.Error != '\0' ? 1U : 0U) << Row.Event << Row.Error;
        EXPECT_TRUE(Errors.empty() || Contains(Errors[0], std::string("]") + Row.Error));
    }
}

/* ---- The dumps ---- */

static int KeepWithArg(OV_RTC_MONITOR_NOTIFY *Notify, void *Arg)
{
    EXPECT_EQ(Arg, &s_Events);
    return Keep(Notify);
}

TEST_F(MonitorTest, DumpsTellWhatWasTold)
{
    Start();
    ASSERT_TRUE(Ip("route add default via 10.1.0.2 metric 5") &&
                Ip("route add 10.9.0.0/16 via 10.1.0.2") &&
                Ip("route add 10.8.0.0/16 table 77 nexthop via 10.1.0.2 nexthop via 10.1.0.3"));
    std::vector<OV_RTC_MONITOR_NOTIFY> Told;
    EXPECT_TRUE(WaitUntil([&] {
        for (const OV_RTC_MONITOR_NOTIFY &Notify : TakeEvents()) {
            Told.push_back(Notify);
        }
        return Told.size() == 3;
    }));
    const auto Lists = [](const std::vector<OV_RTC_MONITOR_NOTIFY> &Dump,
                          const OV_RTC_MONITOR_NOTIFY &Route) {
        return std::count_if(Dump.begin(), Dump.end(), [&](const OV_RTC_MONITOR_NOTIFY &Listed) {
                   return BytesOf(Listed) == BytesOf(Route);
               }) == 1;
    };
    OV_RTCGenlMonitorUninit(); /* so that the dumps alone fill s_Events */
    TakeEvents();
    EXPECT_EQ(OV_RTCRouteGetAll(KeepWithArg, &s_Events), 0);
    const auto All = TakeEvents();
    EXPECT_EQ(OV_RTCGenlMonitorGetAllRoute(Keep), 0);
    const auto AllOfMonitor = TakeEvents();
    EXPECT_EQ(All.size(), AllOfMonitor.size());
    for (OV_RTC_MONITOR_NOTIFY &Route : Told) {
        EXPECT_TRUE(Lists(All, Route)) << Words(Route);
        if (Route.RouteNotify.DstMask == 0) {
            strcpy(Route.RouteNotify.Dst, "default"); /* as long as "0.0.0.0" */
        }
        EXPECT_TRUE(Lists(AllOfMonitor, Route)) << Words(Route);
    }
    Ip("route flush table 77");
    Ip("route del default");
    Ip("route del 10.9.0.0/16");
}

/* ---- The callback table ---- */

static int s_Results[4];

static int Meddle(OV_RTC_MONITOR_NOTIFY *)
{
    s_Results[0] = OV_RTCGenlMonitorRegCallback(Keep);
    s_Results[1] = OV_RTCGenlMonitorUnregCallback(0);
    s_Results[2] = OV_RTCGenlMonitorUninit();
    s_Results[3] = OV_RTCGenlMonitorInit();
    s_Count = 1000;
    return 0;
}

TEST_F(MonitorTest, CallbackTable)
{
    EXPECT_EQ(ParseMessage(_RTCMonitorParseNlMsg, NetlinkMessage(NLMSG_ERROR, "", {})), -1);
    EXPECT_TRUE(IsLogLine(TakeLog().back(), "ERROR", "_RTCMonitorParseNlMsg", "csnnl: type error"));
    EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Keep), -1);
    EXPECT_EQ(OV_RTCGenlMonitorUnregCallback(0), -2);
    EXPECT_EQ(OV_RTCGenlMonitorUnregCallback(16), -1);
    EXPECT_EQ(OV_RTCGenlMonitorUninit(), 0);
    Start();
    EXPECT_EQ(OV_RTCGenlMonitorInit(), -EEXIST);
    EXPECT_TRUE(IsLogLine(TakeLog().back(), "ERROR", "OV_RTCGenlMonitorInit",
                          "RTC monitor thread init already"));
    for (int Id = 1; Id < 16; Id++) {
        EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Count), Id);
    }
    EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Count), -2);
    EXPECT_EQ(OV_RTCGenlMonitorUnregCallback(3), 0);
    EXPECT_EQ(OV_RTCGenlMonitorUnregCallback(3), 0);
    EXPECT_EQ(OV_RTCGenlMonitorUnregCallback(-1), -1);
    Settle(); /* two routes, fourteen callbacks; the last of them may still be to come */
    EXPECT_TRUE(WaitUntil([] { return s_Count == 28; })) << s_Count;
    EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Meddle), 3);
    Ip("link set v0 mtu 1499");
    EXPECT_TRUE(WaitUntil([] { return s_Count >= 1000; }));
    EXPECT_EQ(OV_RTCGenlMonitorUninit(), 0);
    EXPECT_EQ(s_Results[0], -EDEADLK);
    EXPECT_EQ(s_Results[1], -EDEADLK);
    EXPECT_EQ(s_Results[2], -EDEADLK);
    EXPECT_EQ(s_Results[3], -EEXIST);
    Start(); /* the table is empty again: Keep is the first */
}

TEST_F(MonitorTest, StopWaitsForCallback)
{
    s_Hold = true;
    Start(Hold);
    Ip("link set v0 mtu 1450");
    ASSERT_TRUE(WaitUntil([] { return s_IsInside.load(); }));
    std::atomic<bool> IsStopped = false;
    std::thread Stopper([&] {
        OV_RTCGenlMonitorUninit();
        EXPECT_FALSE(s_IsInside);
        IsStopped = true;
    });
    OV_RTCMonitorSendAddrRequest(); /* does not wait for the callback */
    usleep(50000);
    EXPECT_FALSE(IsStopped);
    s_Hold = false;
    Stopper.join();
}

static size_t AddressSpace() /* in bytes */
{
    return strtoul(ReadFile("/proc/self/statm").c_str(), nullptr, 10) *
           static_cast<size_t>(getpagesize());
}

TEST_F(MonitorTest, StartAndStopUnderLoad)
{
    const std::jthread Changes([](const std::stop_token &Token) {
        std::string Text;
        for (int Index = 0; Index < 50; Index++) {
            Text += "route add 10.77.0." + std::to_string(Index) + " dev v0\n";
        }
        WriteFile("/tmp/churn", Text + "route flush root 10.77.0.0/24\n");
        while (!Token.stop_requested()) {
            Ip("-batch /tmp/churn");
        }
    });
    s_Group = 0x10; /* "notify" of the kernel's own generic family: the family is there */
    ASSERT_EQ(OV_RTCGenlMonitorInit(), 0);
    ASSERT_TRUE(WaitUntil([] { return s_Interval == 15; })); /* the check socket is made */
    OV_RTCGenlMonitorUninit();
    const size_t Descriptors = OpenDescriptors();
    const size_t Space = AddressSpace();
    for (int Round = 0; Round < 1000; Round++) {
        ASSERT_EQ(OV_RTCGenlMonitorInit(), 0);
        ASSERT_EQ(OV_RTCGenlMonitorRegCallback(Count), 0);
        usleep(Round % 4 == 0 ? 3000 : 0);
        ASSERT_EQ(OV_RTCGenlMonitorUninit(), 0);
        const int Before = s_Count;
        usleep(Round % 32 == 0 ? 2000 : 0);
        ASSERT_EQ(s_Count, Before) << "delivered after the stop";
    }
    EXPECT_TRUE(WaitUntil([&] { return OpenThreads() == Threads + 1; }));
    EXPECT_EQ(OpenDescriptors(), Descriptors);
    EXPECT_LT(AddressSpace(), Space + (1UL << 30)); /* two stacks a start would be 16 GiB */
    EXPECT_GT(s_Count, 0);
}

TEST_F(MonitorTest, WhoeverRegistersFirstIsToldOfEachLinkOnce)
{
    for (int Time = 0; Time < 20; Time++) {
        ASSERT_EQ(OV_RTCGenlMonitorInit(), 0);
        if (Time % 2 == 1) {
            usleep(2000);
        }
        ASSERT_EQ(OV_RTCGenlMonitorRegCallback(Keep), 0);
        ASSERT_EQ(OV_RTCGenlMonitorRegCallback(Count), 1); /* asks for nothing */
        std::multiset<std::string> Told;
        const auto Take = [&] {
            for (const OV_RTC_MONITOR_NOTIFY &Notify : TakeEvents()) {
                Told.insert(Notify.LinkNotify.IfName);
            }
            return Told.size() >= 3;
        };
        EXPECT_TRUE(WaitUntil(Take)) << Time;
        usleep(5000);
        Take();
        EXPECT_EQ(Told, (std::multiset<std::string>{"lo", "v0", "v1"})) << Time;
        OV_RTCGenlMonitorUninit();
    }
}

/* The kernel refuses a dump while another runs; that stops no event. */
TEST_F(MonitorTest, RefusedAddressRequestsDelayNothing)
{
    s_Hold = true;
    Start(Hold);
    Ip("link set v0 mtu 1400");
    EXPECT_TRUE(WaitUntil([] { return s_IsInside.load(); })); /* so that no dump gets on */
    s_PauseCount = 0;
    for (int Time = 0; Time < 60; Time++) {
        OV_RTCMonitorSendAddrRequest();
    }
    s_Hold = false;
    ASSERT_EQ(OV_RTCGenlMonitorRegCallback(Keep), 1);
    ASSERT_TRUE(Ip("route add 7.1.0.0/16 dev v0"));
    EXPECT_TRUE(
        WaitUntil([] { return Saw("add 7.1.0.0/16 via '' dev 'v0' table 254 proto 3 metric 0"); }));
    EXPECT_EQ(s_PauseCount, 0);
    STRINGS Log = TakeLog();
    EXPECT_TRUE(std::any_of(Log.begin(), Log.end(), [](const std::string &Line) {
        return Contains(Line, "]nl_route nl_recvmsgs failed(rc: -25)");
    })) << "no request was refused";
}

/* ---- Bursts, overruns, sockets that vanish ---- */

TEST_F(MonitorTest, BurstIsCountedWhole)
{
    std::string Text;
    for (int Index = 0; Index < BURST; Index++) {
        Text += "route add 10." + std::to_string(128 + Index / 65536) + "." +
                std::to_string(Index / 256 % 256) + "." + std::to_string(Index % 256) + " dev v0\n";
    }
    WriteFile("/tmp/burst", Text);
    const int Fd = Start(Count);
    s_Count = 0;
    ASSERT_TRUE(Ip("-batch /tmp/burst"));
    EXPECT_TRUE(WaitUntil([] { return s_Count >= BURST; }, 60)) << s_Count;
    EXPECT_EQ(s_Count, BURST);
    const int Wanted = 0x1E00000;
    int Had = 0;
    socklen_t Length = sizeof(Had);
    ASSERT_EQ(getsockopt(Fd, SOL_SOCKET, SO_RCVBUF, &Had, &Length), 0);
    const int Own = socket(AF_INET, SOCK_DGRAM, 0);
    if (setsockopt(Own, SOL_SOCKET, SO_RCVBUFFORCE, &Wanted, sizeof(Wanted)) == 0) {
        EXPECT_EQ(Had, 2 * Wanted); /* told doubled */
    }
    close(Own);
    Ip("link set v0 down"); /* takes the routes away without an event for each */
    Ip("link set v0 up");
}

TEST_F(MonitorTest, OverrunIsLoggedAndSurvived)
{
    const int Least = 1;
    s_Hold = true;
    const int Fd = Start(Hold);
    ASSERT_EQ(setsockopt(Fd, SOL_SOCKET, SO_RCVBUF, &Least, sizeof(Least)), 0);
    TakeLog();
    for (int Mtu = 1300; Mtu < 1320; Mtu++) {
        Ip("link set v0 mtu " + std::to_string(Mtu));
    }
    s_Hold = false;
    STRINGS Log;
    EXPECT_TRUE(Logged(
        &Log, [&] { return Contains(Log.back(), "]csnnl: re-add netlink socket to epoll"); }));
    const std::string Error = "csnnl: error occured(events: 0x9, fd: " + std::to_string(Fd) + ")!";
    EXPECT_EQ(std::count_if(Log.begin(), Log.end(),
                            [&](const std::string &Line) { return Contains(Line, Error); }),
              1);
    EXPECT_EQ(OV_RTCGenlMonitorRegCallback(Keep), 1);
    Settle();
}

TEST_F(MonitorTest, LastingFailureIsPaced)
{
    Start();
    s_IsReceiveBroken = true;
    Ip("link set v0 mtu 1440");
    EXPECT_TRUE(WaitUntil([] { return s_FailureCount > 5; }));
    s_IsReceiveBroken = false;
    EXPECT_GE(s_PauseCount + 2, s_FailureCount); /* the first, and one that is under way */
    Settle();
}

/* Somebody closes the monitor's descriptors, and one of them is somebody else's at once. */
TEST_F(MonitorTest, ClosedSocketsAreReplaced)
{
    s_Group = 0x10;
    const int Fd = Start();
    STRINGS Log;
    int Pipe[2];

    ASSERT_EQ(pipe2(Pipe, O_CLOEXEC), 0);
    ASSERT_EQ(dup2(Pipe[1], Fd), Fd);
    EXPECT_TRUE(Logged(&Log, [&] { return AddedSocket(Log, "netlink-route") >= 0; }));
    EXPECT_EQ(write(Fd, "x", 1), 1) << "the pipe was closed with the socket";
    Settle();
    const int Genl = GenlSocket();
    Log.clear();
    close(Genl);
    EXPECT_TRUE(Logged(&Log, [&] { return AddedSocket(Log, "netlink-genl") >= 0; }));
    EXPECT_TRUE(std::any_of(Log.begin(), Log.end(), [](const std::string &Line) {
        return Contains(Line, "was closed under the monitor");
    }));
    close(Pipe[0]);
    close(Pipe[1]);
    OV_RTCGenlMonitorUninit();
    EXPECT_EQ(fcntl(Fd, F_GETFD), 0);
    close(Fd);
}

TEST_F(MonitorTest, FamilyComesChangesAndGoes)
{
    const size_t Before = OpenDescriptors(); /* the check socket is there already, or comes now */
    const int Fd = Start();
    STRINGS Log;
    const auto Says = [&](const char *Text) {
        Log.clear();
        return Logged(&Log, [&] { return Contains(Log.back(), Text); });
    };
    const auto Lists = [&](const char *Text) {
        return std::any_of(Log.begin(), Log.end(),
                           [=](const std::string &Line) { return Contains(Line, Text); });
    };

    EXPECT_TRUE(WaitUntil([] { return s_Interval == 3; }));
    s_Group = 0x10;
    EXPECT_TRUE(Says("]ovcon: Add Genl socket to epoll"));
    EXPECT_TRUE(Lists("]ovcon: Genl socket check ok"));
    EXPECT_TRUE(Lists("]ovcon: add groupid(16) to members"));
    const int Genl = AddedSocket(Log, "netlink-genl");
    EXPECT_TRUE(WaitUntil([] { return s_Interval == 15; }));
    for (const int Socket : {Fd, Genl}) {
        EXPECT_EQ(fcntl(Socket, F_GETFD), FD_CLOEXEC);
    }

    OV_CON_STATE_NOTIFY State = {};
    State.Id = 77;
    ASSERT_TRUE(SendMessage(
        NETLINK_GENERIC, PortOf(Genl),
        NetlinkMessage(GENL_MIN_ID, BytesOf(genlmsghdr{1, 1, 0}), {{1, BytesOf(State)}})));
    EXPECT_TRUE(WaitUntil([] { return Saw("conn 77"); }));

    /* A family that came back under the same group does not have us as a member. */
    const int Group = 0x10;
    uint32_t Groups[8] = {};
    socklen_t Size = sizeof(Groups);
    ASSERT_EQ(setsockopt(Genl, SOL_NETLINK, NETLINK_DROP_MEMBERSHIP, &Group, sizeof(Group)), 0);
    EXPECT_TRUE(WaitUntil([&] {
        return getsockopt(Genl, SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, Groups, &Size) == 0 &&
               Groups[0] == 1U << (Group - 1);
    }));

    s_Group = 1;
    EXPECT_TRUE(Says("]ovcon: Add Genl socket to epoll"));
    EXPECT_TRUE(Lists("]ovcon: Genl socket groupid changed(pre: 16, cur: 1) ok"));
    s_Group = -1;
    EXPECT_TRUE(Says("]ovcon: Del Genl socket from epoll"));
    EXPECT_TRUE(Lists("]ovcon: Genl socket check error"));
    EXPECT_TRUE(WaitUntil([] { return s_Interval == 3; }));
    Settle();
    OV_RTCGenlMonitorUninit();
    EXPECT_LE(OpenDescriptors(), Before + 1);
}

/* The example, as an operator uses it. */
TEST_F(MonitorTest, ToolPrintsWhatHappens)
{
    EXPECT_EQ(WaitForProcess(StartProcess({BuildFolder() + "/rtcMonitor", "-x"}, {}, "/tmp/usage")),
              2);
    EXPECT_TRUE(Contains(ReadFile("/tmp/usage"), "usage: rtcMonitor"));
    ASSERT_TRUE(Ip("route add default via 10.1.0.2"));
    const pid_t Tool = StartProcess({BuildFolder() + "/rtcMonitor", "-r"},
                                    {"TSAN_OPTIONS=report_bugs=0"}, "/tmp/events");
    const auto Prints = [](const std::string &Line) {
        return WaitUntil([&] { return Contains(ReadFile("/tmp/events"), Line + "\n"); });
    };
    EXPECT_TRUE(Prints(" no dispatch service (Connection refused): the kernel's events only"));
    EXPECT_TRUE(Prints(" route added default/0 via 10.1.0.2 dev v0 table 254 proto boot metric 0"));
    EXPECT_TRUE(WaitUntil([] { /* until it listens */
                               Ip("link set v0 mtu 1399");
                               Ip("link set v0 mtu 1400");
                               return Contains(ReadFile("/tmp/events"), " link v0 mtu 1400\n");
    }));
    EXPECT_TRUE(Ip("route del default"));
    EXPECT_TRUE(
        Prints(" route deleted 0.0.0.0/0 via 10.1.0.2 dev v0 table 254 proto boot metric 0"));
    kill(Tool, SIGTERM);
    EXPECT_EQ(WaitForProcess(Tool), 0);
    EXPECT_TRUE(Ip("link set v0 mtu 1500"));
}
