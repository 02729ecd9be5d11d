/* Dispatch: a frame that is read or written beyond its buffer, a reply that reaches the wrong
 * caller, a notification lost, a stop that hangs, leaks or leaves a second reader behind. */
#include "loopbackServer.h"
#include "orvaneDispatchClient.h"
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
#include <sys/resource.h>
#include <sys/socket.h>
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

class Dispatch : public testing::Test {
  protected:
    std::optional<LOOPBACK_SERVER> Config{std::in_place, CONFIG_PORT, Echo};
    std::optional<LOOPBACK_SERVER> Notify{std::in_place, NOTIFY_PORT, StaySilent};
    static inline OV_DISPATCH_FUNC Handler;

    void SetUp() override
    {
        TakeSystemLog();
    }
    void TearDown() override
    {
        OV_DispatchClientDelModuleFunc(MODULE, Handler);
        EXPECT_EQ(ModuleUsage(), "");
    }
    static void Handle(OV_DISPATCH_FUNC Func)
    {
        Handler = Func;
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

static OV_ERR_T ExchangeUnaccounted()
{
    alignas(OV_DISPATCH_HDR) uint8_t Buff[64] = {8}; /* outlives the client's module */
    OV_DISPATCH_DESC Desc = {};

    Desc.Buff = Buff;
    Desc.Size = sizeof(Buff);
    OV_DispatchInitHdr(&Desc, MODULE, 1);
    return OV_DispatchConfigure(&Desc);
}

/* Runs first: an exchange before any start connects by itself, and the start takes over. */
TEST_F(Dispatch, AnExchangeMayComeBeforeTheStart)
{
    EXPECT_EQ(ExchangeUnaccounted(), 0);
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    EXPECT_EQ(ExchangeUnaccounted(), 0);
    EXPECT_EQ(Config->Connections(), 2U);
    OV_DispatchClientExit();
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

    const std::string Bytes(2040, 'b');
    OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
    OV_DispatchInitHdr(Desc, 7, 0x1234);
    EXPECT_EQ(BytesOf(*OV_DispatchHeader(Desc)), std::string("\0\x07\x34\x12\x08\0\0\0", 8));
    EXPECT_EQ(OV_DispathUsedSize(Desc), 0);
    EXPECT_EQ(OV_DispatchPut(Desc, Bytes.data(), 2039), 0);
    EXPECT_EQ(OV_DispatchSize(Desc), 2048);
    OV_DispatchSetRetCode(Desc, -22);
    EXPECT_EQ(TextOf(Desc), "\xEA\xFF\xFF\xFF");
    EXPECT_EQ(OV_DispatchGetRetCode(Desc), -22);
    EXPECT_EQ(Desc->Buff[12], '\0');
    OV_DispatchResetPayload(Desc);
    EXPECT_EQ(OV_DispatchPut(Desc, Bytes.data(), 2040), 0);
    EXPECT_EQ(OV_DispatchSize(Desc), 4096);
    EXPECT_EQ(OV_DispatchPrintf(Desc, "%.*s", 2047, std::string(3000, 'p').c_str()), 2047);
    EXPECT_EQ(OV_DispatchSize(Desc), 4096);
    EXPECT_EQ(OV_DispatchPrintf(Desc, "%d", 5), 1);
    EXPECT_EQ(OV_DispatchSize(Desc), 8192);
    EXPECT_EQ(TextOf(Desc), Bytes + std::string(2047, 'p') + "5");
    const std::string Before = TextOf(Desc);
    EXPECT_EQ(OV_DispatchPut(Desc, Bytes.data(), -1), -ENOMEM);
    EXPECT_EQ(OV_DispatchPrintf(Desc, "a%lc", static_cast<wint_t>(0x20AC)), -ENOMEM);
    EXPECT_EQ(TextOf(Desc), Before);

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
    EXPECT_EQ(OV_DispatchPut(Desc, Bytes.data(), 2040), -ENOMEM);
    EXPECT_EQ(TakeSystemLog(),
              STRINGS{"4 [OV_DispatchPut:672] Use memory from pool, but the size is not enough, "
                      "bufsize=2048, needsize=0.\n"});
    EXPECT_EQ(OV_DispatchPrintf(Desc, "%s", Bytes.c_str()), 2040); /* may grow all the same */
    EXPECT_EQ(TextOf(Desc), Bytes);
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
    OV_DispatchClientExit();
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
    Config.reset();
    Config.emplace(CONFIG_PORT, [](int Socket) {
        while (ReceiveFrame(Socket).size() >= sizeof(OV_DISPATCH_HDR)) {
            const ROW &Row = *Current;
            if (!SendBytes(Socket, Row.Reply, Row.Piece) || Row.Closes) {
                return;
            }
        }
    });
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    const size_t Descriptors = OpenDescriptors();
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
            EXPECT_EQ(Exchange(Desc, 9, "next"), 0); /* on a new connection */
            EXPECT_EQ(TextOf(Desc), "at once");
            Connections++;
        }
        EXPECT_EQ(Config->Connections(), Connections);
        OV_DispatchFreeDesc(Desc);
    }
    EXPECT_LE(OpenDescriptors(), Descriptors + 1); /* the server's may be one behind */

    /* 4 GB that only a length field spoke of have cost no memory. */
    struct rusage Used;
    getrusage(RUSAGE_SELF, &Used);
    EXPECT_LT(Used.ru_maxrss, 1L << 20);
    OV_DispatchClientExit();
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
    OV_DispatchClientExit();
    close(Ends[0]);
    close(Ends[1]);
}

TEST_F(Dispatch, EachThreadGetsItsOwnReplyAlsoAcrossARestart)
{
    std::atomic<bool> Stop = false;
    std::atomic<int> Answered = 0;
    std::vector<std::thread> Threads;

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
    for (int Restart = 0; Restart < 3; Restart++) {
        const int Before = Answered;
        EXPECT_TRUE(WaitUntil([&] { return Answered > Before + 1000; }));
        Config.reset();
        Config.emplace(CONFIG_PORT, Echo);
    }
    const int Before = Answered;
    EXPECT_TRUE(WaitUntil([&] { return Answered > Before; }));
    Stop = true;
    for (std::thread &Thread : Threads) {
        Thread.join();
    }
    OV_DispatchClientExit();
}

static std::atomic<int> s_Notified;
static std::atomic<bool> s_InOrder;

TEST_F(Dispatch, NoNotificationOfAStormIsLost)
{
    static constexpr int COUNT = 100000;
    s_Notified = 0;
    s_InOrder = true;
    Handle([](OV_DISPATCH_DESC *Desc) {
        s_InOrder = s_InOrder && TextOf(Desc) == std::to_string(s_Notified);
        s_Notified++;
        return Desc;
    });
    Notify.reset();
    Notify.emplace(NOTIFY_PORT, [](int Socket) {
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
    EXPECT_TRUE(WaitUntil([] { return s_Notified == COUNT; }, 60)) << s_Notified;
    EXPECT_TRUE(s_InOrder);
    OV_DispatchClientExit();
}

TEST_F(Dispatch, TheThreadReconnectsOnceAndEndsWhenItCannot)
{
    static std::atomic<int> s_Received;
    s_Received = 0;
    s_Notified = 0;
    const size_t Descriptors = OpenDescriptors();
    Handle([](OV_DISPATCH_DESC *Desc) {
        s_Notified++;
        return Desc;
    });
    const auto Serve = [](int Socket) {
        SendBytes(Socket, Frame(MODULE, 1, "hello"));
        const std::string Pushed = ReceiveFrame(Socket);
        s_Received += Pushed == Frame(5, 6, "pushed");
        StaySilent(Socket);
    };
    Notify.reset();
    Notify.emplace(NOTIFY_PORT, Serve);
    OV_DispatchNotifyReply(5, 6, "pushed", 6); /* before the start: nothing */
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    EXPECT_EQ(OV_DispatchClientInit(), -EALREADY);
    EXPECT_EQ(OV_DispatchClientInitNoNotify(), -EALREADY);
    OV_DispatchNotifyReply(5, 6, "pushed", 6);
    EXPECT_TRUE(WaitUntil([] { return s_Received == 1 && s_Notified == 1; }));
    Notify->Disconnect();
    EXPECT_TRUE(WaitUntil([] { return s_Notified == 2; }));
    OV_DispatchNotifyReply(5, 6, "pushed", 6);
    EXPECT_TRUE(WaitUntil([] { return s_Received == 2; }));
    EXPECT_EQ(Notify->Connections(), 2U);

    TakeSystemLog();
    Notify.reset();
    STRINGS Log;
    EXPECT_TRUE(WaitUntil([&] {
        for (const std::string &Line : TakeSystemLog()) {
            Log.push_back(Line);
        }
        return Log.size() >= 2;
    }));
    EXPECT_TRUE(Log[0].starts_with("6 [_OV_DispatchNotifyClientThread:") &&
                Log[0].ends_with("]Fail to receive config messages, maybe socket is closed! "
                                 "retcode=-121\n"))
        << Log[0];
    EXPECT_EQ(Log[1], "3 [_OV_DispatchConnect:105]Fail to connect to server 127.0.0.1:54322! "
                      "retcode=-111\n");
    EXPECT_TRUE(WaitUntil([] { return ModuleUsage() == "0/0"; })); /* the thread has ended */
    OV_DispatchNotifyReply(5, 6, "pushed", 6);                     /* no connection: nothing */
    OV_DispatchClientExit();
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == Descriptors - 1; })); /* the server's */
}

TEST_F(Dispatch, AStartThatFailsLeavesNothing)
{
    const size_t Descriptors = OpenDescriptors();
    Notify.reset();
    EXPECT_EQ(OV_DispatchClientInit(), -ECONNREFUSED);
    STRINGS Log = TakeSystemLog();
    ASSERT_EQ(Log.size(), 2U);
    EXPECT_TRUE(Log[1].starts_with("3 [OV_DispatchClientInit:") &&
                Log[1].ends_with("]failed to connect notify server! retcode=-111\n"))
        << Log[1];
    EXPECT_EQ(ModuleUsage(), "");
    Config.reset();
    for (const auto Start : {OV_DispatchClientInit, OV_DispatchClientInitNoNotify}) {
        EXPECT_EQ(Start(), -ECONNREFUSED);
        Log = TakeSystemLog();
        ASSERT_EQ(Log.size(), 2U);
        EXPECT_TRUE(Log[1].ends_with("]Fail to connect to server! retcode=-111\n")) << Log[1];
        EXPECT_EQ(ModuleUsage(), "");
    }
    EXPECT_EQ(OpenDescriptors(), Descriptors - 2); /* those of the two servers */
}

TEST_F(Dispatch, AThousandStartsAndStopsLeaveNothing)
{
    const size_t Descriptors = OpenDescriptors();
    const size_t Threads = OpenThreads();
    for (int Count = 0; Count < 1000; Count++) {
        ASSERT_EQ(OV_DispatchClientInit(), 0);
        OV_DispatchClientExit();
        ASSERT_EQ(ModuleUsage(), "");
    }
    for (const std::string &Line : TakeSystemLog()) {
        ASSERT_FALSE(Contains(Line, "leak")) << Line;
    }
    /* What the peers still have open closes by itself. */
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == Descriptors; })) << OpenDescriptors();
    EXPECT_TRUE(WaitUntil([&] { return OpenThreads() == Threads; })) << OpenThreads();
}

/* A server that neither answers nor reads must not keep a stop waiting. */
TEST_F(Dispatch, AStopEndsExchangesAndPushesThatHang)
{
    static const std::string s_Large(64U << 20, 'l');
    static std::atomic<bool> s_HalfClose;
    s_HalfClose = false;
    s_Notified = 0;
    Handle([](OV_DISPATCH_DESC *Desc) {
        s_Notified++;
        return Desc;
    });
    Config.reset();
    Config.emplace(CONFIG_PORT, StaySilent);
    Notify.reset();
    Notify.emplace(NOTIFY_PORT, [](int Socket) {
        if (s_HalfClose) {
            SendBytes(Socket, Frame(MODULE, 1, "hello"));
        } else {
            EXPECT_TRUE(WaitUntil([] { return s_HalfClose.load(); }));
            shutdown(Socket, SHUT_WR);
        }
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    for (const auto &Entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const bool IsSocket = Contains(std::filesystem::read_symlink(Entry), "socket:");
        const std::string Info = ReadFile("/proc/self/fdinfo/" + Entry.path().filename().string());
        EXPECT_TRUE(!IsSocket || Contains(Info, "flags:\t02")) << "a child would have it: " << Info;
    }
    std::atomic<int> Begun = 0;
    std::vector<std::thread> Threads;
    for (int Number = 0; Number < 3; Number++) {
        Threads.emplace_back([&] {
            Begun++;
            EXPECT_LT(ExchangeUnaccounted(), 0);
        });
        Threads.emplace_back([&] {
            Begun++;
            OV_DispatchNotifyReply(5, 6, s_Large.data(), static_cast<uint32_t>(s_Large.size()));
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return Begun == 6 && ModuleUsage() == "4/0"; })) << ModuleUsage();
    s_HalfClose = true; /* a stuck push does not keep the thread from its next connection */
    EXPECT_TRUE(WaitUntil([&] { return s_Notified == 1; }));
    OV_DispatchClientExit();
    for (std::thread &Thread : Threads) {
        Thread.join();
    }
    EXPECT_EQ(OV_DispatchConfigure(nullptr), -ESHUTDOWN);
}

TEST_F(Dispatch, AStopEndsAConnectionInTheMaking)
{
    ASSERT_EQ(OV_DispatchClientInitNoNotify(), 0);
    Config.reset();
    EXPECT_LT(ExchangeUnaccounted(), 0); /* by now without a connection */

    /* A queue of one that nobody empties: the kernel lets the rest wait. */
    struct sockaddr_in Address = {};
    const auto *Server = reinterpret_cast<struct sockaddr *>(&Address);
    Address.sin_family = AF_INET;
    Address.sin_port = htons(CONFIG_PORT);
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int One = 1;
    int Sockets[4];
    for (int &Socket : Sockets) {
        Socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    }
    setsockopt(Sockets[0], SOL_SOCKET, SO_REUSEADDR, &One, sizeof(One));
    ASSERT_EQ(bind(Sockets[0], Server, sizeof(Address)), 0);
    ASSERT_EQ(listen(Sockets[0], 0), 0);
    for (const int Socket : {Sockets[1], Sockets[2], Sockets[3]}) {
        (void)connect(Socket, Server, sizeof(Address));
    }
    const auto Connecting = [] { /* how many wait for the server to take them */
                                 size_t Count = 0;
                                 for (const std::string &Line :
                                      Lines(ReadFile("/proc/self/net/tcp"))) {
                                     Count += Contains(Line, ":D431 02") ? 1 : 0;
                                 }
                                 return Count;
    };
    const size_t Before = Connecting();
    std::thread Waiting([] { EXPECT_LT(ExchangeUnaccounted(), 0); });
    EXPECT_TRUE(WaitUntil([&] { return Connecting() == Before + 1; }));
    const auto Start = std::chrono::steady_clock::now();
    OV_DispatchClientExit();
    Waiting.join();
    EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::seconds(5));
    for (const int Socket : Sockets) {
        close(Socket);
    }
}

TEST_F(Dispatch, AHandlerMayStopAndStartTheClient)
{
    s_Notified = 0;
    Handle([](OV_DISPATCH_DESC *Desc) {
        if (TextOf(Desc) == "stop") {
            OV_DispatchClientExit();
            EXPECT_EQ(OV_DispatchPut(Desc, "x", 1), 0); /* still ours to use */
            EXPECT_EQ(TextOf(Desc), "stopx");
            EXPECT_EQ(OV_DispatchClientInit(), 0);
        }
        s_Notified++;
        return Desc;
    });
    static std::atomic<int> s_Round;
    s_Round = 0;
    Notify.reset();
    Notify.emplace(NOTIFY_PORT, [](int Socket) {
        const bool First = s_Round++ == 0;
        SendBytes(Socket, Frame(MODULE, 1, First ? "stop" : "go") + Frame(MODULE, 1, "after"));
        StaySilent(Socket);
    });
    ASSERT_EQ(OV_DispatchClientInit(), 0);
    /* "after" of the first connection belongs to a run that had been stopped by then. */
    EXPECT_TRUE(WaitUntil([] { return s_Notified == 3; }));
    EXPECT_TRUE(WaitUntil([&] { return ModuleUsage() == "2/0"; })) << ModuleUsage();
    OV_DispatchClientExit();
    EXPECT_EQ(s_Notified, 3);
    for (const std::string &Line : TakeSystemLog()) {
        EXPECT_FALSE(Contains(Line, "leak")) << Line;
    }
}

TEST_F(Dispatch, OneHandlerAModule)
{
    const OV_DISPATCH_FUNC First = [](OV_DISPATCH_DESC *Desc) { return Desc; };
    const OV_DISPATCH_FUNC Second = [](OV_DISPATCH_DESC *) -> OV_DISPATCH_DESC * {
        return nullptr;
    };
    Handle(First);
    EXPECT_EQ(OV_DispatchClientAddModuleFunc(MODULE, Second), -EBADE);
    OV_DispatchClientDelModuleFunc(MODULE, Second);
    EXPECT_EQ(OV_DispatchClientGetModuleFunc(MODULE), First);
    OV_DispatchClientDelModuleFunc(MODULE, First);
    EXPECT_EQ(OV_DispatchClientGetModuleFunc(MODULE), nullptr);
}
