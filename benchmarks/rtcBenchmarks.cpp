/*
 * Each row is a ratio: our way against what one would do by hand, alternating in one run so that a
 * noisy machine falls on both. The median of the rounds counts. Runs inside simulator/sandbox.sh.
 */
#include "boardModel.h"
#include "linuxRtc.h"
#include "orvaneDispatchClient.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLogFile.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "orvanePlatformRcu.h"
#include "orvaneRtcIpRule.h"
#include "orvaneRtcRoute.h"
#include "orvaneSafeStr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <linux/fib_rules.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
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
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

static constexpr const char *BOARD_PATH = "/tmp/board";

static double Seconds()
{
    struct timespec Now;

    clock_gettime(CLOCK_MONOTONIC, &Now);
    return static_cast<double>(Now.tv_sec) + static_cast<double>(Now.tv_nsec) / 1e9;
}

static double Median(std::vector<double> Values)
{
    std::sort(Values.begin(), Values.end());
    return Values[Values.size() / 2];
}

using WORK = std::function<void(int Count)>;

/* Count is the work of one round; each way does it Rounds times. Undo, if there is one, follows
 * each of them and is not timed. */
static void Row(const char *Name, int Count, int Rounds, double Target, const WORK &Ours,
                const WORK &Theirs, const WORK &Undo = nullptr)
{
    std::vector<double> OurTimes;
    std::vector<double> TheirTimes;
    const auto Time = [&](const WORK &Work) {
        const double Start = Seconds();
        Work(Count);
        const double Used = Seconds() - Start;
        if (Undo) {
            Undo(Count);
        }
        return Used / Count;
    };

    Time(Ours);
    Time(Theirs);
    for (int Round = 0; Round < Rounds; Round++) {
        OurTimes.push_back(Time(Ours));
        TheirTimes.push_back(Time(Theirs));
    }
    const double Mine = Median(OurTimes);
    const double Other = Median(TheirTimes);
    printf("%-58s %8d %10.3f us %10.3f us %6.3g  (at most %.3g)%s\n", Name, Count, Mine * 1e6,
           Other * 1e6, Mine / Other, Target, Mine / Other <= Target ? "" : "  MISSED");
    fflush(stdout);
}

static std::string BuildFolder()
{
    char Self[4096] = "";

    if (readlink("/proc/self/exe", Self, sizeof(Self) - 1) < 0) {
        abort();
    }
    *strrchr(Self, '/') = '\0';
    return Self;
}

/* bypass_cmd -b 1 on the simulated board; what its process used. */
static struct rusage RunTool()
{
    static const std::string Program = BuildFolder() + "/bypass_cmd";
    static const std::string Preload = "LD_PRELOAD=" + BuildFolder() + "/librtcBoard.so";
    static const std::string Path = std::string("PATH=") + getenv("PATH");
    const char *Arguments[] = {Program.c_str(), "-b", "1", nullptr};
    const char *Environment[] = {Preload.c_str(), Path.c_str(), "RTC_BOARD=/tmp/board",
                                 "RTC_BOARD_NAME=B1904", nullptr};
    struct rusage Usage = {};
    pid_t Process;
    int Status = -1;

    if (posix_spawn(&Process, Program.c_str(), nullptr, nullptr, const_cast<char **>(Arguments),
                    const_cast<char **>(Environment)) != 0 ||
        wait4(Process, &Status, 0, &Usage) != Process || Status != 0) {
        fputs("bypass_cmd did not run\n", stderr);
        exit(1);
    }
    return Usage;
}

static void CaptureByHand(const char *Command)
{
    char Output[48] = "";
    char Line[1024];
    size_t Length = 0;
    FILE *Pipe = popen(Command, "re");

    if (Pipe == nullptr) {
        abort();
    }
    while (fgets(Line, sizeof(Line), Pipe) != nullptr && Length + strlen(Line) < sizeof(Output)) {
        memcpy(Output + Length, Line, strlen(Line) + 1);
        Length += strlen(Line);
    }
    pclose(Pipe);
}

static void BenchTool()
{
    setenv("RTC_BOARD_NAME", "B1904", 1);
    if (BoardFileCreate(BOARD_PATH, "B1904") != 0) {
        abort();
    }
    BOARD_STATE *Board = BoardFileOpen(BOARD_PATH);

    Row(
        "bypass_cmd -b 1, simulated / dmidecode by popen", 1, 501, 1.5,
        [](int Count) {
            for (int Index = 0; Index < Count; Index++) {
                RunTool();
            }
        },
        [](int Count) {
            for (int Index = 0; Index < Count; Index++) {
                CaptureByHand("dmidecode -s baseboard-product-name");
            }
        });
    if (BoardRelay(Board, 1) != RELAY_BYPASS) {
        fputs("the relay did not move\n", stderr);
        exit(1);
    }
    BoardFileClose(Board);
}

static void BenchLog()
{
    static FILE *Plain = fopen("/tmp/plain.log", "ae");

    if (Plain == nullptr || OV_AgentFileLogCtor("/tmp/agent.log") != 0) {
        abort();
    }
    for (const int Count : {1000, 10000, 100000}) {
        Row(
            "a log line / fprintf + fflush of the same bytes", Count, 11, 1.5,
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    OV_LOG_INFO("set %s %s %s(ret: %d)", "Huier-J1900", "bypass", "success", Index);
                }
            },
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    fprintf(Plain, "%s[%s][%s-%d]set %s %s %s(ret: %d)\n",
                            "[2026/11/22_21:15:15.182]", "INFO", "operator()", 150, "Huier-J1900",
                            "bypass", "success", Index);
                    fflush(Plain);
                }
            });
    }
    OV_AgentLogDtor();
    fclose(Plain);
}

static void BenchLogFile()
{
    static constexpr char PATH[] = "/tmp/rotating.log";
    static const int32_t Id = OV_LogFileInit(PATH, strlen(PATH));
    static FILE *Plain = fopen("/tmp/plainFile.log", "ae");

    if (Plain == nullptr) {
        abort();
    }
    OV_LogFileSetMaxFileSize(static_cast<uint32_t>(Id), UINT32_MAX);
    for (const int Count : {1000, 10000, 100000}) {
        Row(
            "a log-file line / fprintf + fflush of the same bytes", Count, 11, 1.5,
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    OV_Log2File(static_cast<uint32_t>(Id), "set %s %s %s(ret: %d)\n", "Huier-J1900",
                                "bypass", "success", Index);
                }
            },
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    fprintf(Plain, "%sset %s %s %s(ret: %d)\n", "[2026/11/22_21:15:15.182]",
                            "Huier-J1900", "bypass", "success", Index);
                    fflush(Plain);
                }
            });
    }
    OV_LogFileRelease(static_cast<uint32_t>(Id));
    fclose(Plain);
}

static void BenchCommand()
{
    for (const int Count : {10, 100, 1000}) {
        Row(
            "OV_RTCExecCmd(\"true\") / popen, fgets, pclose by hand", Count, 11, 1.05,
            [](int Commands) {
                char Output[48];
                for (int Index = 0; Index < Commands; Index++) {
                    OV_RTCExecCmd("true", Output, sizeof(Output));
                }
            },
            [](int Commands) {
                for (int Index = 0; Index < Commands; Index++) {
                    CaptureByHand("true 2>&1");
                }
            });
    }
}

/* Two threads at once, each doing the whole work with its own module or by itself. */
static WORK OnTwoThreads(const std::function<void(int Thread, int Count)> &Work)
{
    return [Work](int Count) {
        std::thread Other(Work, 1, Count);
        Work(0, Count);
        Other.join();
    };
}

static void MallocAndFree(int Count, size_t Size)
{
    for (int Index = 0; Index < Count; Index++) {
        void *Block = malloc(Size);
        __asm__ volatile("" : : "r"(Block) : "memory"); /* the pair is not to be optimised away */
        free(Block);
    }
}

static void BenchMemory()
{
    static const int32_t Modules[] = {OV_MemModRegister("first", 5),
                                      OV_MemModRegister("second", 6)};
    static const int32_t Pool = OV_MemPoolCreate("bench", 5, 64, 0, 0);
    const auto Accounted = [](int Thread, int Count, size_t Size) {
        for (int Index = 0; Index < Count; Index++) {
            OV_MemFree(Modules[Thread], OV_MemAlloc(Modules[Thread], Size, 0));
        }
    };

    for (const size_t Size : {64U, 640U, 6400U}) {
        const std::string Name = "accounted alloc + free / malloc + free, " + std::to_string(Size);
        Row(
            Name.c_str(), 1000000, 11, 5, [&](int Count) { Accounted(0, Count, Size); },
            [&](int Count) { MallocAndFree(Count, Size); });
    }
    Row("the same of 64, two threads on two modules", 1000000, 11, 5,
        OnTwoThreads([&](int Thread, int Count) { Accounted(Thread, Count, 64); }),
        OnTwoThreads([](int /*Thread*/, int Count) { MallocAndFree(Count, 64); }));

    OV_RcuRegisterThread();
    Row(
        "pool alloc + free / malloc + free, 64", 1000000, 11, 3,
        [](int Count) {
            for (int Index = 0; Index < Count; Index++) {
                OV_MemPoolFree(Pool, OV_MemPoolAlloc(Pool));
            }
        },
        [](int Count) { MallocAndFree(Count, 64); });
    OV_RcuUnregisterThread();
}

/* Every result goes into the sum, and both ways must come to the same one: no work can be left out,
 * and none can be another work. */
static uint32_t s_AddressSum;

static void AddAddress(const OV_INET_ADDR &Address)
{
    s_AddressSum =
        s_AddressSum * 31 + (Address.All[0] ^ Address.All[1] ^ Address.All[2]) + Address.All[3];
}

static void AddText(const char *Text, size_t Length)
{
    s_AddressSum =
        s_AddressSum * 31 + static_cast<uint32_t>(Text[Length - 1]) + static_cast<uint32_t>(Length);
}

static constexpr size_t ADDRESS_COUNT = 8;

/* An address row: each way does its work on the address of that index, over and over. */
template <typename OURS, typename THEIRS>
static void AddressRows(const char *Name, double Target, OURS Ours, THEIRS Theirs)
{
    const auto Repeat = [](int Count, auto Work) {
        s_AddressSum = 0;
        for (int Index = 0; Index < Count; Index++) {
            Work(static_cast<size_t>(Index) % ADDRESS_COUNT);
        }
        return s_AddressSum;
    };

    if (Repeat(ADDRESS_COUNT, Ours) != Repeat(ADDRESS_COUNT, Theirs)) {
        fprintf(stderr, "%s: different results\n", Name);
        exit(1);
    }
    for (const int Count : {10000, 100000, 1000000}) {
        Row(
            Name, Count, 11, Target, [&](int Addresses) { Repeat(Addresses, Ours); },
            [&](int Addresses) { Repeat(Addresses, Theirs); });
    }
}

/* Our reader takes the length: counting it belongs to the work, as libc counts it, too. */
static bool ReadAddress(const char *Text, OV_IN_ADDR *Address)
{
    const bool Read = OV_SafeStrGetIp4Addr(Text, strlen(Text), &Address->S4Addr) != nullptr;

    Address->S4Addr = htonl(Address->S4Addr);
    return Read;
}

static bool ReadAddress(const char *Text, OV_IN6_ADDR *Address)
{
    return OV_SafeStrGetIp6Addr(Text, strlen(Text), Address) != nullptr;
}

template <int Family, typename ADDRESS, auto Format>
static void BenchFamily(const char *ReadName, double ReadTarget, const char *WriteName,
                        const char *const (&Texts)[ADDRESS_COUNT])
{
    OV_INET_ADDR Addresses[ADDRESS_COUNT] = {};

    for (size_t Index = 0; Index < ADDRESS_COUNT; Index++) {
        inet_pton(Family, Texts[Index], &Addresses[Index]);
    }
    AddressRows(
        ReadName, ReadTarget,
        [&](size_t Index) {
            OV_INET_ADDR Address = {};
            if (!ReadAddress(Texts[Index], reinterpret_cast<ADDRESS *>(&Address))) {
                abort();
            }
            AddAddress(Address);
        },
        [&](size_t Index) {
            OV_INET_ADDR Address = {};
            if (inet_pton(Family, Texts[Index], &Address) != 1) {
                abort();
            }
            AddAddress(Address);
        });
    AddressRows(
        WriteName, 1.1,
        [&](size_t Index) {
            char Text[INET6_ADDRSTRLEN];
            const auto *Address = reinterpret_cast<const ADDRESS *>(&Addresses[Index]);
            AddText(Text, Format(Text, sizeof(Text), Address));
        },
        [&](size_t Index) {
            char Text[INET6_ADDRSTRLEN];
            inet_ntop(Family, &Addresses[Index], Text, sizeof(Text));
            AddText(Text, strlen(Text));
        });
}

static void BenchAddresses()
{
    BenchFamily<AF_INET, OV_IN_ADDR, OV_SafeStrFormatIp4Addr>(
        "IPv4 read / inet_pton", 0.7, "IPv4 write / inet_ntop",
        {"0.0.0.0", "10.0.0.1", "8.8.8.8", "192.168.1.1", "255.255.255.255", "172.16.254.13",
         "100.64.0.200", "1.2.3.4"});
    BenchFamily<AF_INET6, OV_IN6_ADDR, OV_SafeStrFormatIp6Addr>(
        "IPv6 read / inet_pton", 1.0, "IPv6 write / inet_ntop",
        {"::", "::1", "fe80::1", "2001:db8::1:0:0:1", "fe80::21a:2bff:fe3c:4d5e",
         "2001:db8:85a3:8d3:1319:8a2e:370:7348", "::ffff:192.168.1.1", "ff02::fb"});
}

/* What one message of the running row has, on both of its connections. */
static std::atomic<size_t> s_MessageSize;

/* Sends each message back. One thread serves both connections: two could be put on processors that
 * are not equally busy. */
static void ServeBoth(int Listening)
{
    static char Message[1 << 16];
    struct pollfd Sockets[] = {{accept(Listening, nullptr, nullptr), POLLIN, 0},
                               {accept(Listening, nullptr, nullptr), POLLIN, 0}};

    for (ssize_t Count = 1; Count > 0;) {
        poll(Sockets, 2, -1);
        const int Socket = Sockets[Sockets[0].revents != 0 ? 0 : 1].fd;
        Count = recv(Socket, Message, s_MessageSize, MSG_WAITALL);
        if (Count > 0) {
            send(Socket, Message, static_cast<size_t>(Count), MSG_NOSIGNAL);
        }
    }
    close(Sockets[0].fd);
    close(Sockets[1].fd);
}

/* A client of ours against a bare socket: the same bytes both ways, one send on each side. */
struct EXCHANGE {
    const char *Name;
    uint16_t Port;
    size_t HeaderSize;
    OV_ERR_T (*Start)();
    void (*Stop)();
    OV_ERR_T (*Exchange)(char *Payload, size_t Bytes);
};

static void ExchangeByHand(int Socket, std::vector<char> *Message)
{
    if (send(Socket, Message->data(), Message->size(), MSG_NOSIGNAL) < 0 ||
        recv(Socket, Message->data(), Message->size(), MSG_WAITALL) <= 0) {
        abort();
    }
}

static void BenchExchange(const EXCHANGE &Client)
{
    struct sockaddr_in Address = {};
    const int One = 1;
    const int Listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int Plain = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto *Peer = reinterpret_cast<const struct sockaddr *>(&Address);

    Address.sin_family = AF_INET;
    Address.sin_port = htons(Client.Port);
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(Listening, SOL_SOCKET, SO_REUSEADDR, &One, sizeof(One));
    if (bind(Listening, Peer, sizeof(Address)) != 0 || listen(Listening, 2) != 0 ||
        Client.Start() != 0 || connect(Plain, Peer, sizeof(Address)) != 0) {
        abort();
    }
    std::thread Service(ServeBoth, Listening);
    for (const size_t Bytes : {64U, 640U, 6400U}) {
        const std::string Name = std::string(Client.Name) + " exchange of " +
                                 std::to_string(Bytes) + " bytes / a bare socket";
        std::vector<char> Message(Client.HeaderSize + Bytes);

        s_MessageSize = Message.size();
        Row(
            Name.c_str(), 2000, 21, 1.2,
            [&](int Count) {
                for (int Index = 0; Index < Count; Index++) {
                    if (Client.Exchange(Message.data(), Bytes) != 0) {
                        abort();
                    }
                }
            },
            [&](int Count) {
                for (int Index = 0; Index < Count; Index++) {
                    ExchangeByHand(Plain, &Message);
                }
            });
    }
    close(Plain);
    Client.Stop();
    Service.join();
    close(Listening);
}

static OV_DISPATCH_DESC *s_Dispatch;

static void BenchExchanges()
{
    BenchExchange({"IMC", 55435, sizeof(OV_IMC_REQ_HDR), OV_ImcConfClientInit,
                   OV_ImcConfClientRelease,
                   [](char *Payload, size_t Bytes) { /* module and operation 0 come back as 0 */
                                                     return OV_ImcConfGet(0, 0, Payload, Bytes,
                                                                          Payload, Bytes);
                   }});
    BenchExchange({"dispatch", 54321, sizeof(OV_DISPATCH_HDR),
                   [] {
                       const OV_ERR_T Error = OV_DispatchClientInitNoNotify();
                       s_Dispatch = OV_DispatchAllocDesc(0);
                       return Error;
                   },
                   [] {
                       OV_DispatchFreeDesc(s_Dispatch);
                       OV_DispatchClientExit();
                   },
                   [](char *Payload, size_t Bytes) {
                       OV_DispatchInitHdr(s_Dispatch, 0, 0);
                       OV_DispatchPut(s_Dispatch, Payload, static_cast<int32_t>(Bytes));
                       return OV_DispatchConfigure(s_Dispatch);
                   }});
}

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

/* A call opens a socket of its own; ip takes one for a whole batch, but has to start first. */
static void BenchRoutes(const char *BackEnd, double Target)
{
    for (const char *IfName : {"", "bench0"}) {
        const std::string Name = std::string("OV_RTCRouteAdd") +
                                 (*IfName ? " with interface" : "") + ", " + BackEnd +
                                 " / libnl by hand";
        for (const int Count : {100, 1000, 10000}) {
            Row(
                Name.c_str(), Count, 21, Target, [&](int Routes) { AddRoutes(Routes, IfName); },
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
    for (const int Count : {10, 100}) {
        Row((std::string("OV_RTCRouteAdd, ") + BackEnd + " / ip route add").c_str(), Count, 11,
            1.0 / 150, [](int Routes) { AddRoutes(Routes, ""); },
            [](int Routes) {
                for (int Index = 0; Index < Routes; Index++) {
                    RunCommand({"ip", "route", "add", DestinationText(static_cast<uint32_t>(Index)),
                                "via", "10.0.0.2"});
                }
            },
            DeleteRoutes);
    }
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

static void BenchNetlink()
{
    RunCommand({"ip", "link", "add", "bench0", "type", "veth", "peer", "name", "bench1"});
    RunCommand({"ip", "link", "set", "bench0", "up"});
    RunCommand({"ip", "link", "set", "bench1", "up"});
    RunCommand({"ip", "address", "add", "10.0.0.1/24", "dev", "bench0"});
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
}

int main()
{
    printf("%-58s %8s %13s %13s %6s\n", "ours / by hand", "count", "ours", "by hand", "ratio");
    BenchTool();
    BenchCommand();
    BenchLog();
    BenchLogFile();
    BenchMemory();
    BenchAddresses();
    BenchExchanges();
    BenchNetlink();
    /* The figure includes what this process held when it started the tool. */
    printf("bypass_cmd peak memory: at most %ld kB (at most 8192)\n", RunTool().ru_maxrss);
    return 0;
}
