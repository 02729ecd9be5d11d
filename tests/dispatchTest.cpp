/* Dispatch: a frame that is read or written beyond its buffer, a reply that reaches the wrong
 * caller, a notification lost, a stop that hangs, leaks or leaves a second reader behind. */
#include "linuxRtc.h"
#include "loopbackServer.h"
#include "orvaneDispatchClient.h"
#include "orvaneImc.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "testSupport.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <wchar.h>

static constexpr uint16_t CONFIG_PORT = 54321;
static constexpr uint16_t NOTIFY_PORT = 54322;
static constexpr uint8_t MODULE = 3;

static std::string Frame(uint8_t Module, uint16_t Type, const std::string &Payload,
                         uint32_t Excess = 0)
{
    return BytesOf(OV_DISPATCH_HDR{0, Module, Type,
                                   static_cast<uint32_t>(8 + Payload.size()) + Excess}) +
           Payload;
}

/* One whole frame, or what came of it. */
static std::string ReceiveFrame(int Socket)
{
    std::string Bytes = ReceiveBytes(Socket, sizeof(OV_DISPATCH_HDR));
    OV_DISPATCH_HDR Header = {};

    if (Bytes.size() == sizeof(Header)) {
        memcpy(&Header, Bytes.data(), sizeof(Header));
        Bytes += ReceiveBytes(Socket, Header.Length - sizeof(Header));
    }
    return Bytes;
}

static void Echo(int Socket)
{
    std::string Request;

    do {
        Request = ReceiveFrame(Socket);
    } while (!Request.empty() && SendBytes(Socket, Request));
}

/* Neither answers nor reads, until the connection ends. */
static void StaySilent(int Socket)
{
    struct pollfd End = {Socket, POLLRDHUP, 0};

    poll(&End, 1, -1);
}

static std::string TextOf(OV_DISPATCH_DESC *Desc)
{
    return {static_cast<char *>(OV_DispatchPayload(Desc)),
            static_cast<size_t>(OV_DispathUsedSize(Desc))};
}

/* What the module holds, "" without a registration. */
static std::string ModuleUsage()
{
    for (int32_t ModId = 0; ModId < OV_MEM_MODULE_COUNT; ModId++) {
        OV_USEAGE_INFO Info = {};
        OV_MemGetUsage(ModId, &Info);
        if (strcmp(Info.Name, "dispatch_client") == 0) {
            return std::to_string(Info.MemCounter) + "/" + std::to_string(Info.VmemCounter);
        }
    }
    return "";
}

#if defined(__SANITIZE_ADDRESS__) || \
    defined(__SANITIZE_THREAD__) /* which lose their way in a fork */
static constexpr bool FORKS = false;
#else
static constexpr bool FORKS = true;
#endif

/* What Do returned in a forked child. */
static int InChild(const std::function<int()> &Do)
{
    const pid_t Child = FORKS ? fork() : 1;

    if (Child == 0) {
        alarm(10);
        _exit(Do());
    }
    return FORKS ? WaitForProcess(Child) : 0;
}

/* How many sockets the client has: the servers' are on their ports. */
static int ClientSockets()
{
    int Count = 0;

    for (int Descriptor = 0; Descriptor < 1024; Descriptor++) {
        struct sockaddr_in Own = {};
        socklen_t Length = sizeof(Own);
        if (getsockname(Descriptor, reinterpret_cast<struct sockaddr *>(&Own), &Length) == 0 &&
            Own.sin_family == AF_INET) {
            Count += ntohs(Own.sin_port) != CONFIG_PORT && ntohs(Own.sin_port) != NOTIFY_PORT;
        }
    }
    return Count;
}

/* A listener there with a queue of one that nobody empties: the kernel lets the next one wait. */
struct BUSY_SERVER {
    const int Listener;
    OV_SOCKET Filler = -1;

    explicit BUSY_SERVER(uint16_t Port) : Listener(ListenOnLoopback(Port, 0))
    {
        EXPECT_EQ(OV_ImcConnect(INADDR_LOOPBACK, Port, &Filler), 0);
    }
    ~BUSY_SERVER()
    {
        close(Filler);
        close(Listener);
    }
    static bool KeepsOneWaiting()
    {
        return WaitUntil([] {
            const std::string Table = ReadFile("/proc/self/net/tcp");
            return Contains(Table, ":D431 02") || Contains(Table, ":D432 02");
        });
    }
};

static std::atomic<int> s_Notified;

static OV_DISPATCH_DESC *CountIt(OV_DISPATCH_DESC *Desc)
{
    s_Notified++;
    return Desc;
}

class Dispatch : public testing::Test {
  protected:
    const size_t DescriptorsBefore = OpenDescriptors();
    const size_t ThreadsBefore = OpenThreads();
    std::atomic<int> Served = 0; /* for the servers' functions */
    std::optional<LOOPBACK_SERVER> Config{std::in_place, CONFIG_PORT, Echo};
    std::optional<LOOPBACK_SERVER> Notify{std::in_place, NOTIFY_PORT, StaySilent};

    static void SetUpTestSuite()
    {
        std::thread([] {}).join(); /* with the first one a sanitizer starts its own */
    }
    void SetUp() override
    {
        TakeSystemLog();
        s_Notified = 0;
    }
    /* Whatever a test did, the stop leaves nothing. */
    void TearDown() override
    {
        OV_DispatchClientExit();
        OV_DispatchClientDelModuleFunc(MODULE, OV_DispatchClientGetModuleFunc(MODULE));
        EXPECT_EQ(OV_DispatchClientGetModuleFunc(MODULE), nullptr);
        EXPECT_EQ(ModuleUsage(), "");
        for (const std::string &Line : TakeSystemLog()) {
            EXPECT_FALSE(Contains(Line, "leak")) << Line;
        }
        Config.reset();
        Notify.reset();
        EXPECT_TRUE(WaitUntil([this] {
            return OpenDescriptors() == DescriptorsBefore && OpenThreads() <= ThreadsBefore;
        }));
    }
    static void Replace(std::optional<LOOPBACK_SERVER> &Server, uint16_t Port,
                        const LOOPBACK_SERVER::SERVE &Serve)
    {
        Server.reset();
        Server.emplace(Port, Serve);
    }
    static void Handle(OV_DISPATCH_FUNC Func)
    {
        ASSERT_EQ(OV_DispatchClientAddModuleFunc(MODULE, Func), 0);
    }
    /* Sends Payload as a request of that type. */
    static OV_ERR_T Exchange(OV_DISPATCH_DESC *Desc, uint16_t Type, const std::string &Payload)
    {
        OV_DispatchInitHdr(Desc, MODULE, Type);
        EXPECT_EQ(OV_DispatchPut(Desc, Payload.data(), static_cast<int32_t>(Payload.size())), 0);
        return OV_DispatchConfigure(Desc);
    }
};

/* The library connects by this one, too: only when a stop has ended what is being made, if so
 * wanted. */
static std::atomic<bool> s_ConnectsLate;
static std::atomic<int> s_Late;
extern "C" int connect(int Socket, const struct sockaddr *Address, socklen_t Length)
{
    if (s_ConnectsLate) {
        s_Late = 1;
        usleep(200000);
    }
    return static_cast<int>(syscall(SYS_connect, Socket, Address, Length));
}

static OV_ERR_T ExchangeUnaccounted(uint64_t Number = 0)
{
    alignas(OV_DISPATCH_HDR) uint8_t Buff[64] = {8}; /* outlives the client's module */
    OV_DISPATCH_DESC Desc = {};

    Desc.Buff = Buff;
    Desc.Size = sizeof(Buff);
    OV_DispatchInitHdr(&Desc, MODULE, 1);
    OV_DispatchPut(&Desc, &Number, sizeof(Number));
    const OV_ERR_T Error = OV_DispatchConfigure(&Desc);
    return Error == 0 && TextOf(&Desc) != BytesOf(Number) ? -EBADMSG : Error;
}

/* Runs first: an exchange before any start connects by itself, and the start takes over. */
TEST_F(Dispatch, AnExchangeMayComeBeforeTheStart)
{
    const auto CountWrong = [](uint64_t First) {
        int Wrong = 0;
        for (uint64_t Number = First; Number < First + 1000; Number++) {
            Wrong += ExchangeUnaccounted(Number) != 0;
        }
        return Wrong;
    };
    EXPECT_EQ(CountWrong(0), 0);
    std::thread Parent([&] { EXPECT_EQ(CountWrong(1000), 0); });
    EXPECT_EQ(InChild([&] { return CountWrong(2000) != 0 || ClientSockets() != 1; }), 0);
    Parent.join();
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    EXPECT_EQ(ExchangeUnaccounted(), 0);
    EXPECT_EQ(Config->Connections(), FORKS ? 3U : 2U);
}

/* A connection too many is one that somebody receives on for ever. */
TEST_F(Dispatch, ExchangesBesideRestartsAreOnTheStartsConnection)
{
    static constexpr size_t STARTS = 1500;
    std::atomic<bool> Stop = false;
    std::vector<std::jthread> Users;

    OV_DispatchClientExit(); /* from now on no exchange connects by itself */
    for (int User = 0; User < 2; User++) {
        Users.emplace_back([&] {
            while (!Stop) {
                OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
                if (Desc == nullptr || Exchange(Desc, 1, std::string(3000, 'l')) != 0) {
                    usleep(100);
                }
                OV_DispatchFreeDesc(Desc);
            }
        });
    }
    for (size_t Start = 0; Start < STARTS; Start++) {
        ASSERT_EQ(OV_DispatchClientInit(), 0);
        OV_DispatchClientExit();
    }
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    Stop = true;
    Users.clear();
    EXPECT_TRUE(WaitUntil([&] { return Config->Connections() >= STARTS + 1; }));
    EXPECT_EQ(Config->Connections(), STARTS + 1);
    EXPECT_EQ(ModuleUsage(), "0/0");
    TakeSystemLog(); /* of each stop: what the users held */
}

TEST_F(Dispatch, AStartLetsNobodyInBeforeItIsComplete)
{
    Notify.reset();
    const BUSY_SERVER Busy(NOTIFY_PORT);
    std::thread Starting([] { EXPECT_EQ(OV_DispatchClientInit(), 0); });
    EXPECT_TRUE(Busy.KeepsOneWaiting());
    EXPECT_EQ(ExchangeUnaccounted(), -ESHUTDOWN);
    EXPECT_EQ(OV_DispatchClientInit(), -EALREADY);
    EXPECT_FALSE(OV_DispatchClientIsListening());
    OV_DispatchClientExit(); /* nothing yet that could be stopped */
    EXPECT_EQ(InChild([] { return ClientSockets() - 1; }), 0); /* the filler's */
    const int Accepted[] = {accept(Busy.Listener, nullptr, nullptr),
                            accept(Busy.Listener, nullptr, nullptr)};
    Starting.join();
    EXPECT_EQ(ExchangeUnaccounted(), 0);
    EXPECT_TRUE(OV_DispatchClientIsListening());
    OV_DispatchClientExit();
    EXPECT_EQ(ExchangeUnaccounted(), -ESHUTDOWN);
    close(Accepted[0]);
    close(Accepted[1]);
}

TEST_F(Dispatch, WhatIsNoMessageIsNotSent)
{
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    for (const auto Alloc : {OV_DispatchAllocDesc, OV_DispatchVmemAllocDesc}) {
        OV_DISPATCH_DESC *Desc = Alloc(0);
        EXPECT_EQ(OV_DispatchConfigure(Desc), -EINVAL);
        OV_DispatchInitHdr(Desc, MODULE, 1);
        for (const uint32_t Length : {7U, Desc->Size + 1, UINT32_MAX}) {
            OV_DispatchHeader(Desc)->Length = Length;
            EXPECT_EQ(OV_DispatchConfigure(Desc), -EINVAL) << Length;
        }
        EXPECT_EQ(OV_DispatchSend(-1, Desc), -EINVAL);
        EXPECT_EQ(Exchange(Desc, 1, "whole"), 0);
        OV_DispatchFreeDesc(Desc);
    }
    EXPECT_EQ(Config->Connections(), 1U);
}

TEST_F(Dispatch, ADescriptorMayOutliveItsStart)
{
    const std::string Long(5000, 'l');
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    OV_DISPATCH_DESC *const Descs[] = {OV_DispatchAllocDesc(0), OV_DispatchVmemAllocDesc(0)};
    OV_DISPATCH_DESC *Freed = OV_DispatchAllocDesc(0);
    OV_DispatchClientExit();
    OV_DispatchFreeDesc(Freed);
    TakeSystemLog(); /* they were reported */
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    for (OV_DISPATCH_DESC *Desc : Descs) {
        EXPECT_EQ(Exchange(Desc, 1, "grown "), 0);
        EXPECT_EQ(OV_DispatchPrintf(Desc, "%s", Long.c_str()), 5000);
        EXPECT_EQ(TextOf(Desc), "grown " + Long);
        OV_DispatchFreeDesc(Desc);
    }
    EXPECT_EQ(ModuleUsage(), "0/0");
}

TEST_F(Dispatch, AMessageGrowsInItsBuffer)
{
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    for (const auto &[Room, Size] : {std::pair(0U, 2048), {2048U, 2048}, {2049U, 2057}}) {
        OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(Room);
        EXPECT_EQ(OV_DispatchSize(Desc), Size);
        OV_DispatchFreeDesc(Desc);
    }
    EXPECT_EQ(OV_DispatchAllocDesc(UINT32_MAX), nullptr);
    EXPECT_EQ(OV_DispatchVmemAllocDesc(UINT32_MAX - 8), nullptr);
    EXPECT_EQ(ModuleUsage(), "0/0");

    const std::string Long(2047, 'l');
    OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
    OV_DispatchInitHdr(Desc, 7, 0x1234);
    EXPECT_EQ(BytesOf(*OV_DispatchHeader(Desc)), std::string("\0\x07\x34\x12\x08\0\0\0", 8));
    OV_DispatchPut(Desc, Long.data(), 9);
    OV_DispatchSetRetCode(Desc, -22);
    EXPECT_EQ(TextOf(Desc), "\xEA\xFF\xFF\xFF");
    EXPECT_EQ(OV_DispatchGetRetCode(Desc), -22);
    EXPECT_EQ(Desc->Buff[12], '\0');
    static constexpr struct {
        bool IsText;
        int32_t Count, Size; /* of the buffer afterwards */
    } STEPS[] = {{false, 2035, 2048}, {false, 1, 4096}, {true, 2047, 4096}, {true, 1, 8192}};
    std::string Whole = TextOf(Desc);
    for (const auto &[IsText, Count, Size] : STEPS) {
        EXPECT_EQ(IsText ? OV_DispatchPrintf(Desc, "%.*s", Count, Long.c_str())
                         : OV_DispatchPut(Desc, Long.data(), Count),
                  IsText ? Count : 0);
        EXPECT_EQ(OV_DispatchSize(Desc), Size);
        Whole.append(Long, 0, static_cast<size_t>(Count));
    }
    EXPECT_EQ(OV_DispatchPut(Desc, Long.data(), -1), -ENOMEM);
    EXPECT_EQ(OV_DispatchPrintf(Desc, "a%lc", static_cast<wint_t>(0x20AC)), -ENOMEM);
    EXPECT_EQ(TextOf(Desc), Whole);

    /* A length from nowhere leads nowhere. */
    OV_DispatchHeader(Desc)->Length = UINT32_MAX;
    EXPECT_EQ(OV_DispathUsedSize(Desc), 8184);
    OV_DispatchResetPayload(Desc);
    EXPECT_EQ(TextOf(Desc), "");
    OV_DispatchHeader(Desc)->Length = 3;
    EXPECT_EQ(OV_DispathUsedSize(Desc), 0);
    EXPECT_DEATH(OV_DispatchResetPayload(Desc),
                 "orvaneDispatch:.*\\(dispatchHdr->Length >= sizeof\\(OV_DISPATCH_HDR\\)\\)");
    OV_DispatchFreeDesc(Desc);
    OV_DispatchFreeDesc(nullptr);

    TakeSystemLog();
    Desc = OV_DispatchVmemAllocDesc(1);
    OV_DispatchInitHdr(Desc, 7, 1);
    EXPECT_EQ(OV_DispatchPut(Desc, Long.data(), 2040), -ENOMEM);
    EXPECT_EQ(TakeSystemLog(),
              STRINGS{"4 [OV_DispatchPut:672] Use memory from pool, but the size is not enough, "
                      "bufsize=2048, needsize=0.\n"});
    EXPECT_EQ(OV_DispatchPrintf(Desc, "%s", Long.c_str()), 2047); /* may grow all the same */
    EXPECT_EQ(TextOf(Desc), Long);
    EXPECT_EQ(ModuleUsage(), "0/2");
    OV_DispatchFreeDesc(Desc);

    Desc = OV_DispatchAllocDesc(0);
    OV_DispatchInitHdr(Desc, 7, 1);
    const int32_t Pool = OV_MemPoolCreate("pool", 4, 40, 0, 0);
    EXPECT_EQ(
        TextOf(OV_DispatchGetVersion(OV_DispatchGetMemPoolUsage(OV_DispatchGetMemUsage(Desc)))),
        "dispatch_client 2104 2 0 0\npool 40 0\nVersion:5.0.0.64\n");
    OV_MemPoolDestroy(Pool);
    OV_DispatchFreeDesc(Desc);
}

TEST_F(Dispatch, EachWayInWhichAReplyArrivesOrDoesNot)
{
    struct ROW {
        std::string Reply;
        size_t Piece;
        bool Closes;
        OV_ERR_T Result;
        std::string Text;
        int32_t Size; /* of the buffer afterwards */
    };
    static const std::string Long(4992, 'l');
    static const ROW Rows[] = {
        {Frame(1, 2, "at once"), SIZE_MAX, false, 0, "at once", 2048},
        {Frame(14, 2, "byte by byte"), 1, false, 0, "byte by byte", 2048},
        {Frame(1, 2, Long), 777, false, 0, Long, 5001},
        {Frame(1, 2, std::string(2040, 'f')), 7, false, 0, std::string(2040, 'f'), 2049},
        {BytesOf(OV_DISPATCH_HDR{0, 1, 2, 3}), SIZE_MAX, false, 0, "", 2048},
        {Frame(15, 2, "module"), SIZE_MAX, false, -EBADR, "", 2048},
        {"\1" + Frame(1, 2, "version").substr(1), SIZE_MAX, false, -EBADR, "", 2048},
        {Frame(1, 2, "").substr(0, 7), SIZE_MAX, true, -EREMOTEIO, "", 2048},
        {Frame(1, 2, "payload", 1), SIZE_MAX, true, -EREMOTEIO, "", 2048},
        {"", SIZE_MAX, true, -EREMOTEIO, "", 2048},
        {BytesOf(OV_DISPATCH_HDR{0, 1, 2, UINT32_MAX}), 3, false, -ENOMEM, "", 2048},
        {BytesOf(OV_DISPATCH_HDR{0, 1, 2, 0xF0000000}) + "few", 3, true, -EREMOTEIO, "",
         -268435455},
    };
    static std::atomic<const ROW *> Current;
    Replace(Config, CONFIG_PORT, [](int Socket) {
        while (ReceiveFrame(Socket).size() >= sizeof(OV_DISPATCH_HDR)) {
            const ROW &Row = *Current;
            if (!SendBytes(Socket, Row.Reply, Row.Piece) || Row.Closes) {
                return;
            }
        }
    });
    struct rusage Before, After;
    getrusage(RUSAGE_SELF, &Before);
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    size_t Connections = 1;
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Reply.substr(0, 30));
        Current = &Row;
        OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
        EXPECT_EQ(Exchange(Desc, 9, "what was asked"), Row.Result);
        EXPECT_EQ(TextOf(Desc), Row.Text);
        EXPECT_EQ(OV_DispatchSize(Desc), Row.Size);
        if (Row.Result == 0) {
            EXPECT_EQ(Desc->Buff[8 + Row.Text.size()], '\0');
        } else {
            Current = &Rows[0];
            EXPECT_EQ(OV_DispatchConfigure(Desc), -EINVAL); /* what was asked is gone */
            OV_DispatchSetRetCode(Desc, 0);
            EXPECT_EQ(OV_DispatchConfigure(Desc), -EINVAL);
            EXPECT_EQ(Exchange(Desc, 9, "next"), 0); /* on a new connection */
            EXPECT_EQ(TextOf(Desc), "at once");
            Connections++;
        }
        EXPECT_EQ(Config->Connections(), Connections);
        OV_DispatchFreeDesc(Desc);
    }

    /* 4 GB that only a length field spoke of have cost no memory. */
    getrusage(RUSAGE_SELF, &After);
    EXPECT_LT(After.ru_maxrss - Before.ru_maxrss, 1L << 20);
}

TEST_F(Dispatch, ASocketThatDoesNotWaitIsAskedAgain)
{
    const std::string Sent = Frame(1, 2, std::string(1U << 20, 'n')); /* more than a socket holds */
    std::string Got;
    int Ends[2];

    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, Ends), 0);
    ASSERT_EQ(fcntl(Ends[0], F_SETFL, O_NONBLOCK), 0);
    OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
    std::thread Peer([&] {
        SendBytes(Ends[1], Sent, 1000);
        Got = ReceiveFrame(Ends[1]);
    });
    EXPECT_EQ(OV_DispatchRecv(Ends[0], Desc), 0);
    EXPECT_EQ(OV_DispatchSend(Ends[0], Desc), 0);
    Peer.join();
    EXPECT_TRUE(Got == Sent);
    OV_DispatchFreeDesc(Desc);
    close(Ends[0]);
    close(Ends[1]);
}

TEST_F(Dispatch, EachThreadGetsItsOwnReplyAlsoAcrossARestart)
{
    std::atomic<bool> Stop = false;
    std::atomic<int> Answered = 0;
    std::vector<std::jthread> Threads;

    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    for (int Number = 0; Number < 4; Number++) {
        Threads.emplace_back([&, Number] {
            OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
            for (int Count = 0; !Stop; Count++) {
                const std::string Text = std::to_string(Number) + ":" + std::to_string(Count);
                if (Exchange(Desc, static_cast<uint16_t>(Number), Text) == 0) {
                    EXPECT_EQ(TextOf(Desc), Text);
                    EXPECT_EQ(OV_DispatchHeader(Desc)->Type, Number);
                    Answered++;
                }
            }
            OV_DispatchFreeDesc(Desc);
        });
    }
    for (int Restart = 0; Restart <= 3; Restart++) {
        const int Sooner = Answered;
        EXPECT_TRUE(WaitUntil([&] { return Answered > Sooner + 1000; }));
        if (Restart < 3) {
            Replace(Config, CONFIG_PORT, Echo);
        }
    }
    Stop = true;
    Threads.clear();
}

TEST_F(Dispatch, NoNotificationOfAStormIsLost)
{
    static constexpr int COUNT = 100000;
    static std::atomic<bool> s_InOrder;
    s_InOrder = true;
    Handle([](OV_DISPATCH_DESC *Desc) {
        s_InOrder = s_InOrder && TextOf(Desc) == std::to_string(s_Notified);
        return CountIt(Desc);
    });
    EXPECT_EQ(OV_DispatchClientAddModuleFunc(MODULE, CountIt), -EBADE) << "one a module";
    OV_DispatchClientDelModuleFunc(MODULE, CountIt); /* another's: stays */
    Replace(Notify, NOTIFY_PORT, [](int Socket) {
        std::string Bytes;
        for (int Count = 0; Count < COUNT; Count++) {
            Bytes += Frame(MODULE, 1, std::to_string(Count));
            if (Count % 100 == 0) {
                Bytes += Frame(MODULE + 1, 1, "for nobody");
            }
        }
        SendBytes(Socket, Bytes, 60007); /* pieces that end anywhere */
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    EXPECT_TRUE(WaitUntil([] { return s_Notified == COUNT; })) << s_Notified;
    EXPECT_TRUE(s_InOrder);
}

TEST_F(Dispatch, TheThreadReconnectsOnceAndEndsWhenItCannot)
{
    Handle(CountIt);
    Replace(Notify, NOTIFY_PORT, [this](int Socket) {
        SendBytes(Socket, Frame(MODULE, 1, "hello"));
        Served += ReceiveFrame(Socket) == Frame(5, 6, "pushed");
        StaySilent(Socket);
    });
    OV_DispatchNotifyReply(5, 6, "pushed", 6); /* before the start: nothing */
    EXPECT_FALSE(OV_DispatchClientIsListening());
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    EXPECT_EQ(OV_DispatchClientInit(), -EALREADY);
    EXPECT_EQ(OV_DispatchClientInitNoNotify(), -EALREADY);
    for (int Connection = 1; Connection <= 2; Connection++) {
        EXPECT_TRUE(WaitUntil([=] { return s_Notified == Connection; }));
        OV_DispatchNotifyReply(5, 6, "pushed", 6);
        EXPECT_TRUE(WaitUntil([=, this] { return Served == Connection; }));
        EXPECT_TRUE(OV_DispatchClientIsListening());
        if (Connection == 1) {
            Notify->Disconnect();
        }
    }
    EXPECT_EQ(Notify->Connections(), 2U);

    TakeSystemLog();
    Notify.reset();
    EXPECT_TRUE(WaitUntil([] { return !OV_DispatchClientIsListening(); }));
    EXPECT_EQ(ModuleUsage(), "0/0"); /* the thread has ended */
    const STRINGS Log = TakeSystemLog();
    ASSERT_EQ(Log.size(), 2U);
    EXPECT_TRUE(Log[0].starts_with("6 [_OV_DispatchNotifyClientThread:") &&
                Log[0].ends_with("]Fail to receive config messages, maybe socket is closed! "
                                 "retcode=-121\n"))
        << Log[0];
    EXPECT_EQ(Log[1], "3 [_OV_DispatchConnect:105]Fail to connect to server 127.0.0.1:54322! "
                      "retcode=-111\n");
    OV_DispatchNotifyReply(5, 6, "pushed", 6); /* no connection: nothing */
}

TEST_F(Dispatch, AStartThatFailsLeavesNothing)
{
    const auto Refused = [this](OV_ERR_T (*Start)(), size_t Servers, const char *Text) {
        EXPECT_EQ(Start(), -ECONNREFUSED);
        const STRINGS Log = TakeSystemLog();
        ASSERT_EQ(Log.size(), 2U);
        EXPECT_TRUE(Log[1].starts_with("3 [OV_DispatchClientInit") && Log[1].ends_with(Text))
            << Log[1];
        EXPECT_EQ(ModuleUsage(), "");
        EXPECT_TRUE(
            WaitUntil([=, this] { return OpenDescriptors() == DescriptorsBefore + Servers; }));
    };
    Notify.reset();
    Refused(OV_DispatchClientInit, 1, "]failed to connect notify server! retcode=-111\n");
    Config.reset();
    for (const auto Start : {OV_DispatchClientInit, OV_DispatchClientInitNoNotify}) {
        Refused(Start, 0, "]Fail to connect to server! retcode=-111\n");
    }
}

/* A server that neither answers nor reads must not keep a stop waiting. */
TEST_F(Dispatch, AStopEndsExchangesAndPushesThatHang)
{
    static const std::string s_Large(64U << 20, 'l');
    Handle(CountIt);
    Replace(Config, CONFIG_PORT, StaySilent);
    Replace(Notify, NOTIFY_PORT, [this](int Socket) {
        if (Served == 0) {
            EXPECT_TRUE(WaitUntil([this] { return Served == 1; }));
            shutdown(Socket, SHUT_WR);
        } else {
            SendBytes(Socket, Frame(MODULE, 1, "hello"));
        }
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    for (const auto &Entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const bool IsSocket = Contains(std::filesystem::read_symlink(Entry), "socket:");
        const int Flags = fcntl(std::stoi(Entry.path().filename()), F_GETFD);
        EXPECT_TRUE(!IsSocket || Flags == FD_CLOEXEC) << "a child would have it: " << Entry;
    }
    std::atomic<int> Begun = 0;
    std::vector<std::jthread> Threads;
    for (int Number = 0; Number < 6; Number++) {
        Threads.emplace_back([&, Number] {
            Begun++;
            if (Number % 2 == 0) {
                EXPECT_LT(ExchangeUnaccounted(), 0);
                return;
            }
            OV_DispatchNotifyReply(5, 6, s_Large.data(), static_cast<uint32_t>(s_Large.size()));
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return Begun == 6 && ModuleUsage() == "4/0"; })) << ModuleUsage();
    Served = 1; /* a stuck push does not keep the thread from its next connection */
    EXPECT_TRUE(WaitUntil([&] { return s_Notified == 1; }));
    OV_DispatchClientExit();
    Threads.clear();
    EXPECT_EQ(OV_DispatchConfigure(nullptr), -ESHUTDOWN);
}

TEST_F(Dispatch, AStopEndsAConnectionInTheMaking)
{
    for (const bool IsLate : {false, true}) {
        SCOPED_TRACE(IsLate);
        Replace(Config, CONFIG_PORT, Echo);
        ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
        Config.reset();
        EXPECT_LT(ExchangeUnaccounted(), 0); /* by now without a connection */
        const BUSY_SERVER Busy(CONFIG_PORT);
        s_ConnectsLate = IsLate;
        std::thread Waiting([] { EXPECT_LT(ExchangeUnaccounted(), 0); });
        EXPECT_TRUE(IsLate ? WaitUntil([] { return s_Late == 1; }) : Busy.KeepsOneWaiting());
        EXPECT_EQ(InChild([] { return ClientSockets() - 1; }), 0); /* the filler's */
        const auto Start = std::chrono::steady_clock::now();
        OV_DispatchClientExit();
        Waiting.join();
        EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::seconds(5));
        s_ConnectsLate = false;
    }
}

/* Each would break the connection, and cost a descriptor. */
TEST_F(Dispatch, SignalsAreForOtherThreads)
{
    struct sigaction Action = {}, Before;
    Action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &Action, &Before);
    Handle(
        [](OV_DISPATCH_DESC *Desc) { /* its commands can be told to end */
                                     char Blocked[64];
                                     OV_RTCExecCmd("grep SigBlk: /proc/self/status", Blocked,
                                                   sizeof(Blocked));
                                     EXPECT_STREQ(Blocked, "SigBlk:\t0000000000000000\n");
                                     EXPECT_EQ(
                                         OV_RTCSystem(
                                             "grep -q SigBlk:.0000000000000000 /proc/self/status"),
                                         0);
                                     return CountIt(Desc);
        });
    Replace(Notify, NOTIFY_PORT, [this](int Socket) {
        EXPECT_TRUE(WaitUntil([this] { return Served == 1; }));
        SendBytes(Socket, Frame(MODULE, 1, "hello"));
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    for (const auto &Task : std::filesystem::directory_iterator("/proc/self/task")) {
        const bool IsOurs = ReadFile(Task.path() / "comm") == "NotifyClient\n";
        for (int Signal = 0; IsOurs && Signal < 20; Signal++) {
            syscall(SYS_tgkill, getpid(), std::stoi(Task.path().filename()), SIGUSR1);
            usleep(1000);
            Served = 1;
        }
    }
    EXPECT_TRUE(WaitUntil([] { return s_Notified == 1; }));
    EXPECT_EQ(Notify->Connections(), 1U);
    sigaction(SIGUSR1, &Before, nullptr);
}

TEST_F(Dispatch, AForkedChildHasAClientOfItsOwn)
{
    static std::atomic<int> s_ChildOfHandler;
    s_ChildOfHandler = -1;
    Handle([](OV_DISPATCH_DESC *Desc) {
        const pid_t Child = FORKS ? fork() : -1;
        if (Child == 0) { /* whose only thread this is */
            alarm(10);
            return Desc;
        }
        s_ChildOfHandler = FORKS ? WaitForProcess(Child) : 0;
        return Desc;
    });
    Replace(Notify, NOTIFY_PORT, [](int Socket) {
        SendBytes(Socket, Frame(MODULE, 1, "fork"));
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    EXPECT_TRUE(WaitUntil([] { return s_ChildOfHandler == 0; })) << s_ChildOfHandler;
    OV_DISPATCH_DESC *Inherited = OV_DispatchAllocDesc(0);
    for (const bool IsStarted : {false, true}) {
        const auto Stop = [=] {
            TakeSystemLog();
            OV_DispatchClientDelModuleFunc(MODULE, OV_DispatchClientGetModuleFunc(MODULE));
            const bool IsGood =
                ClientSockets() == 0 && !OV_DispatchClientIsListening() &&
                (!IsStarted || (OV_DispatchClientInit() == 0 && ExchangeUnaccounted() == 0 &&
                                ClientSockets() == 2));
            OV_DispatchFreeDesc(Inherited);
            OV_DispatchClientExit();
            return IsGood ? static_cast<int>(TakeSystemLog().size()) : -1;
        };
        EXPECT_EQ(InChild(Stop), FORKS ? 1 + 2 * IsStarted : 0); /* "loaded", "unloaded" */
    }
    OV_DispatchFreeDesc(Inherited);
    EXPECT_EQ(ExchangeUnaccounted(), 0);
    EXPECT_EQ(Config->Connections(), FORKS ? 2U : 1U);
}

TEST_F(Dispatch, NoConnectionOfTheParentsIsOpenInAChild)
{
    std::atomic<bool> Stop = false;
    Replace(Notify, NOTIFY_PORT, [](int) { usleep(1000); }); /* a reconnection each time */
    std::jthread Exchanging([&] {
        while (!Stop) {
            usleep(ExchangeUnaccounted() == 0 ? 0 : 100);
        }
    });
    std::jthread Restarting([&] {
        while (!Stop) {
            EXPECT_EQ(OV_DispatchClientInit(), 0);
            usleep(3000);
            OV_DispatchClientExit();
        }
    });
    for (int Fork = 0; Fork < 200; Fork++) {
        EXPECT_EQ(InChild(ClientSockets), 0);
    }
    Stop = true;
}

TEST_F(Dispatch, AHandlerMayStopAndStartTheClient)
{
    Handle([](OV_DISPATCH_DESC *Desc) {
        if (TextOf(Desc) == "stop") {
            OV_DispatchClientExit();
            EXPECT_EQ(OV_DispatchPut(Desc, "x", 1), 0); /* still ours to use */
            EXPECT_EQ(TextOf(Desc), "stopx");
            EXPECT_EQ(OV_DispatchClientInit(), 0);
        }
        return CountIt(Desc);
    });
    Replace(Notify, NOTIFY_PORT, [this](int Socket) {
        const bool First = Served++ == 0;
        SendBytes(Socket, Frame(MODULE, 1, First ? "stop" : "go") + Frame(MODULE, 1, "after"));
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    /* "after" of the first connection belongs to a run that had been stopped by then. */
    EXPECT_TRUE(WaitUntil([] { return s_Notified == 3; }));
    EXPECT_TRUE(WaitUntil([&] { return ModuleUsage() == "2/0"; })) << ModuleUsage();
    OV_DispatchClientExit();
    EXPECT_EQ(s_Notified, 3);
}

/* How much address space this process has, in MB. */
static size_t MappedSpace()
{
    return std::stoul(ReadFile("/proc/self/statm")) * static_cast<size_t>(getpagesize()) >> 20;
}

/* The server of these tests, which is the one of the simulated services, too. */
TEST_F(Dispatch, TheServerOutlastsConnectionsAndAcceptsThatFail)
{
    static constexpr size_t COUNT = 300;
    const size_t MappedBefore = MappedSpace();
    for (size_t Connection = 0; Connection < COUNT; Connection++) {
        OV_SOCKET Client = -1;
        ASSERT_EQ(OV_ImcConnect(INADDR_LOOPBACK, CONFIG_PORT, &Client), 0);
        EXPECT_TRUE(SendBytes(Client, Frame(1, 2, "")));
        EXPECT_EQ(ReceiveFrame(Client), Frame(1, 2, ""));
        close(Client);
    }
    EXPECT_TRUE(WaitUntil([this] { return OpenThreads() <= ThreadsBefore + 2; }));
    EXPECT_LT(MappedSpace() - MappedBefore, 256U) << "stacks of threads that nobody joined";
    EXPECT_EQ(Config->Connections(), COUNT);

    const int Late[] = {socket(AF_INET, SOCK_STREAM, 0), socket(AF_INET, SOCK_STREAM, 0)};
    struct sockaddr_in Address = {};
    struct rlimit All;
    Address.sin_family = AF_INET;
    Address.sin_port = htons(CONFIG_PORT);
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    getrlimit(RLIMIT_NOFILE, &All);
    const struct rlimit None = {0, All.rlim_max};
    setrlimit(RLIMIT_NOFILE, &None);
    const clock_t UsedBefore = clock();
    for (const int Client : Late) { /* for the first one the server has a descriptor already */
        EXPECT_EQ(connect(Client, reinterpret_cast<struct sockaddr *>(&Address), sizeof(Address)),
                  0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(clock() - UsedBefore, CLOCKS_PER_SEC / 10) << "it spins";
    setrlimit(RLIMIT_NOFILE, &All);
    EXPECT_TRUE(WaitUntil([this] { return Config->Connections() == COUNT + 2; }, 5));
    close(Late[0]);
    close(Late[1]);
}
