/* Routes, rules and events, against libnl by hand, ip and bare sockets; and a full start. Runs
 * inside simulator/sandbox.sh, on a network of its own. */
#include "benchmark.h"
#include "loopbackServer.h"
#include "orvaneLibrtc.h"

#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <linux/fib_rules.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <netlink/route/rule.h>
#include <netlink/socket.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

/* A command, without a shell around it. */
static void RunCommand(const std::vector<std::string> &Words)
{
    std::vector<char *> Arguments;
    pid_t Process;
    int Status = -1;

    for (const std::string &Word : Words) {
        Arguments.push_back(const_cast<char *>(Word.c_str()));
    }
    Arguments.push_back(nullptr);
    if (posix_spawnp(&Process, Arguments[0], nullptr, nullptr, Arguments.data(), environ) != 0 ||
        waitpid(Process, &Status, 0) != Process || Status != 0) {
        fprintf(stderr, "%s did not succeed\n", Words[0].c_str());
        exit(1);
    }
}

/* Lines for "ip -batch". */
static std::string BatchFile(const std::string &Path, int Count,
                             const std::function<std::string(uint32_t Index)> &Line)
{
    FILE *Stream = fopen(Path.c_str(), "we");

    for (int Index = 0; Index < Count; Index++) {
        fprintf(Stream, "%s\n", Line(static_cast<uint32_t>(Index)).c_str());
    }
    fclose(Stream);
    return Path;
}

static constexpr uint32_t GATEWAY = 0x0A000002;
static constexpr uint8_t PREFIX_LENGTH = 24;

/* The destination of the route with that index, in host byte order. */
static uint32_t Destination(uint32_t Index)
{
    return 0x0B000000 + (Index << 8);
}

static std::string DestinationText(uint32_t Index)
{
    const OV_IN_ADDR Address = {htonl(Destination(Index))};
    char Text[INET_ADDRSTRLEN];

    OV_SafeStrFormatIp4Addr(Text, sizeof(Text), &Address);
    return Text + ("/" + std::to_string(PREFIX_LENGTH));
}

static void AddRoutes(int Count, const char *IfName)
{
    for (int Index = 0; Index < Count; Index++) {
        OV_RTC_ROUTE_CONF Route = {};
        Route.TargetIp.Ip = Destination(static_cast<uint32_t>(Index));
        Route.TargetIp.Mask = PREFIX_LENGTH;
        Route.NexthopNum = 1;
        Route.Nexthop[0].Ip = GATEWAY;
        OV_SafeStrCopy(Route.IfName[0], sizeof(Route.IfName[0]), IfName);
        if (OV_RTCRouteAdd(&Route) != 0) {
            abort();
        }
    }
}

static struct nl_addr *AddressByHand(uint32_t HostOrder, int PrefixLength)
{
    const uint32_t Ip = htonl(HostOrder);
    struct nl_addr *Address = nl_addr_build(AF_INET, &Ip, sizeof(Ip));

    nl_addr_set_prefixlen(Address, PrefixLength);
    return Address;
}

static struct nl_sock *SocketByHand()
{
    struct nl_sock *Socket = nl_socket_alloc();

    if (nl_connect(Socket, NETLINK_ROUTE) != 0) {
        abort();
    }
    return Socket;
}

static void AddRoutesByHand(int Count, const char *IfName)
{
    for (int Index = 0; Index < Count; Index++) {
        struct nl_sock *Socket = SocketByHand();
        struct rtnl_route *Route = rtnl_route_alloc();
        struct rtnl_nexthop *Nexthop = rtnl_route_nh_alloc();
        struct nl_addr *Address =
            AddressByHand(Destination(static_cast<uint32_t>(Index)), PREFIX_LENGTH);
        struct nl_addr *Gateway = AddressByHand(GATEWAY, 32);

        rtnl_route_set_protocol(Route, RTPROT_BOOT);
        rtnl_route_set_type(Route, RTN_UNICAST);
        rtnl_route_set_scope(Route, RT_SCOPE_UNIVERSE);
        rtnl_route_set_family(Route, AF_INET);
        rtnl_route_set_dst(Route, Address);
        if (*IfName != '\0') {
            rtnl_route_nh_set_ifindex(Nexthop, static_cast<int>(if_nametoindex(IfName)));
        }
        rtnl_route_nh_set_gateway(Nexthop, Gateway);
        rtnl_route_add_nexthop(Route, Nexthop);
        if (rtnl_route_add(Socket, Route, NLM_F_EXCL) != 0) {
            abort();
        }
        nl_addr_put(Gateway);
        nl_addr_put(Address);
        rtnl_route_put(Route);
        nl_socket_free(Socket);
    }
}

static void DeleteRoutes(int /*Count*/)
{
    RunCommand({"ip", "route", "flush", "proto", "boot"});
}

static void BenchRoutes(const char *BackEnd, double Target)
{
    for (const char *IfName : {"", "bench0"}) {
        const std::string Name = std::string("OV_RTCRouteAdd") +
                                 (*IfName ? " with interface" : "") + ", " + BackEnd +
                                 " / libnl by hand";
        for (const int Count : {100, 1000, 10000}) {
            Row(
                Name.c_str(), Count, 11, Target, [&](int Routes) { AddRoutes(Routes, IfName); },
                [&](int Routes) { AddRoutesByHand(Routes, IfName); }, DeleteRoutes);
        }
    }
    for (const int Count : {100, 1000, 10000}) {
        const std::string Batch = BatchFile("/tmp/routes", Count, [](uint32_t Index) {
            return "route add " + DestinationText(Index) + " via 10.0.0.2";
        });
        Row((std::string("OV_RTCRouteAdd, ") + BackEnd + " / ip -batch").c_str(), Count, 11, 1.0,
            [](int Routes) { AddRoutes(Routes, ""); },
            [&](int /*Routes*/) {
                RunCommand({"ip", "-batch", Batch});
            },
            DeleteRoutes);
    }
    const auto Name = [=](const char *Other) {
        return std::string("OV_RTCRouteAdd, ") + BackEnd + " / " + Other;
    };
    Row(
        Name("ip route add").c_str(), 100, 11, 1.0 / 150, [](int Routes) { AddRoutes(Routes, ""); },
        [](int Routes) {
            for (int Index = 0; Index < Routes; Index++) {
                RunCommand({"ip", "route", "add", DestinationText(static_cast<uint32_t>(Index)),
                            "via", "10.0.0.2"});
            }
        },
        DeleteRoutes);
    Row(
        Name("ip route add by system()").c_str(), 100, 11, 1.0 / 150,
        [](int Routes) { AddRoutes(Routes, ""); },
        [](int Routes) {
            for (int Index = 0; Index < Routes; Index++) {
                if (system(("ip route add " + DestinationText(static_cast<uint32_t>(Index)) +
                            " via 10.0.0.2")
                               .c_str()) != 0) {
                    abort();
                }
            }
        },
        DeleteRoutes);
}

static constexpr uint16_t FIRST_PRIORITY = 20000;

static void ChangeRules(int Count, OV_ERR_T (*Change)(const OV_RTC_IP_RULE_CONF *))
{
    for (int Index = 0; Index < Count; Index++) {
        OV_RTC_IP_RULE_CONF Rule = {};
        Rule.Priority = static_cast<uint16_t>(FIRST_PRIORITY + Index);
        Rule.TableId = 100;
        Rule.SrcPrefix.Ip = Destination(static_cast<uint32_t>(Index));
        Rule.SrcPrefix.Mask = PREFIX_LENGTH;
        if (Change(&Rule) != 0) {
            abort();
        }
    }
}

static void AddRulesByHand(int Count)
{
    for (int Index = 0; Index < Count; Index++) {
        struct nl_sock *Socket = SocketByHand();
        struct rtnl_rule *Rule = rtnl_rule_alloc();
        struct nl_addr *Source =
            AddressByHand(Destination(static_cast<uint32_t>(Index)), PREFIX_LENGTH);
        struct nl_cache *Cache = nullptr;

        if (rtnl_rule_alloc_cache(Socket, AF_UNSPEC, &Cache) != 0) {
            abort();
        }
        rtnl_rule_set_action(Rule, FR_ACT_TO_TBL);
        rtnl_rule_set_prio(Rule, static_cast<uint32_t>(FIRST_PRIORITY + Index));
        rtnl_rule_set_table(Rule, 100);
        rtnl_rule_set_family(Rule, AF_INET);
        rtnl_rule_set_src(Rule, Source);
        if (rtnl_rule_add(Socket, Rule, NLM_F_EXCL) != 0) {
            abort();
        }
        nl_addr_put(Source);
        rtnl_rule_put(Rule);
        nl_cache_free(Cache);
        nl_socket_free(Socket);
    }
}

/* Each call reads all rules first: what it takes grows with their number. */
static void BenchRules(const char *BackEnd, double Target)
{
    for (const int Present : {10, 100, 1000}) {
        const std::string Name = std::string("OV_RTCIpRuleAdd, ") + BackEnd + ", " +
                                 std::to_string(Present) + " rules / libnl by hand";
        const auto Line = [](const char *Verb) {
            return [Verb](uint32_t Index) {
                return std::string("rule ") + Verb + " from " + DestinationText(Index) +
                       " priority " + std::to_string(1000 + Index) + " table 7";
            };
        };

        RunCommand({"ip", "-batch", BatchFile("/tmp/rules", Present, Line("add"))});
        Row(
            Name.c_str(), 10, 21, Target, [](int Count) { ChangeRules(Count, OV_RTCIpRuleAdd); },
            AddRulesByHand, [](int Count) { ChangeRules(Count, OV_RTCIpRuleDel); });
        RunCommand({"ip", "-batch", BatchFile("/tmp/rules", Present, Line("del"))});
    }
}

/* ---- Events ---- */

/* Changes routes with one request after the other, and hears of nothing. */
class ROUTE_SOURCE {
  public:
    ROUTE_SOURCE() : Socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}
    ~ROUTE_SOURCE()
    {
        close(Socket);
    }
    ROUTE_SOURCE(const ROUTE_SOURCE &) = delete;
    ROUTE_SOURCE &operator=(const ROUTE_SOURCE &) = delete;

    /* Type: RTM_NEWROUTE or RTM_DELROUTE. */
    void Change(uint16_t Type, int Count) const
    {
        static const uint32_t Interface = if_nametoindex("bench0");

        for (int Index = 0; Index < Count; Index++) {
            struct {
                struct nlmsghdr Header;
                struct rtmsg Route;
                struct rtattr DestinationHeader;
                uint32_t Destination;
                struct rtattr InterfaceHeader;
                uint32_t Interface;
            } Request = {};
            Request.Header = {sizeof(Request), Type, NLM_F_REQUEST | NLM_F_CREATE, 0, 0};
            Request.Route.rtm_family = AF_INET;
            Request.Route.rtm_dst_len = PREFIX_LENGTH;
            Request.Route.rtm_table = RT_TABLE_MAIN;
            Request.Route.rtm_protocol = RTPROT_BOOT;
            Request.Route.rtm_scope = RT_SCOPE_LINK;
            Request.Route.rtm_type = RTN_UNICAST;
            Request.DestinationHeader = {8, RTA_DST};
            Request.Destination = htonl(Destination(static_cast<uint32_t>(Index)));
            Request.InterfaceHeader = {8, RTA_OIF};
            Request.Interface = Interface;
            if (send(Socket, &Request, sizeof(Request), 0) != sizeof(Request)) {
                abort();
            }
        }
    }

  private:
    const int Socket;
};

static std::atomic<int> s_EventCount;
static std::atomic<bool> s_IsHeld;

static int CountEvent(OV_RTC_MONITOR_NOTIFY *Notify)
{
    while (s_IsHeld) {
        usleep(100);
    }
    s_EventCount += Notify->Type == MONITOR_ROUTE ? 1 : 0;
    return 0;
}

static void StartMonitor(const ROUTE_SOURCE &Routes)
{
    if (OV_RTCGenlMonitorInit() != 0 || OV_RTCGenlMonitorRegCallback(CountEvent) != 0) {
        abort();
    }
    for (s_EventCount = 0; s_EventCount == 0; usleep(1000)) { /* until it listens */
        Routes.Change(RTM_NEWROUTE, 1);
        Routes.Change(RTM_DELROUTE, 1);
    }
    usleep(10000);
}

/* "ip monitor route", whose lines can be counted. */
struct IP_MONITOR {
    pid_t Process = -1;
    FILE *Lines = nullptr;

    explicit IP_MONITOR(const ROUTE_SOURCE &Routes)
    {
        int Pipe[2];
        posix_spawn_file_actions_t Actions;
        const char *Arguments[] = {"ip", "monitor", "route", nullptr};

        if (pipe2(Pipe, O_CLOEXEC) != 0) {
            abort();
        }
        posix_spawn_file_actions_init(&Actions);
        posix_spawn_file_actions_adddup2(&Actions, Pipe[1], STDOUT_FILENO);
        if (posix_spawnp(&Process, "ip", &Actions, nullptr, const_cast<char **>(Arguments),
                         environ) != 0) {
            abort();
        }
        posix_spawn_file_actions_destroy(&Actions);
        close(Pipe[1]);
        Lines = fdopen(Pipe[0], "re");
        struct pollfd Ready = {Pipe[0], POLLIN, 0};
        do { /* until it listens */
            Routes.Change(RTM_NEWROUTE, 1);
            Routes.Change(RTM_DELROUTE, 1);
        } while (poll(&Ready, 1, 50) == 0);
        usleep(50000);
        Routes.Change(RTM_NEWROUTE, 2); /* the last of them is told from all before */
        Routes.Change(RTM_DELROUTE, 2);
        char Line[256];
        while (fgets(Line, sizeof(Line), Lines) != nullptr &&
               (strstr(Line, "Deleted 11.0.1.0/24") == nullptr)) {}
    }
    ~IP_MONITOR()
    {
        kill(Process, SIGKILL);
        waitpid(Process, nullptr, 0);
        fclose(Lines);
    }
    IP_MONITOR(const IP_MONITOR &) = delete;
    IP_MONITOR &operator=(const IP_MONITOR &) = delete;

    void Read(int Count) const
    {
        char Line[256];

        while (Count-- > 0) {
            if (fgets(Line, sizeof(Line), Lines) == nullptr) {
                abort();
            }
        }
    }
};

/* Both are held back while the changes are made, so that the consuming alone is timed. */
static void BenchEventRate()
{
    const ROUTE_SOURCE Routes;
    StartMonitor(Routes);
    const IP_MONITOR Theirs(Routes);
    int TheirsLeft = 0;
    const int Events = 1000; /* what fits ip's receive buffer */
    const auto ConsumeOurs = [&](int Count) {
        s_IsHeld = false;
        while (s_EventCount < Count) {
            sched_yield();
        }
    };
    const auto ConsumeTheirs = [&](int /*Count*/) {
        kill(Theirs.Process, SIGCONT);
        Theirs.Read(std::exchange(TheirsLeft, 0));
    };
    const auto Prepare = [&](int Count) {
        ConsumeOurs(s_EventCount == 0 ? 0 : Count);
        ConsumeTheirs(Count);
        kill(Theirs.Process, SIGSTOP);
        s_IsHeld = true;
        s_EventCount = 0;
        Routes.Change(RTM_NEWROUTE, Count / 2);
        Routes.Change(RTM_DELROUTE, Count / 2);
        TheirsLeft = Count;
    };

    s_EventCount = Events;
    Prepare(Events);
    Row("route event, kernel to callback / ip monitor route", Events, 51, 1.0, ConsumeOurs,
        ConsumeTheirs, Prepare);
    ConsumeOurs(Events);
    OV_RTCGenlMonitorUninit();
}

/* A thread that does nothing but receive. */
class BARE_LISTENER {
  public:
    BARE_LISTENER() : Socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE))
    {
        struct sockaddr_nl Address = {};
        Address.nl_family = AF_NETLINK;
        Address.nl_groups = RTMGRP_IPV4_ROUTE;
        if (bind(Socket, reinterpret_cast<struct sockaddr *>(&Address), sizeof(Address)) != 0) {
            abort();
        }
        Receiver = std::thread([this] {
            char Message[8192];
            while (recv(Socket, Message, sizeof(Message), 0) > 0 && !IsOver) {
                s_EventCount++;
            }
        });
    }
    ~BARE_LISTENER()
    {
        const ROUTE_SOURCE Routes;
        IsOver = true;
        Routes.Change(RTM_NEWROUTE, 1);
        Receiver.join();
        Routes.Change(RTM_DELROUTE, 1);
        close(Socket);
    }
    BARE_LISTENER(const BARE_LISTENER &) = delete;
    BARE_LISTENER &operator=(const BARE_LISTENER &) = delete;

  private:
    const int Socket;
    std::atomic<bool> IsOver = false;
    std::thread Receiver;
};

static void BenchEventLatency()
{
    const ROUTE_SOURCE Routes;
    std::unique_ptr<BARE_LISTENER> Bare;
    const auto OneEvent = [&](int /*Count*/) {
        s_EventCount = 0;
        Routes.Change(RTM_NEWROUTE, 1);
        while (s_EventCount == 0) {
            sched_yield();
        }
    };
    const auto ChangeListener = [&](int /*Count*/) {
        Routes.Change(RTM_DELROUTE, 1);
        if (Bare == nullptr) {
            OV_RTCGenlMonitorUninit();
            Bare = std::make_unique<BARE_LISTENER>();
        } else {
            Bare.reset();
            StartMonitor(Routes);
        }
        for (int Index = 0; Index < 100; Index++) { /* as it is after a while */
            OneEvent(1);
            Routes.Change(RTM_DELROUTE, 1);
            usleep(100);
        }
    };

    s_IsHeld = false;
    StartMonitor(Routes);
    Row("one route, request to callback / to a bare recv", 1, 151, 2.0, OneEvent, OneEvent,
        ChangeListener);
    OV_RTCGenlMonitorUninit();
}

/* The steps of a full start and stop, in their order. */
static constexpr struct {
    const char *Name;
    void (*Do)();
} START_STEPS[] = {
    {"messages", [] { OV_FlexMsgInit(); }},
    {"memory", [] { OV_LibrtcMemModuleRegister(); }},
    {"dispatch", [] { OV_DispatchClientInit(); }},
    {"configuration", [] { OV_ImcConfClientInit(); }},
    {"no bypass", [] { OV_RTCBypass(0); }},
    {"rules", OV_RTCNetIpRuleOrderInit},
    {"monitors", [] { OV_RTCMonitorInit(); }},
    {"end of base", [] { OV_DispatchClientExit(), OV_ImcConfClientRelease(); }},
    {"of memory", [] { OV_LibrtcMemModuleUnregister(), OV_FlexMsgRelease(); }},
    {"of monitors", [] { OV_RTCMonitorUninit(); }},
};

/* Against the command that its look for the board takes, on a board that has no bypass. */
static void BenchStart()
{
    static constexpr int ROUNDS = 21;
    const auto Serve = [](int Socket) { ReceiveBytes(Socket, 1); };
    const LOOPBACK_SERVER Requests(54321, Serve);
    const LOOPBACK_SERVER Notifications(54322, Serve);
    const LOOPBACK_SERVER Configuration(55435, Serve);
    std::vector<double> Times[std::size(START_STEPS)];

    for (int Round = 0; Round < ROUNDS; Round++) {
        for (size_t Step = 0; Step < std::size(START_STEPS); Step++) {
            const double Start = Seconds();
            START_STEPS[Step].Do();
            Times[Step].push_back(Seconds() - Start);
        }
    }
    Row(
        "OV_RTCInit + OV_RTCExit / dmidecode by popen", 1, ROUNDS, 2,
        [](int) {
            if (OV_RTCInit(nullptr) != 0) {
                abort();
            }
            OV_RTCExit();
        },
        [](int) { pclose(popen("dmidecode -s baseboard-product-name 2>&1", "re")); });
    printf("  its steps in us:");
    for (size_t Step = 0; Step < std::size(START_STEPS); Step++) {
        printf(" %s %.0f%s", START_STEPS[Step].Name, Median(Times[Step]) * 1e6,
               Step + 1 < std::size(START_STEPS) ? "," : "\n");
    }
}

int main()
{
    Begin();
    RunCommand({"ip", "link", "add", "bench0", "type", "veth", "peer", "name", "bench1"});
    RunCommand({"ip", "link", "set", "bench0", "up"});
    RunCommand({"ip", "link", "set", "bench1", "up"});
    RunCommand({"ip", "address", "add", "10.0.0.1/24", "dev", "bench0"});
    BenchEventRate();
    BenchEventLatency();
    for (const bool IsLogged : {true, false}) {
        const char *BackEnd = IsLogged ? "logged" : "no log";
        const double Target = IsLogged ? 1 / 0.8 : 1 / 0.95;

        if (IsLogged) {
            if (OV_AgentFileLogCtor("/tmp/routes.log") != 0) {
                abort();
            }
        } else {
            OV_AgentLogDtor();
            OV_AgentCustomLogCtor(nullptr, nullptr);
        }
        BenchRoutes(BackEnd, Target);
        BenchRules(BackEnd, Target);
    }
    BenchStart();
    return 0;
}
