/* The flexible message and the client of the configuration service: a write past a buffer, bytes on
 * the wire that differ, a reply taken for another's, a service that misbehaves and is believed, a
 * stop that hangs or leaks. The service is a thread of this process; send and recv are ours. */
#undef _FORTIFY_SOURCE /* its recv is inline, and ours would be a second one */
#include "loopbackServer.h"
#include "orvaneImcConfClient.h"
#include "orvaneMem.h"
#include "testSupport.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <mutex>
#include <netinet/in.h>
#include <numeric>
#include <sys/resource.h>
#include <wchar.h>

static const std::string NO_ROOM = "3 _OV_ImcConfClientThread realloc memory failed\n";

/* What this thread's next sends and receives move at most, or the error they fail with. */
static thread_local std::vector<ssize_t> Portions;
static thread_local int Sends;

static ssize_t Portion(size_t Size)
{
    if (Portions.empty()) {
        return static_cast<ssize_t>(Size);
    }
    const ssize_t First = Portions.front();
    Portions.erase(Portions.begin());
    errno = static_cast<int>(-std::min<ssize_t>(First, 0));
    return std::clamp<ssize_t>(First, -1, static_cast<ssize_t>(Size));
}

extern "C" ssize_t send(int Socket, const void *Data, size_t Size, int Flags)
{
    const ssize_t Part = Portion(Size);

    Sends++;
    return Part <= 0 ? Part : sendto(Socket, Data, static_cast<size_t>(Part), Flags, nullptr, 0);
}

extern "C" ssize_t recv(int Socket, void *Data, size_t Size, int Flags)
{
    const ssize_t Part = Portion(Size);
    const size_t Count = static_cast<size_t>(Part);

    return Part <= 0 ? Part : recvfrom(Socket, Data, Count, Flags, nullptr, nullptr);
}

/* "PRIORITY text" of each line since the last call. */
static std::string Log()
{
    const STRINGS Written = TakeSystemLog();

    return std::accumulate(Written.begin(), Written.end(), std::string());
}

/* How many blocks are charged to the module; -1 when it is not registered. */
static int Blocks()
{
    for (int32_t ModId = 0; ModId < OV_MEM_MODULE_COUNT; ModId++) {
        OV_USEAGE_INFO Info = {};
        OV_MemGetUsage(ModId, &Info);
        if (std::string(Info.Name) == "FlexMsg") {
            return Info.VmemCounter + Info.MemCounter;
        }
    }
    return -1;
}

class FlexMsg : public testing::Test {
  protected:
    FlexMsg()
    {
        OV_FlexMsgInit();
        Msg = OV_FlexMsgAlloc();
        Log();
    }
    ~FlexMsg() override
    {
        OV_FlexMsgFree(Msg);
        EXPECT_EQ(Blocks(), 0);
        OV_FlexMsgRelease();
        Log();
    }
    std::string Text() const
    {
        return {Msg->FlexBuf, Msg->Pos};
    }
    OV_FLEXIBLE_MSG *Msg;
};

TEST_F(FlexMsg, BytesGrowItToExactlyWhatTheyNeedOrNotAtAll)
{
    const std::string Bytes(5000, 'x');
    EXPECT_TRUE(Msg->Size == 4096 && Msg->Pos == 0 && Msg->List.next == &Msg->List);
    EXPECT_EQ(std::string(Msg->FlexBuf, 4096), std::string(4096, '\0')) << "heap on the wire";
    for (const auto &[Count, Size] : {std::pair(4096, 4096U), {904, 5000U}, {0, 5000U}}) {
        EXPECT_EQ(OV_FlexMsgSafeSetData(Msg, Bytes.data(), static_cast<size_t>(Count)), 0);
        EXPECT_EQ(Msg->Size, Size);
    }
    EXPECT_EQ(OV_FlexMsgSafeSetData(Msg, nullptr, 0), 0);
    EXPECT_EQ(Log(), "");
    for (const size_t Count : {SIZE_MAX, SIZE_MAX - 4999, SIZE_MAX - 5000, size_t{UINT32_MAX}}) {
        EXPECT_FALSE(OV_FlexMsgDataMaybePull(Msg, Count)) << Count;
        EXPECT_EQ(OV_FlexMsgSafeSetData(Msg, "", Count), -ENOMEM) << Count;
        EXPECT_EQ(Log(), NO_ROOM + NO_ROOM);
    }
    EXPECT_TRUE(Msg->Size == 5000 && Text() == Bytes);

    OV_FLEXIBLE_MSG Previous = *Msg;
    const void *Fresh = OV_FlexMsgAllocData(Msg);
    EXPECT_TRUE(Fresh == Msg->FlexBuf && Fresh != Previous.FlexBuf);
    EXPECT_TRUE(Msg->Size == 4096 && Msg->Pos == 0);
    EXPECT_EQ(OV_FlexMsgReallocData(&Previous, 0), nullptr); /* is still there to be freed */
}

TEST_F(FlexMsg, TextDoublesItAndItsNulMustFit)
{
    static const std::string TO_8192 = "7 realloc maxSize: 8192, pos : ";
    static const struct {
        size_t Before, Count, Size;
        std::string Log;
    } ROWS[] = {{0, 4095, 4096, ""},
                {0, 4096, 8192, TO_8192 + "0\n"},
                {4096, 0, 8192, TO_8192 + "4096\n"},
                {1, 9000, 16384, TO_8192 + "1\n7 realloc maxSize: 16384, pos : 1\n"}};
    for (const auto &Row : ROWS) {
        const std::string Start(Row.Before, 's');
        const std::string Added(Row.Count, 'f');
        OV_FlexMsgReallocData(Msg, 4096);
        OV_FlexMsgResetDataLen(Msg);
        OV_FlexMsgSafeSetData(Msg, Start.data(), Start.size());
        EXPECT_EQ(OV_FlexMsgSetFormatData(Msg, "%s", Added.c_str()), 0);
        EXPECT_EQ(Msg->Size, Row.Size);
        EXPECT_EQ(Msg->Pos, Row.Before + Row.Count);
        EXPECT_EQ(Msg->FlexBuf, Start + Added); /* up to the NUL */
        EXPECT_EQ(Log(), Row.Log);
    }
    EXPECT_EQ(OV_FlexMsgSetFormatData(Msg, "%lc", static_cast<wint_t>(0x20AC)), -ENOMEM)
        << "not in this locale, however much room there is";
    EXPECT_TRUE(Msg->Pos == 9001 && Msg->Size == 16384);
}

/* Also writes of headers into buffers too small for one; the sanitizer looks for what is missed. */
TEST_F(FlexMsg, APositionPastTheBufferIsMadeRoomForFirst)
{
    for (const auto &[Size, Pos] : {std::pair(0U, 0U), {0, 40}, {1, 0}, {8, 40}, {15, 15}}) {
        const std::string Gap(Pos - std::min(Pos, Size), '\0');
        const auto Prepare = [&, NewSize = Size, NewPos = Pos] {
            EXPECT_EQ(OV_FlexMsgReallocData(Msg, NewSize) == nullptr, NewSize == 0);
            EXPECT_TRUE(Msg->Size == NewSize && (Msg->FlexBuf == nullptr) == (NewSize == 0));
            OV_FlexMsgSetDataLen(Msg, NewPos);
        };
        Prepare();
        EXPECT_EQ(OV_FlexMsgSetFormatData(Msg, "%s", "text"), 0);
        EXPECT_EQ(Text().substr(Pos - Gap.size()), Gap + "text");
        Prepare();
        EXPECT_EQ(OV_FlexMsgSafeSetData(Msg, "data", 4), 0);
        EXPECT_EQ(Text().substr(Pos - Gap.size()), Gap + "data");
        Prepare();
        EXPECT_EQ(OV_ImcSafeSetReplyPayload(Msg, "p", 1), 0);
        Prepare();
        OV_ImcRequstInitHdr(Msg, 1, 2);
        EXPECT_EQ(Text().substr(std::max(Size, 4U)), std::string(16 - std::max(Size, 4U), '\0'));
    }
    OV_FlexMsgSetDataLen(Msg, SIZE_MAX);
    EXPECT_EQ(OV_ImcSendAll(-1, Msg), -EINVAL) << "what follows the buffer is not ours to send";
    EXPECT_EQ(OV_FlexMsgSetFormatData(Msg, "x"), -ENOMEM);
    OV_FlexMsgResetDataLen(Msg);
}

TEST(FlexMsgModule, LivesFromTheFirstStartToTheLastStop)
{
    OV_FlexMsgRelease(); /* one too many */
    EXPECT_EQ(OV_FlexMsgInit(), 0);
    EXPECT_EQ(OV_FlexMsgInit(), 0);
    OV_FlexMsgRelease();
    EXPECT_EQ(Blocks(), 0);
    OV_FlexMsgRelease();
    EXPECT_EQ(Blocks(), -1);
    EXPECT_EQ(OV_FlexMsgAlloc(), nullptr);
    EXPECT_EQ(Log(), "3 _OV_ImcConfClientThread alloc memory failed\n");

    std::vector<int32_t> Others;
    for (int32_t ModId = 0; ModId >= 0; Others.push_back(ModId)) {
        const std::string Name = "other" + std::to_string(Others.size());
        ModId = OV_MemModRegister(Name.c_str(), Name.size());
    }
    EXPECT_EQ(OV_ImcConfClientInit(), -ENOMEM);
    EXPECT_EQ(Log(), "3 Failed to register FlexMsg memory!\n3 Failed to OV_FlexMsgInit\n");
    for (const int32_t ModId : Others) {
        OV_MemModUnRegister(ModId);
    }
}

static std::string Reply(OV_ERR_T RetCode, const std::string &Payload)
{
    return BytesOf(OV_IMC_REPLY_HDR{RetCode, {9, 9, 9, 9}, Payload.size()}) + Payload;
}

/* How the service answers from now on. */
struct SERVICE {
    std::string Answer;      /* "echo": the request's payload */
    size_t Piece = SIZE_MAX; /* so many bytes in a send */
    bool Closes = false;     /* after the answer */
};

class Imc : public testing::Test {
  protected:
    Imc()
    {
        Reconnect();
    }
    ~Imc() override
    {
        OV_ImcConfClientRelease();
        EXPECT_EQ(Blocks(), -1);
        EXPECT_FALSE(Contains(Log(), "memory leak"));
    }
    void Reconnect()
    {
        OV_ImcConfClientRelease();
        EXPECT_EQ(Blocks(), -1);
        ASSERT_EQ(OV_ImcConfClientInit(), 0);
        ASSERT_EQ(OV_ImcConfSet(1, 2, nullptr, 0), 0); /* the service is connected, too */
        Log();
    }
    void Serve(const SERVICE &New)
    {
        const std::lock_guard Guard(Lock);
        Service = New;
    }
    std::string LastRequest()
    {
        const std::lock_guard Guard(Lock);
        return Request;
    }
    void ServeConnection(int Socket)
    {
        for (SERVICE Now; !Now.Closes;) {
            OV_IMC_REQ_HDR Header = {};
            std::string Bytes = ReceiveBytes(Socket, sizeof(Header));
            if (Bytes.size() < sizeof(Header)) {
                return;
            }
            memcpy(&Header, Bytes.data(), sizeof(Header));
            Bytes += ReceiveBytes(Socket, Header.PayloadBytes);
            {
                const std::lock_guard Guard(Lock);
                Request = Bytes;
                Now = Service;
            }
            const bool Echoes = Now.Answer == "echo";
            SendBytes(Socket, Echoes ? Reply(0, Bytes.substr(16)) : Now.Answer, Now.Piece);
        }
    }
    std::mutex Lock;
    SERVICE Service = {"echo"}; /* under Lock */
    std::string Request;        /* the last one, under Lock */
    LOOPBACK_SERVER Server{55435, [this](int Socket) { ServeConnection(Socket); }};
};

TEST_F(Imc, RequestsAreTheseBytesInOneSend)
{
    using namespace std::string_literals;
    const std::string Start = "\7\0\x34\x12\0\0\0\0"s;
    const std::string Bare = Start + "\0\0\0\0\0\0\0\0"s;
    const std::string Whole = Start + "\3\0\0\0\0\0\0\0abc"s;
    const auto Sent = [&](OV_ERR_T Result) {
        EXPECT_EQ(Result, 0);
        EXPECT_EQ(std::exchange(Sends, 0), 1);
        return LastRequest();
    };
    Sends = 0;
    EXPECT_EQ(Sent(OV_ImcConfSet(7, 0x1234, nullptr, 0)), Bare);
    EXPECT_EQ(Sent(OV_ImcConfSet(7, 0x1234, "abc", 3)), Whole);
    EXPECT_EQ(Sent(OV_ImcConfGet(7, 0x1234, "abc", 3, nullptr, 0)), Whole);
    EXPECT_EQ(Sent(OV_ImcConfGet(7, 0x1234, nullptr, 3, nullptr, 9)), Bare);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion" /* what callers' compilers do in silence */
    const volatile uint16_t OpType = 0x1234;
    EXPECT_EQ(Sent(OV_ImcConfGetByFunc(7, OpType, nullptr, 3, nullptr, nullptr)),
              "\7\0\x34\0\0\0\0\0\0\0\0\0\0\0\0\0"s);
#pragma GCC diagnostic pop
    EXPECT_EQ(Log(), "");
}

static std::string Claims(uint64_t PayloadBytes)
{
    return BytesOf(OV_IMC_REPLY_HDR{0, {}, PayloadBytes}) + Reply(0, "next");
}

/* One Get of 19 bytes each. Failed replies go on with a good one, which no exchange may find. */
TEST_F(Imc, WhatAGetMakesOfTheReply)
{
    static const std::string NONE = "..........", DIGITS = "0123456789";
    static const std::string HDR = "3 Imc recv hdr failed : ",
                             DATA = "3 Imc recv payload failed : ";
    static const std::string SEND = "3 OV_ImcSendAll failed : ";
    static const std::string AGAIN =
        SEND + "Resource temporarily unavailable -11\n" + SEND + "Interrupted system call -4\n";
    static const struct {
        SERVICE Service;
        std::vector<ssize_t> Portions; /* of the send, then of the receives */
        size_t ReplyBytes;
        OV_ERR_T Result;
        std::string Reply, Log;
        bool Breaks = false;
    } ROWS[] = {
        {{Reply(0, DIGITS)}, {}, 10, 0, DIGITS, ""},
        {{Reply(5, "0123"), 1}, {}, 10, 5, "0123......", ""},
        {{Reply(0, DIGITS), 17},
         {},
         4,
         -ENOBUFS,
         "0123......",
         "3 the 9(513) reply data is truncated.\n"},
        {{Reply(0, "")}, {}, 4, -ENODATA, NONE, "3 the 9(513) request can't get reply data\n"},
        {{Reply(6, DIGITS)}, {}, 0, 6, NONE, ""},
        {{Reply(-EPERM, "0123")}, {}, 4, -EPERM, NONE, ""},
        {{"echo"}, {1, 15, 3, 1, 15, 1, 2}, 3, 0, "abc.......", ""},
        {{"echo"}, {7, -EAGAIN, -EINTR, 12, 1, -EAGAIN, -EINTR}, 3, 0, "abc.......", AGAIN},
        {{"echo"}, {7, 0}, 3, -EREMOTEIO, NONE, "", true},
        {{"echo"},
         {7, -ENOBUFS},
         3,
         -ENOBUFS,
         NONE,
         SEND + "No buffer space available -105\n",
         true},
        {{"echo"}, {19, -ETIMEDOUT}, 3, -ETIMEDOUT, NONE, HDR + "-110\n", true},
        {{"", 1, true}, {}, 4, -EREMOTEIO, NONE, HDR + "-121\n", true},
        {{Reply(0, "0").substr(0, 15), 1, true}, {}, 4, -EREMOTEIO, NONE, HDR + "-121\n", true},
        {{Reply(0, DIGITS).substr(0, 19), 1, true}, {}, 4, -EREMOTEIO, NONE, DATA + "-121\n", true},
        {{Claims(1U << 30), 64, true}, {}, 4, -EREMOTEIO, NONE, DATA + "-121\n", true},
        {{Claims(UINT32_MAX)}, {}, 4, -ENOMEM, NONE, NO_ROOM + DATA + "-12\n", true},
        {{Claims(UINT64_MAX)}, {}, 4, -ENOMEM, NONE, NO_ROOM + DATA + "-12\n", true},
        {{Claims(UINT64_MAX - 15)}, {}, 4, -ENOMEM, NONE, NO_ROOM + DATA + "-12\n", true},
    };
    struct rusage Before, After;
    getrusage(RUSAGE_SELF, &Before);
    for (const auto &Row : ROWS) {
        SCOPED_TRACE(&Row - ROWS);
        std::string Buffer = NONE;
        Serve(Row.Service);
        Portions = Row.Portions;
        EXPECT_EQ(OV_ImcConfGet(9, 513, "abc", 3, Buffer.data(), Row.ReplyBytes), Row.Result);
        EXPECT_EQ(Buffer, Row.Reply);
        EXPECT_EQ(Log(), Row.Log);
        EXPECT_TRUE(Portions.empty());
        Serve({"echo"});
        const OV_ERR_T Later = OV_ImcConfSet(1, 2, "x", 1);
        std::string Lines;
        if (Row.Breaks) {
            const std::string Text = strerror(-Later);
            EXPECT_TRUE(Later == -EPIPE || Later == -ECONNRESET) << Text;
            Lines.append(SEND).append(Text).append(" ").append(std::to_string(Later));
            Lines.append("\n3 Failed to OV_ImcConfigure in OV_ImcConfSet :").append(Text);
            Lines.append(" \n");
        }
        EXPECT_EQ(Later == 0, !Row.Breaks);
        EXPECT_EQ(Log(), Lines);
        Reconnect();
    }
    getrusage(RUSAGE_SELF, &After);
    EXPECT_LT(After.ru_maxrss - Before.ru_maxrss, 200 << 10) << "kB: pages of what never came";

    Server.Disconnect(); /* between two exchanges */
    EXPECT_LT(OV_ImcConfSet(1, 2, nullptr, 0), 0) << "and no signal";
    EXPECT_LT(OV_ImcConfSet(1, 2, nullptr, 0), 0);
}

/* It may exchange by itself, and sees replies that outgrow a message, and empty ones. */
TEST_F(Imc, AHandlerParsesTheReply)
{
    const OV_IMC_REPLY_HANDLER Take = [](const void *Bytes, size_t Count, void *Args) {
        static_cast<std::string *>(Args)->assign(static_cast<const char *>(Bytes), Count);
        return OV_ImcConfSet(1, 2, nullptr, 0) - 5;
    };
    std::string Got;
    for (const size_t Size : {3U, 0U, 4080U, 4081U, 100000U}) {
        const std::string Payload(Size, 'p');
        EXPECT_EQ(OV_ImcConfGetByFunc(1, 2, Payload.data(), Size, Take, &Got), -5);
        EXPECT_EQ(Got, Payload);
    }
    Serve({Reply(INT32_MIN, "not for it")}); /* a code without a positive */
    EXPECT_EQ(OV_ImcConfGetByFunc(1, 2, nullptr, 0, Take, &Got), INT32_MIN);
    EXPECT_EQ(Got.size(), 100000U);
    EXPECT_EQ(Log(), "3 Failed to OV_ImcConfigure in OV_ImcConfGetByFunc :"
                     "Unknown error -2147483648 \n");
}

TEST_F(Imc, StartsAndStopsOutOfTurn)
{
    OV_FLEXIBLE_MSG Short = {};
    EXPECT_EQ(OV_ImcConfigure(&Short), -EINVAL) << "would wait for a reply to nothing";
    EXPECT_EQ(OV_ImcConfClientInit(), -EALREADY);
    EXPECT_EQ(OV_ImcConfSet(1, 2, nullptr, 0), 0);
    EXPECT_EQ(Server.Connections(), 1U);
    OV_SOCKET Socket = -1;
    EXPECT_EQ(OV_ImcConnect(INADDR_LOOPBACK, 55435, &Socket), 0);
    EXPECT_EQ(fcntl(Socket, F_GETFD), FD_CLOEXEC);
    OV_SocketClose(Socket);
    OV_ImcConfClientRelease();
    OV_ImcConfClientRelease();
    Log();
    const std::string Nowhere = "3 OV_ImcSendAll failed : Bad file descriptor -9\n";
    EXPECT_EQ(OV_ImcConfSet(1, 2, nullptr, 0), -EBADF);
    EXPECT_EQ(Log(),
              Nowhere + "3 Failed to OV_ImcConfigure in OV_ImcConfSet :Bad file descriptor \n");
    EXPECT_EQ(OV_ImcConfigure(&Short), -EBADF);
    EXPECT_EQ(Log(), Nowhere);
    OV_FlexMsgInit(); /* by another user */
    OV_ImcConfClientRelease();
    EXPECT_EQ(Blocks(), 0) << "the other user's";
    OV_FlexMsgRelease();
}

TEST(ImcStart, ARefusedOneSaysSoAndLeavesNothing)
{
    const size_t Descriptors = OpenDescriptors();
    EXPECT_EQ(OV_ImcConfClientInit(), -ECONNREFUSED);
    EXPECT_EQ(Log(), "7 _OV_ImcConfConnect connnect to 0x7f000001:55435\n"
                     "7 OV_ImcConnect connect 0x7f000001:55435\n"
                     "3 OV_Connect failed : Connection refused\n"
                     "3 Failed to _OV_ImcConfConnect, ret = -111\n");
    EXPECT_EQ(OpenDescriptors(), Descriptors);
    EXPECT_EQ(Blocks(), -1);
}

/* A cancelled thread is among them: an exchange that ends in its middle mixes up all others. */
TEST_F(Imc, FourThreadsGetTheirOwnReplies)
{
    std::vector<std::jthread> Threads;
    std::atomic<int> Right = 0;
    Threads.reserve(4);
    for (int Thread = 0; Thread < 4; Thread++) {
        Threads.emplace_back([&, Thread] {
            for (int Count = 0; Count < 500; Count++) {
                const std::pair Sent(Thread, Count);
                std::pair Got(-1, -1);
                Right +=
                    OV_ImcConfGet(1, 2, &Sent, sizeof(Sent), &Got, sizeof(Got)) == 0 && Got == Sent;
            }
        });
    }
    pthread_t Cancelled;
    void *Result = nullptr;
    const auto ExchangeCancelled = [](void *) -> void * {
        pthread_cancel(pthread_self());
        OV_ImcConfSet(1, 2, "cancelled", 9);
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&Cancelled, nullptr, ExchangeCancelled, nullptr), 0);
    EXPECT_EQ(pthread_join(Cancelled, &Result), 0);
    EXPECT_EQ(Result, PTHREAD_CANCELED);
    Threads.clear();
    EXPECT_EQ(Right, 2000);
    EXPECT_EQ(Blocks(), 0);
}

/* One waits for a silent service, the others for their turn, when the stop comes. */
TEST_F(Imc, AStopEndsExchangesThatHang)
{
    std::vector<std::jthread> Threads;
    std::atomic<int> Failed = 0;
    Serve({""});
    Threads.reserve(3);
    for (int Thread = 0; Thread < 3; Thread++) {
        Threads.emplace_back([&] { Failed += OV_ImcConfSet(1, 2, "hangs", 5) < 0; });
    }
    EXPECT_TRUE(WaitUntil([&] { return Blocks() == 6 && LastRequest().size() == 21; }));
    OV_ImcConfClientRelease();
    EXPECT_EQ(Blocks(), -1);
    Threads.clear();
    EXPECT_EQ(Failed, 3);
}

TEST_F(Imc, AThousandStartsLeaveNothing)
{
    const auto Counts = [] { return std::pair(OpenDescriptors(), OpenThreads()); };
    const auto Before = Counts();
    for (int Start = 0; Start < 1000; Start++) {
        Reconnect();
    }
    EXPECT_TRUE(WaitUntil([&] { return Counts() == Before; }));
}
