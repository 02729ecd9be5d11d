/* The data path's events on both their ways, the netlink family and the dispatch service: a record
 * read beyond what arrived, an event that differs from what was sent, a good message lost after a
 * bad one, memory kept; the states that are sent back; the route dump. */
#include "linuxRtcGenlFamilyInternal.h"
#include "linuxRtcMonitor.h"
#include "linuxRtcSockMonitor.h"
#include "loopbackServer.h"
#include "netlinkMessage.h"
#include "orvaneDispatchClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLibrtcMem.h"
#include "orvaneRtcLibnlInternal.h"
#include "testSupport.h"

#include <atomic>
#include <future>
#include <linux/rtnetlink.h>
#include <netlink/netlink.h>
#include <sys/resource.h>

/* How a record travels: an attribute of the family, a notification of the service; 0: not so. */
struct WAY {
    uint16_t Attribute;
    uint8_t Module;
    uint16_t Type;
    uint64_t Event;
    size_t Size; /* of the fixed fields */
};
static constexpr WAY FAMILY_CONN = {1, 0, 0, MONITOR_CONN, 60};
static constexpr WAY SERVICE_CONN = {0, 2, 240, MONITOR_CONN, 60};
static constexpr WAY URL = {2, 3, 29, MONITOR_URL_FLOW, 80};
static constexpr WAY NETIO = {3, 4, 14, MONITOR_NETIO, 208};
static constexpr WAY REPORT = {4, 3, 30, MONITOR_DATAPATH, 8};
static constexpr WAY FAMILY_RATE = {5, 0, 0, MONITOR_RATELIMIT, 12296};
static constexpr WAY SERVICE_RATE = {0, 9, 6, MONITOR_RATELIMIT, 12296};
static constexpr WAY CLUSTER = {0, 3, 32, MONITOR_SA_CLUSTER_MSG, 12};
static constexpr WAY PEER = {0, 2, 241, MONITOR_PEER_HOST_REACHABLE, 12};

static OV_CON_STATE_NOTIFY Conn(bool IsIpv6)
{
    OV_CON_STATE_NOTIFY State = {1,    2,  3,  IsIpv6, 0x55, 4000000000, 2000,
                                 3000, {}, {}, 50000,  443,  77,         78};

    State.SrcIp = {.V6 = {32, 1, 13, 184, 9}};
    State.DstIp = {.V6 = {254, 128, 2}};
    return State;
}

/* First is the interface's state, or how many IPv4 addresses it has. IfName has no NUL. */
static std::string Netio(char Type, uint8_t First, uint8_t Ip6Count)
{
    const OV_CONF_IPMULTI Ip4 = {First, {0x0A0B0C01, 2, 3, 4, 5, 6, 7, 0xFFFEFDFC}, {24, 25}};
    const OV_CONF_IP6MULTI Ip6 = {Ip6Count, {{{{32, 1}}}, {{{254, 128, 2}}}}, {64, 65}};

    return Type + std::string("\x09\x40\x9c-123456789abcdef") + BytesOf(4000000000U) +
           BytesOf(Ip4) + BytesOf(Ip6);
}

static std::string Report(uint32_t DataLen, const std::string &Data)
{
    return BytesOf(OV_DP_REPORT_HEADER{7, 8, DataLen}) + Data;
}

static std::string Rate(uint16_t Count, size_t Size)
{
    return BytesOf(OV_RATE_LIMIT_STATE_NOTIFY_HEADER{1, 2, Count}) + std::string(Size - 4, 'r');
}

static STRINGS s_Events;          /* what is expected, without the zeros behind the record */
static std::atomic<size_t> s_Got; /* how many of them have come; setting it hands them over */
static STRINGS s_Routes;

static int Compare(OV_RTC_MONITOR_NOTIFY *Notify)
{
    if (Notify->Type != MONITOR_LINK && Notify->Type != MONITOR_ROUTE) { /* of this machine */
        std::string &Event = s_Events.at(s_Got);
        Event.resize(std::max(Event.size(), sizeof(*Notify)));
        EXPECT_EQ(memcmp(Notify, Event.data(), Event.size()), 0);
        s_Got++;
    }
    return 0;
}

/* Everything runs. A log has the level's number ahead of each line, and not the threads' warnings.
 */
class ConState : public testing::Test {
  protected:
    const NL_SOCK_SCOPE Sock{_RTCMonitorCreateGenl()};
    const uint32_t Port = nl_socket_get_local_port(Sock.get());
    std::atomic<size_t> Echoed = 0;
    LOOPBACK_SERVER Config{54321, [](int Socket) { ReceiveBytes(Socket, 1); }};
    LOOPBACK_SERVER Notify{54322, [this](int Socket) {
                               for (std::string Byte; !(Byte = ReceiveBytes(Socket, 1)).empty();
                                    Echoed++) {
                                   SendBytes(Socket, Byte);
                               }
                           }};

    void SetUp() override
    {
        RecordLog();
        OV_AgentLogOps()->LimitLevel = OV_AGENT_LOG_LEVEL_INFO; /* not what the links do */
        OV_LibrtcMemModuleRegister();
        ASSERT_EQ(OV_DispatchClientInit(), 0);
        ASSERT_EQ(OV_RTCMonitorInit(), 0);
        EXPECT_EQ(OV_RTCMonitorInit(), -EBADE);
        EXPECT_EQ(OV_RTCMonitorRegCallback(Compare), 0);
        EXPECT_EQ(OV_RTCSockMonitorRegCallback([](auto *) { return 0; }), 0); /* too late */
        STRINGS Started; /* its last line is about its socket */
        EXPECT_TRUE(WaitUntil([&] {
            Started = TakeLog();
            return !Started.empty() && Contains(Started.back(), "]add netlink-route socket");
        }));
    }
    void TearDown() override
    {
        char Usage[64];
        EXPECT_EQ(OV_RTCMonitorUnregCallback(15), 0); /* the other monitor's, for any id */
        EXPECT_EQ(OV_RTCMonitorUninit(), 0);
        EXPECT_EQ(OV_DispatchClientGetModuleFunc(13), nullptr);
        OV_DispatchClientExit();
        OV_LibrtcMemGetUsage(Usage, sizeof(Usage));
        EXPECT_STREQ(Usage, "[MEMINFO]LIBRTC:Counter=0,Size=0\n");
    }
    /* To the handler, in a block that ends with the record. */
    static void Handle(const WAY &Way, const std::string &Record, uint32_t Length)
    {
        const auto Frame = BytesOf(OV_DISPATCH_HDR{0, Way.Module, Way.Type, Length}) + Record;
        std::vector<uint8_t> Block(Frame.begin(), Frame.end());
        OV_DISPATCH_DESC Desc = {Block.data(), static_cast<uint32_t>(Block.size()), 0, 0, {}};
        EXPECT_EQ(OV_DispatchClientGetModuleFunc(Way.Module)(&Desc), &Desc);
    }
    static void Check(const std::function<void()> &Send, const STRINGS &Events,
                      const std::string &Log)
    {
        std::string Logged;
        s_Events = Events;
        s_Got = 0;
        Send();
        EXPECT_TRUE(WaitUntil([&] {
            Logged += TakeMessages("13");
            return s_Got == Events.size() && Logged.size() >= Log.size();
        }));
        EXPECT_EQ(Logged, Log);
    }
    void AddFamily(const NETLINK_ATTRIBUTES &Attributes, const STRINGS &Events,
                   const std::string &Log, uint8_t Command = 1)
    {
        const auto Message = NetlinkMessage(32, BytesOf(genlmsghdr{Command, 1, 0}), Attributes);
        const auto Length = "3 nlh->nlmsg_len=" + std::to_string(Message.size()) + "\n";
        Check([&] { ParseMessage(_RTCMonitorParseGenlMsg, Message); }, Events, Length + Log);
        ASSERT_TRUE(SendMessage(NETLINK_GENERIC, Port, Message));
        Check([&] { EXPECT_EQ(nl_recvmsgs_default(Sock.get()), 0); }, Events, Length + Log);
    }
    /* The event is the record's first Kept bytes; for 0 there is none. */
    void Add(const WAY &Way, const std::string &Record, size_t Kept, const std::string &Log = "")
    {
        const STRINGS Events(Kept == 0 ? 0 : 1, BytesOf(Way.Event) + Record.substr(0, Kept));
        const auto Size = static_cast<uint32_t>(Record.size());
        if (Way.Attribute != 0) {
            AddFamily({{Way.Attribute, Record}}, Events, Log);
        }
        if (Way.Module != 0) {
            Check([&] { Handle(Way, Record, 8 + Size); }, Events, Log);
            Check([&] { OV_DispatchNotifyReply(Way.Module, Way.Type, Record.data(), Size); },
                  Events, Log);
        }
    }
};

TEST_F(ConState, EachRecordBecomesItsEventOrIsRefused)
{
    const std::string Flow(80, 'f');
    const std::string State = "1 recv ovconn state notify: id = 4000000000 type = 1 subtype = 2 "
                              "value = 2000 ";
    const std::string Mode = " mode = 3 sessionid=3000 srcip=";
    const std::string Ports = " srcport = 50000 dstport = 443 policyid=77 ";
    const std::string Names =
        " WanId: 9 LanId: 40000 IfName: -123456789abcdef NotifySeq: 4000000000";
    const std::string Type1 = "1 recv netio notify(Type: 1" + Names;
    const std::string BadLength = "3 data-path report: expected a DataLen of 8 to 12, ";
    const std::string BadCount = "3 netio: expected at most 8 addresses of a family, ";
    OV_CON_STATE_NOTIFY Sent = Conn(false);
    const std::string Conn4 = BytesOf(Sent);
    const std::string UpLine = "1 recv netio notify(Type: 0" + Names + " ifstate: up)\n";
    const std::string ServiceLine =
        State + "IsIpv6Ptx = 0" + Mode + "184.13.1.32 dstip=0.2.128.254" + Ports + "BuddyId=78\n";
    const std::string ConnLine =
        State + "reserved = 85" + Mode + "3087860000 dstip=164094" + Ports + "\n";

    nl_socket_modify_cb(Sock.get(), NL_CB_VALID, NL_CB_CUSTOM, _RTCMonitorParseGenlMsg, nullptr);
    nl_socket_set_msg_buf_size(Sock.get(), 1U << 16);
    /* The service returns what is sent to it. */
    Check([&] { OV_RTCMonitorGenlSendPtxNotify(&Sent); }, {BytesOf(SERVICE_CONN.Event) + Conn4},
          ServiceLine);
    EXPECT_TRUE(WaitUntil([&] { return Echoed == 68; }));
    Add(NETIO, Netio(0, 9, 0), 208, "1 recv netio notify(Type: 0" + Names + " ifstate: down)\n");
    Add(NETIO, Netio(0, 0, 9), 208, UpLine);
    Add(NETIO, Netio(1, 0, 0) + "more", 208, Type1 + ")\n");
    Add(NETIO, Netio(1, 8, 8), 208,
        Type1 + " ipv4[0]:10.11.12.1/24 ipv4[1]:0.0.0.2/25 ipv4[2]:0.0.0.3/0 ipv4[3]:0.0.0.4/0 "
                "ipv4[4]:0.0.0.5/0 ipv4[5]:0.0.0.6/0 ipv4[6]:0.0.0.7/0 ipv4[7]:255.254.253.252/0 "
                "ipv6[0]:2001::/64 ipv6[1]:fe80:200::/65 ipv6[2]:::/0 ipv6[3]:::/0 ipv6[4]:::/0 "
                "ipv6[5]:::/0 ipv6[6]:::/0 ipv6[7]:::/0)\n");
    Add(NETIO, Netio(1, 9, 8), 0, BadCount + "9 and 8 came\n");
    Add(NETIO, Netio(1, 0, 255), 0, BadCount + "0 and 255 came\n");
    Add(NETIO, Netio(2, 0, 0), 0, "3 Netio notify type 2 is invalid\n");
    Add(NETIO, Netio(3, 0, 0), 0, "3 Netio notify type 3 is invalid\n");
    Add(FAMILY_CONN, Conn4 + "more", 60, ConnLine);
    Add(SERVICE_CONN, Conn4 + "more", 60, ServiceLine);
    Add(SERVICE_CONN, BytesOf(Conn(true)), 60,
        State + "IsIpv6Ptx = 1" + Mode + "2001:db8:900:: dstip=fe80:200::" + Ports +
            "BuddyId=78\n");
    Add(URL, Flow + std::string("http://host/path\0behind", 23), 97);
    Add(URL, Flow + std::string(20000, 'u') + '\0', 20081);
    Add(URL, Flow + '\0', 81);
    Add(URL, Flow + "url", 84); /* with the NUL that did not come */
    Add(URL, Flow, 80);
    Add(REPORT, Report(8, "behind"), 8);
    Add(REPORT, Report(20000, std::string(19992, 'd')), 20000);
    Add(REPORT, Report(7, "data"), 0, BadLength + "7 came\n");
    Add(REPORT, Report(13, "data"), 0, BadLength + "13 came\n");
    Add(FAMILY_RATE, Rate(0, 12297), 12296);
    Add(SERVICE_RATE, Rate(900, 30000), 12296);
    Add(SERVICE_RATE, Rate(1, 4), 4);
    Add(SERVICE_RATE, Rate(0, 12296), 0);
    Add(SERVICE_RATE, "\1\2\1", 0, "3 Invalide ratelimit notify\n");
    Add(CLUSTER, std::string(12400, 'c'), 12400);
    Add(CLUSTER, std::string(8, 'c'), 8);
    Add(PEER, BytesOf(OV_PEER_HOST_NOTIFY{1, 0, {3000000000}}), 12,
        "1 recv ovconn peer host notify: NotifyType = 1(reachable) CustomerId = 0 PopId = "
        "3000000000 \n1 Receive reachable notify from Datapath due to at least one connection "
        "with PopId 3000000000 has been up\n");
    Add(PEER, BytesOf(OV_PEER_HOST_NOTIFY{2, 1, {4}}), 12,
        "1 recv ovconn peer host notify: NotifyType = 2(unreachable) CustomerId = 1 CpeId = 4 \n"
        "1 Receive unreachable notify from Datapath due to all connections with CpeId 4 have been "
        "down\n");
    Add({0, 13, 240, 0, 0}, "", 0, "3 Unknown notify MOD=13 Type=240\n");
    for (const WAY &Way : {FAMILY_CONN, SERVICE_CONN, URL, NETIO, REPORT, FAMILY_RATE, PEER}) {
        const std::string Short(Way.Size - 1, '\1');
        const std::string Line = ": expected " + std::to_string(Way.Size) + " bytes, " +
                                 std::to_string(Way.Size - 1) + " came\n";
        Add({Way.Attribute, 0, 0, 0, 0}, Short, 0,
            "3 family attribute " + std::to_string(Way.Attribute) + Line);
        Add({0, Way.Module, Way.Type, 0, 0}, Short, 0,
            "3 dispatch type " + std::to_string(Way.Type) + Line);
    }
    Add(PEER, BytesOf(OV_PEER_HOST_NOTIFY{0, 5, {6}}), 12,
        "1 recv ovconn peer host notify: NotifyType = 0(unreachable) CustomerId = 5 CpeId = 6 \n"
        "1 Receive unreachable notify from Datapath due to all connections with CpeId 6 have been "
        "down\n");
    /* What a bad attribute does to the others, which are handled in the order of their numbers. */
    AddFamily({{3, Netio(0, 0, 9)}, {1, Conn4}, {9, "new"}},
              {BytesOf(FAMILY_CONN.Event) + Conn4, BytesOf(NETIO.Event) + Netio(0, 0, 9)},
              ConnLine + UpLine);
    AddFamily({{5, Rate(1, 12296)}, {4, Report(7, "data")}, {2, Flow + "url"}, {1, ""}},
              {BytesOf(URL.Event) + Flow + "url", BytesOf(FAMILY_RATE.Event) + Rate(1, 12296)},
              "3 family attribute 1: expected 60 bytes, 0 came\n" + BadLength + "7 came\n");
    AddFamily({{3, Netio(2, 0, 0)}, {4, Report(8, "")}}, {}, "3 Netio notify type 2 is invalid\n");
    AddFamily({{4, Report(8, "")}}, {},
              "3 Oops? The message type is not MC_CONN(cmd: 2); ignoring.\n", 2);
    /* Without a callback, with lengths that lie, without memory. */
    OV_RTCSockMonitorUnregCallback();
    Handle(REPORT, Report(8, ""), 16);
    Handle(PEER, "eleven byte", UINT32_MAX);
    Handle(PEER, "", 7);
    OV_LibrtcMemModuleUnregister();
    Handle(URL, std::string(81, '\0'), 89);
    ParseMessage(_RTCMonitorParseGenlMsg,
                 NetlinkMessage(32, "\1\1xx", {{2, std::string(81, '\0')}, {3, Netio(0, 9, 0)}}));
    ParseMessage(_RTCMonitorParseGenlMsg,
                 NetlinkMessage(32, "\1\1xx", {{4, Report(8, "")}, {5, Rate(1, 12296)}}));
    ParseMessage(_RTCMonitorParseGenlMsg, NetlinkMessage(32, "cut", {}));
    EXPECT_EQ(
        TakeMessages("13"),
        "3 dispatch type 241: expected 12 bytes, 11 came\n3 dispatch type 241: expected 12 bytes, "
        "0 came\n3 malloc error\n3 nlh->nlmsg_len=320\n3 malloc error\n3 nlh->nlmsg_len=12332\n3 "
        "Can't apply for memory\n3 nlh->nlmsg_len=19\n3 genlmsg_parse(err: -21)\n");
    OV_LibrtcMemModuleRegister();
}

TEST_F(ConState, AStateGoesOutToWhoIsThere)
{
    const NL_SOCK_SCOPE Kernel(_RTCMonitorCreateGenl()); /* stands for it */
    OV_CON_STATE_NOTIFY State = Conn(false);
    std::vector<std::future<void>> Senders;
    const size_t Descriptors = OpenDescriptors();
    std::string Log = "3 invalid param \n3 invalid param \n";
    const auto Received = [&] {
        return ReceiveBytes(nl_socket_get_fd(Kernel.get()), 128).erase(7, 9).substr(4);
    };

    EXPECT_EQ(OV_RTCSockMonitorSendPtxNotify(nullptr), -EINVAL);
    EXPECT_EQ(OV_RTCGenlMonitorSendPtxNotify(nullptr), -1);
    for (int Count = 0; Count < 100; Count++) { /* the family is not there */
        Senders.push_back(std::async(
            std::launch::async, [&] { EXPECT_EQ(OV_RTCGenlMonitorSendPtxNotify(&State), -1); }));
        Log += "3 get famili id failed(-1)\n";
    }
    Senders.clear();
    EXPECT_LT(OpenDescriptors(), Descriptors + 50);
    nl_socket_set_peer_port(Sock.get(), nl_socket_get_local_port(Kernel.get()));
    SendMessage(NETLINK_GENERIC, Port, NetlinkMessage(16, "\1\2xx", {{1, "\x34\x12"}}));
    EXPECT_EQ(_RTCMonitorGenlGetPtxFamilyId(Sock.get()), 0x1234);
    EXPECT_EQ(Received(), std::string("\x10\0\5\3\1\0\0\x12\0\2\0ov_con_family\0\0\0", 27));
    EXPECT_EQ(_OV_RTCMonitorGenlSendPtxNotify(Sock.get(), &State), 0);
    EXPECT_EQ(Received(), std::string("\x34\x12\5\2\1\0\0\x40\0\1\0", 11) + BytesOf(State));
    nl_socket_set_peer_port(Sock.get(), 1); /* nobody's */
    EXPECT_EQ(_OV_RTCMonitorGenlSendPtxNotify(Sock.get(), &State), -1);
    EXPECT_EQ(_RTCMonitorGenlGetPtxFamilyId(Sock.get()), -1);
    Log += "1 get family id 4660\n1 send notify to ovconn success, id:-294967296 value:2000\n";
    Log += "3 send notify to ovconn failed, id:-294967296 value:2000,Connection refused\n";
    EXPECT_EQ(TakeMessages("13"), Log);

    struct rlimit All;
    getrlimit(RLIMIT_NOFILE, &All);
    const struct rlimit None = {0, All.rlim_max};
    setrlimit(RLIMIT_NOFILE, &None);
    EXPECT_EQ(OV_RTCGenlMonitorSendPtxNotify(&State), -1);
    EXPECT_EQ(OV_RTCGenlMonitorGetAllRoute(Compare), -1);
    setrlimit(RLIMIT_NOFILE, &All);
    EXPECT_EQ(TakeMessages("13"), "3 genl_connect failed(err: -1)\n3 _RTCMonitorCreateGenl failed\n"
                                  "3 genl_connect failed(err: -1)\n");
}

TEST_F(ConState, TheDumpHasEveryRoute)
{
    const auto Deleted =
        NetlinkMessage(RTM_DELROUTE, BytesOf(rtmsg{AF_INET, 8, 0, 0, 254, 4, 0, 1, 0}), {});
    const NotifyCallback Keep = [](OV_RTC_MONITOR_NOTIFY *Event) {
        const OV_KERNEL_ROUTE_NOTIFY &Route = Event->RouteNotify;
        char Text[128];
        snprintf(Text, sizeof(Text), "%s/%u %s %s %u %u %u %u", Route.Dst, Route.DstMask,
                 Route.Gateway, Route.ifName, Route.Priority, Route.Protocol, Route.TableId,
                 Route.Event);
        s_Routes.emplace_back(Text);
        return 0;
    };
    ASSERT_FALSE(system("ip link add r0 up type veth peer r1; ip addr add 10.1.0.1/24 dev r0;"
                        "ip route add default via 10.1.0.2 metric 7;"
                        "ip route add 0.0.0.0/8 dev r0 proto 99 table 100;"
                        "ip route add 10.2.0.0/16 nexthop via 10.1.0.3 nexthop via 10.1.0.4"));
    EXPECT_EQ(OV_RTCGenlMonitorGetAllRoute(nullptr), 0);
    EXPECT_EQ(OV_RTCGenlMonitorGetAllRoute(Keep), 0);
    ParseMessage(_RTCMonitorAllRouteParse, Deleted, reinterpret_cast<void *>(Keep));
    std::erase_if(s_Routes, [](const std::string &Route) { return Contains(Route, " 255 1"); });
    EXPECT_EQ(s_Routes, (STRINGS{"0.0.0.0/8  r0 0 99 100 1", "default/0 10.1.0.2 r0 7 3 254 1",
                                 "10.1.0.0/24  r0 0 2 254 1", "10.2.0.0/16  r0 0 3 254 1",
                                 "0/8   0 4 254 1"}));
}
