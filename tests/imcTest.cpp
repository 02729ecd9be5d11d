/* The flexible message and the client of the configuration service: a write past a buffer, bytes on
 * the wire that differ, a reply taken for another's, a service that is believed, a stop that hangs
 * or leaks. The service is a thread of this process; send and recv are ours. */
#undef _FORTIFY_SOURCE /* its recv is inline, and ours would be a second one */
#include "loopbackServer.h"
#include "orvaneImcConfClient.h"
#include "orvaneMem.h"
#include "testSupport.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>

/* What this thread's next sends and receives move at most, or the error they fail with. */
static thread_local std::vector<ssize_t> Portions;
static thread_local int Sends;

template <typename CALL>
static ssize_t Move(size_t Size, CALL Call)
{
    ssize_t Part = static_cast<ssize_t>(Size);

    if (!Portions.empty()) {
        Part = std::min(Part, Portions.front());
        Portions.erase(Portions.begin());
        errno = static_cast<int>(-Part);
    }
    return Part <= 0 ? std::max<ssize_t>(Part, -1) : Call(static_cast<size_t>(Part));
}

extern "C" ssize_t send(int Socket, const void *Data, size_t Size, int Flags)
{
    Sends++;
    EXPECT_NE(fcntl(Socket, F_GETFD), 0) << "children would inherit it";
    return Move(Size, [&](size_t Part) { return sendto(Socket, Data, Part, Flags, nullptr, 0); });
}

extern "C" ssize_t recv(int Socket, void *Data, size_t Size, int Flags)
{
    return Move(Size, [&](size_t Part) { return recvfrom(Socket, Data, Part, Flags, {}, {}); });
}

/* How many blocks are charged to this process's one module; -1 when it is not registered. */
static int Blocks()
{
    OV_USEAGE_INFO Info = {"", 0, 0, -1, 0};

    OV_MemGetUsage(0, &Info);
    return Info.VmemCounter;
}

static std::string Reply(OV_ERR_T RetCode, const std::string &Payload, uint64_t Missing = 0)
{
    return BytesOf(OV_IMC_REPLY_HDR{RetCode, {9, 9, 9, 9}, Payload.size() + Missing}) + Payload;
}

/* The service answers with the request's payload, or agrees to a request without one. Bit 0 of the
 * module: byte by byte; bit 1: it closes the connection afterwards. */
class Imc : public testing::Test {
  protected:
    void SetUp() override
    {
        OV_ImcConfClientRelease();
        ASSERT_EQ(OV_ImcConfClientInit(), 0);
        ASSERT_EQ(OV_ImcConfSet(8, 2, nullptr, 0), 0); /* the service is connected, too */
        TakeSystemLog();
    }
    void TearDown() override
    {
        OV_FlexMsgInit(); /* keeps the count */
        OV_ImcConfClientRelease();
        EXPECT_EQ(Blocks(), 0);
        OV_FlexMsgRelease();
        EXPECT_EQ(Blocks(), -1);
        TakeSystemLog();
    }
    std::string LastRequest()
    {
        const std::lock_guard Guard(Lock);
        return Request;
    }
    void Serve(int Socket)
    {
        OV_IMC_REQ_HDR Header = {};
        while ((Header.Mod & 2) == 0 && recv(Socket, &Header, 16, MSG_WAITALL) == 16) {
            const std::string Payload = ReceiveBytes(Socket, Header.PayloadBytes);
            const size_t Piece = (Header.Mod & 1) != 0 ? 1 : SIZE_MAX;
            const std::lock_guard Guard(Lock);
            Request = BytesOf(Header) + Payload;
            SendBytes(Socket, Payload.empty() ? Reply(0, "") : Payload, Piece);
        }
    }
    std::mutex Lock;
    std::string Request; /* the last one, under Lock */
    LOOPBACK_SERVER Server{55435, [this](int Socket) { Serve(Socket); }};
};

/* Runs first: the system must not have seen a server on this port yet. Where it has no other port
 * to give, a client without a server would meet itself. */
TEST(ImcStart, IsNotAConnectionToItself)
{
    const std::string Setting = "/proc/sys/net/ipv4/ip_local_port_range";
    const std::string Range = ReadFile(Setting);

    WriteFile(Setting, "55435 55435");
    EXPECT_EQ(OV_ImcConfClientInit(), -ECONNREFUSED);
    WriteFile(Setting, Range);
    const LOOPBACK_SERVER Service(55435, [](int /*Socket*/) {}); /* it has its port at once */
    TakeSystemLog();
}

TEST_F(Imc, AFlexMsgGrowsToWhatBytesNeedAndDoublesForTextOrStaysAsItWas)
{
    static const struct {
        bool IsText;
        size_t Size, Pos, Count, NewSize; /* Pos may lie past Size */
        STRINGS Log;
    } ROWS[] = {{false, 4096, 4096, 904, 5000, {}},
                {false, 0, 40, 4, 44, {}},
                {true, 4096, 0, 4095, 4096, {}},
                {true, 4096, 0, 4096, 8192, {"7 realloc maxSize: 8192, pos : 0\n"}},
                {true, 4096, 4096, 0, 8192, {"7 realloc maxSize: 8192, pos : 4096\n"}},
                {true, 0, 0, 4, 4096, {"7 realloc maxSize: 4096, pos : 0\n"}},
                {true, 8, 40, 4, 80, {"7 realloc maxSize: 80, pos : 40\n"}}};
    for (const auto &Row : ROWS) {
        OV_FLEXIBLE_MSG *const Msg = OV_FlexMsgAlloc();
        const std::string Bytes(Row.Count, 'x');
        OV_FlexMsgReallocData(Msg, Row.Size);
        OV_FlexMsgSetDataLen(Msg, Row.Pos);
        EXPECT_EQ(Row.IsText ? OV_FlexMsgSetFormatData(Msg, "%s", Bytes.c_str())
                             : OV_FlexMsgSafeSetData(Msg, Bytes.data(), Row.Count),
                  0);
        EXPECT_EQ(Msg->Size, Row.NewSize);
        EXPECT_EQ(std::string(Msg->FlexBuf, Msg->Pos), std::string(Row.Pos, '\0') + Bytes);
        EXPECT_EQ(TakeSystemLog(), Row.Log);
        OV_FlexMsgFree(Msg);
    }

    OV_FLEXIBLE_MSG *const Msg = OV_FlexMsgAlloc();
    OV_FlexMsgSafeSetData(Msg, "0123", 4);
    for (const size_t Count : {SIZE_MAX, SIZE_MAX - 4, size_t{UINT32_MAX}}) {
        EXPECT_EQ(OV_FlexMsgSafeSetData(Msg, "", Count), -ENOMEM) << Count;
    }
    EXPECT_EQ(OV_FlexMsgSetFormatData(Msg, "%lc", static_cast<wint_t>(0x20AC)), -ENOMEM);
    EXPECT_TRUE(Msg->Size == 4096 && Msg->Pos == 4);

    OV_FLEXIBLE_MSG Previous = *Msg;
    EXPECT_EQ(OV_FlexMsgAllocData(Msg), Msg->FlexBuf);
    EXPECT_EQ(OV_FlexMsgReallocData(&Previous, 0), nullptr); /* is still there to be freed */
    OV_FlexMsgReallocData(Msg, 1);                           /* too small for a header */
    OV_ImcRequstInitHdr(Msg, 1, 2);
    EXPECT_EQ(std::string(Msg->FlexBuf, 16), std::string("\1\0\2", 3) + std::string(13, '\0'));
    OV_FlexMsgSetDataLen(Msg, SIZE_MAX);
    EXPECT_EQ(OV_ImcSendAll(-1, Msg), -EINVAL) << "what follows the buffer is not ours to send";
    OV_FlexMsgFree(Msg);
}

TEST_F(Imc, RequestsAreTheseBytesInOneSend)
{
    using namespace std::string_literals;
    const std::string Agrees = Reply(0, "");
    Sends = 0;
    EXPECT_EQ(OV_ImcConfSet(8, 0x1234, Agrees.data(), 16), 0);
    EXPECT_EQ(LastRequest(), "\x8\0\x34\x12\0\0\0\0\x10\0\0\0\0\0\0\0"s + Agrees);
    EXPECT_EQ(OV_ImcConfGet(8, 0x1234, nullptr, 3, nullptr, 9), 0);
    /* Callers' compilers narrow the operation in silence; here the invocation does. */
    EXPECT_EQ(std::invoke(OV_ImcConfGetByFunc, 8, 0x1234, nullptr, 3, nullptr, nullptr), 0);
    EXPECT_EQ(LastRequest(), "\x8\0\x34\0\0\0\0\0\0\0\0\0\0\0\0\0"s);
    EXPECT_EQ(Sends, 3);
}

/* Hostile claims go on with a good reply, which no exchange may find. */
TEST_F(Imc, WhatAGetMakesOfTheReply)
{
    static const char *const NONE = "..........";
    static const std::string ABC = Reply(0, "abc");
    static const std::string SEND = "3 OV_ImcSendAll failed : ";
    static const STRINGS CUT_OFF = {"3 Imc recv payload failed : -121\n"};
    static const STRINGS NO_MEMORY = {"3 _OV_ImcConfClientThread realloc memory failed\n",
                                      "3 Imc recv payload failed : -12\n"};
    static const struct {
        uint8_t Mod;
        std::string Answer;
        std::vector<ssize_t> Portions; /* of the send, then of the receives */
        size_t ReplyBytes;
        OV_ERR_T Result;
        const char *Reply; /* null: none, and the connection is over */
        STRINGS Log;
    } ROWS[] = {
        {8, Reply(0, "0123456789"), {}, 10, 0, "0123456789", {}},
        {1, Reply(5, "0123"), {}, 10, 5, "0123......", {}},
        {9, ABC, {}, 2, -ENOBUFS, "ab........", {"3 the 9(513) reply data is truncated.\n"}},
        {8, Reply(0, ""), {}, 4, -ENODATA, NONE, {"3 the 8(513) request can't get reply data\n"}},
        {8, Reply(-EPERM, "0123"), {}, 4, -EPERM, NONE, {}},
        {8, Reply(6, "0123"), {}, 0, 6, NONE, {}},
        {8, ABC, {1, 15, 19, 1, -EAGAIN, -EINTR, 15, 1, 2}, 3, 0, "abc.......", {}},
        {8, ABC, {7, -EINTR}, 3, 0, "abc.......", {SEND + "Interrupted system call -4\n"}},
        {8, ABC, {7, -ENOSPC}, 3, -ENOSPC, nullptr, {SEND + "No space left on device -28\n"}},
        {8, ABC, {35, -EPERM}, 3, -EPERM, nullptr, {"3 Imc recv hdr failed : -1\n"}},
        {3, ABC.substr(0, 15), {}, 4, -EREMOTEIO, nullptr, {"3 Imc recv hdr failed : -121\n"}},
        {3, ABC.substr(0, 18), {}, 4, -EREMOTEIO, nullptr, CUT_OFF},
        {2, Reply(0, "", 1 << 30), {}, 4, -EREMOTEIO, nullptr, CUT_OFF},
        {8, Reply(0, ABC, UINT32_MAX), {}, 4, -ENOMEM, nullptr, NO_MEMORY},
        {8, Reply(0, ABC, UINT64_MAX - 19), {}, 4, -ENOMEM, nullptr, NO_MEMORY},
    };
    for (const auto &Row : ROWS) {
        SCOPED_TRACE(&Row - ROWS);
        const auto &[Mod, Sent, Parts, Size, Result, Reply, Log] = Row;
        std::string Got = NONE;
        Portions = Parts;
        EXPECT_EQ(OV_ImcConfGet(Mod, 513, Sent.data(), Sent.size(), Got.data(), Size), Result);
        EXPECT_EQ(Got, Reply == nullptr ? NONE : Reply);
        EXPECT_EQ(TakeSystemLog(), Log);
        EXPECT_EQ(OV_ImcConfSet(8, 2, nullptr, 0) < 0, Reply == nullptr);
        SetUp();
    }
    Server.Disconnect(); /* between two exchanges */
    EXPECT_LT(OV_ImcConfSet(8, 2, nullptr, 0), 0);
    EXPECT_LT(OV_ImcConfSet(8, 2, nullptr, 0), 0) << "and no signal";
}

/* It may exchange by itself, and sees replies that outgrow a message, and empty ones. */
TEST_F(Imc, AHandlerParsesTheReply)
{
    const OV_IMC_REPLY_HANDLER Take = [](const void *Bytes, size_t Count, void *Args) {
        static_cast<std::string *>(Args)->assign(static_cast<const char *>(Bytes), Count);
        return OV_ImcConfSet(8, 2, nullptr, 0) - 5;
    };
    std::string Got;
    for (const size_t Size : {3U, 0U, 4080U, 4081U, 100000U}) {
        const std::string Answer = Reply(0, std::string(Size, 'p'));
        EXPECT_EQ(OV_ImcConfGetByFunc(8, 2, Answer.data(), Answer.size(), Take, &Got), -5);
        EXPECT_EQ(Got, Answer.substr(16));
    }
    const std::string Refusal = Reply(INT32_MIN, "not for it"); /* a code without a positive */
    EXPECT_EQ(OV_ImcConfGetByFunc(8, 2, Refusal.data(), 26, Take, &Got), INT32_MIN);
    EXPECT_EQ(TakeSystemLog(), STRINGS{"3 Failed to OV_ImcConfigure in OV_ImcConfGetByFunc :"
                                       "Unknown error -2147483648 \n"});
}

TEST_F(Imc, StartsAndStopsInAndOutOfTurn)
{
    const auto Counts = [] { return std::pair(OpenDescriptors(), OpenThreads()); };
    const auto Before = Counts();
    for (int Start = 0; Start < 1000; Start++) {
        SetUp();
    }
    EXPECT_TRUE(WaitUntil([&] { return Counts() == Before; }));
    OV_FLEXIBLE_MSG Short = {};
    EXPECT_EQ(OV_ImcConfigure(&Short), -EINVAL) << "would wait for a reply to nothing";
    EXPECT_EQ(OV_ImcConfClientInit(), -EALREADY);
    OV_FlexMsgInit(); /* another user's */
    OV_ImcConfClientRelease();
    EXPECT_EQ(Blocks(), 0) << "the other user's";
    OV_FlexMsgRelease();
    EXPECT_EQ(OV_FlexMsgAlloc(), nullptr);
    EXPECT_EQ(OV_ImcConfSet(8, 2, nullptr, 0), -EBADF);
    EXPECT_EQ(TakeSystemLog(),
              (STRINGS{"3 _OV_ImcConfClientThread alloc memory failed\n",
                       "3 OV_ImcSendAll failed : Bad file descriptor -9\n",
                       "3 Failed to OV_ImcConfigure in OV_ImcConfSet :Bad file descriptor \n"}));
}

TEST(ImcStart, ARefusedOneSaysSoAndLeavesNothing)
{
    const size_t Descriptors = OpenDescriptors();
    EXPECT_EQ(OV_ImcConfClientInit(), -ECONNREFUSED);
    EXPECT_EQ(TakeSystemLog(), (STRINGS{"7 _OV_ImcConfConnect connnect to 0x7f000001:55435\n",
                                        "7 OV_ImcConnect connect 0x7f000001:55435\n",
                                        "3 OV_Connect failed : Connection refused\n",
                                        "3 Failed to _OV_ImcConfConnect, ret = -111\n"}));
    EXPECT_EQ(OpenDescriptors(), Descriptors);
    EXPECT_EQ(Blocks(), -1);
}

TEST_F(Imc, FourThreadsGetTheirOwnReplies)
{
    std::vector<std::jthread> Threads;
    std::atomic<int> Right = 0;
    for (int Thread = 1; Thread <= 4; Thread++) {
        Threads.emplace_back([&, Thread] {
            for (int Count = 0; Count < 500; Count++) {
                const std::string Answer = Reply(0, std::to_string(Thread * 1000 + Count));
                std::string Got(4, '.');
                OV_ImcConfGet(8, 2, Answer.data(), Answer.size(), Got.data(), Got.size());
                Right += Answer.ends_with(Got);
            }
        });
    }
    Threads.clear();
    EXPECT_EQ(Right, 2000);
}

/* One exchange waits for a silent service, others for their turn, one is in its handler: the stop
 * ends them. A start that overtook it would lose its lock and socket to that stop. */
TEST_F(Imc, AStopEndsExchangesThatHangAndNoStartOvertakesIt)
{
    static std::atomic<bool> s_MayEnd;
    s_MayEnd = false;
    const auto Wait = [](const void *, size_t, void *) -> OV_ERR_T {
        EXPECT_TRUE(WaitUntil([] { return s_MayEnd.load(); }));
        return 7;
    };
    std::atomic<int> Failed = 0;
    std::vector<std::jthread> Threads;
    Threads.emplace_back(
        [&] { EXPECT_EQ(OV_ImcConfGetByFunc(8, 2, nullptr, 0, Wait, nullptr), 7); });
    EXPECT_TRUE(WaitUntil([&] { return Blocks() == 2 && LastRequest().size() == 16; }));
    for (int Thread = 0; Thread < 3; Thread++) {
        Threads.emplace_back([&] { Failed += OV_ImcConfSet(8, 2, "hangs", 5) < 0; });
    }
    EXPECT_TRUE(WaitUntil([&] { return Blocks() == 8 && LastRequest().size() == 21; }));
    Threads.emplace_back([this] { TearDown(); });
    EXPECT_TRUE(WaitUntil([&] { return Failed == 3; }));
    EXPECT_EQ(OV_ImcConfClientInit(), -EALREADY);
    s_MayEnd = true;
}
