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
#include <netinet/in.h>
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
    const ssize_t Part = Portions.front();
    Portions.erase(Portions.begin());
    errno = static_cast<int>(-Part);
    return std::clamp<ssize_t>(Part, -1, static_cast<ssize_t>(Size));
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
    std::string Text;

    for (const std::string &Line : TakeSystemLog()) {
        Text += Line;
    }
    return Text;
}

/* How many blocks are charged to this process's one module; -1 when it is not registered. */
static int Blocks()
{
    OV_USEAGE_INFO Info = {"", 0, 0, -1, 0};

    OV_MemGetUsage(0, &Info);
    return Info.VmemCounter;
}

static std::string Reply(OV_ERR_T RetCode, const std::string &Payload)
{
    return BytesOf(OV_IMC_REPLY_HDR{RetCode, {9, 9, 9, 9}, Payload.size()}) + Payload;
}

/* The service answers with the request's payload, or agrees to a request without one. */
static constexpr uint8_t BYTEWISE = 1; /* in the module's number: byte by byte */
static constexpr uint8_t CLOSES = 2;   /* and then closes the connection */

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
        ASSERT_EQ(OV_ImcConfClientInit(), 0);
        ASSERT_EQ(OV_ImcConfSet(8, 2, nullptr, 0), 0); /* the service is connected, too */
        Log();
    }
    std::string LastRequest()
    {
        const std::lock_guard Guard(Lock);
        return Request;
    }
    void Serve(int Socket)
    {
        OV_IMC_REQ_HDR Header = {};
        do {
            const std::string Start = ReceiveBytes(Socket, sizeof(Header));
            if (Start.size() < sizeof(Header)) {
                return;
            }
            memcpy(&Header, Start.data(), sizeof(Header));
            const std::string Payload = ReceiveBytes(Socket, Header.PayloadBytes);
            {
                const std::lock_guard Guard(Lock);
                Request = Start + Payload;
            }
            const size_t Piece = (Header.Mod & BYTEWISE) != 0 ? 1 : SIZE_MAX;
            SendBytes(Socket, Payload.empty() ? Reply(0, "") : Payload, Piece);
        } while ((Header.Mod & CLOSES) == 0);
    }
    std::mutex Lock;
    std::string Request; /* the last one, under Lock */
    LOOPBACK_SERVER Server{55435, [this](int Socket) { Serve(Socket); }};
};

TEST_F(Imc, AFlexMsgGrowsToWhatBytesNeedAndDoublesForTextAndItsNul)
{
    static const std::string TO_8192 = "7 realloc maxSize: 8192, pos : ";
    static const struct {
        bool IsText;
        size_t Before, Count, Size;
        std::string Log;
    } ROWS[] = {{false, 0, 4096, 4096, ""},
                {false, 4096, 904, 5000, ""},
                {true, 0, 4095, 4096, ""},
                {true, 0, 4096, 8192, TO_8192 + "0\n"},
                {true, 4096, 0, 8192, TO_8192 + "4096\n"},
                {true, 1, 9000, 16384, TO_8192 + "1\n7 realloc maxSize: 16384, pos : 1\n"}};
    for (const auto &Row : ROWS) {
        OV_FLEXIBLE_MSG *const Msg = OV_FlexMsgAlloc();
        const std::string Bytes(Row.Before + Row.Count, 'x');
        const char *const Added = Bytes.c_str() + Row.Before;
        EXPECT_TRUE(Msg->Size == 4096 && Msg->Pos == 0 && Msg->List.next == &Msg->List);
        EXPECT_EQ(std::string(Msg->FlexBuf, 4096), std::string(4096, '\0')) << "heap on the wire";
        OV_FlexMsgSafeSetData(Msg, Bytes.data(), Row.Before);
        EXPECT_EQ(Row.IsText ? OV_FlexMsgSetFormatData(Msg, "%s", Added)
                             : OV_FlexMsgSafeSetData(Msg, Added, Row.Count),
                  0);
        EXPECT_EQ(Msg->Size, Row.Size);
        EXPECT_EQ(Msg->Pos, Bytes.size());
        EXPECT_EQ(Row.IsText ? Msg->FlexBuf : std::string(Msg->FlexBuf, Msg->Pos), Bytes);
        EXPECT_EQ(Log(), Row.Log);
        OV_FlexMsgFree(Msg);
    }
}

TEST_F(Imc, AFlexMsgStaysAsItWasWhereItCannotGrow)
{
    OV_FLEXIBLE_MSG *const Msg = OV_FlexMsgAlloc();
    OV_FlexMsgSafeSetData(Msg, "0123", 4);
    for (const size_t Count : {SIZE_MAX, SIZE_MAX - 3, SIZE_MAX - 4, size_t{UINT32_MAX}}) {
        EXPECT_EQ(OV_FlexMsgSafeSetData(Msg, "", Count), -ENOMEM) << Count;
        EXPECT_EQ(Log(), NO_ROOM);
    }
    EXPECT_EQ(OV_FlexMsgSetFormatData(Msg, "%lc", static_cast<wint_t>(0x20AC)), -ENOMEM)
        << "not in this locale, however much room there is";
    EXPECT_TRUE(Msg->Size == 4096 && Msg->Pos == 4);

    OV_FLEXIBLE_MSG Previous = *Msg;
    const void *Fresh = OV_FlexMsgAllocData(Msg);
    EXPECT_TRUE(Fresh == Msg->FlexBuf && Fresh != Previous.FlexBuf && Msg->Pos == 0);
    EXPECT_EQ(OV_FlexMsgReallocData(&Previous, 0), nullptr); /* is still there to be freed */

    OV_FlexMsgSetDataLen(Msg, SIZE_MAX);
    EXPECT_EQ(OV_ImcSendAll(-1, Msg), -EINVAL) << "what follows the buffer is not ours to send";
    OV_FlexMsgFree(Msg);
}

/* Also writes of headers into buffers too small for one; the sanitizer looks for what is missed. */
TEST_F(Imc, APositionPastTheBufferIsMadeRoomForFirst)
{
    for (const auto &[Size, Pos] : {std::pair(0U, 0U), {0, 40}, {1, 0}, {8, 40}}) {
        const std::string Gap(Pos - std::min(Pos, Size), '\0');
        for (const std::string Way : {"text", "data", "reply", "request"}) {
            OV_FLEXIBLE_MSG *const Msg = OV_FlexMsgAlloc();
            OV_FlexMsgReallocData(Msg, Size);
            OV_FlexMsgSetDataLen(Msg, Pos);
            if (Way == "reply") {
                EXPECT_EQ(OV_ImcSafeSetReplyPayload(Msg, "p", 1), 0);
            } else if (Way == "request") {
                OV_ImcRequstInitHdr(Msg, 1, 2);
                const size_t Unset = std::max(Size, 4U);
                EXPECT_EQ(std::string(Msg->FlexBuf + Unset, 16 - Unset),
                          std::string(16 - Unset, '\0'));
            } else {
                EXPECT_EQ(Way == "text" ? OV_FlexMsgSetFormatData(Msg, "text")
                                        : OV_FlexMsgSafeSetData(Msg, "data", 4),
                          0);
                EXPECT_EQ(std::string(Msg->FlexBuf, Msg->Pos).substr(Pos - Gap.size()), Gap + Way);
            }
            OV_FlexMsgFree(Msg);
        }
    }
}

TEST_F(Imc, RequestsAreTheseBytesInOneSend)
{
    using namespace std::string_literals;
    const std::string Bare = "\x8\0\x34\x12\0\0\0\0\0\0\0\0\0\0\0\0"s;
    const std::string Agrees = Reply(0, "");
    const std::string Whole = "\x8\0\x34\x12\0\0\0\0\x10\0\0\0\0\0\0\0"s + Agrees;
    const auto Sent = [&](OV_ERR_T Result) {
        EXPECT_EQ(Result, 0);
        EXPECT_EQ(std::exchange(Sends, 0), 1);
        return LastRequest();
    };
    Sends = 0;
    EXPECT_EQ(Sent(OV_ImcConfSet(8, 0x1234, nullptr, 0)), Bare);
    EXPECT_EQ(Sent(OV_ImcConfSet(8, 0x1234, Agrees.data(), 16)), Whole);
    EXPECT_EQ(Sent(OV_ImcConfGet(8, 0x1234, Agrees.data(), 16, nullptr, 0)), Whole);
    EXPECT_EQ(Sent(OV_ImcConfGet(8, 0x1234, nullptr, 3, nullptr, 9)), Bare);
    /* Callers' compilers narrow the operation in silence; here the invocation does. */
    EXPECT_EQ(Sent(std::invoke(OV_ImcConfGetByFunc, 8, 0x1234, nullptr, 3, nullptr, nullptr)),
              "\x8\0\x34\0\0\0\0\0\0\0\0\0\0\0\0\0"s);
}

static std::string Claims(uint64_t PayloadBytes)
{
    return BytesOf(OV_IMC_REPLY_HDR{0, {}, PayloadBytes}) + Reply(0, "next");
}

/* Hostile claims go on with a good reply, which no exchange may find. */
TEST_F(Imc, WhatAGetMakesOfTheReply)
{
    static const std::string NONE = "..........", DIGITS = "0123456789", ABC = Reply(0, "abc");
    static const std::string HDR = "3 Imc recv hdr failed : ",
                             DATA = "3 Imc recv payload failed : ";
    static const std::string SEND = "3 OV_ImcSendAll failed : ", NO = NO_ROOM + DATA + "-12\n";
    static const std::string AGAIN =
        SEND + "Resource temporarily unavailable -11\n" + SEND + "Interrupted system call -4\n";
    static const struct {
        uint8_t Mod;
        std::string Answer;
        std::vector<ssize_t> Portions; /* of the send, then of the receives */
        size_t ReplyBytes;
        OV_ERR_T Result;
        const char *Reply; /* null: none, and the connection is over */
        std::string Log;
    } ROWS[] = {
        {8, Reply(0, DIGITS), {}, 10, 0, "0123456789", ""},
        {BYTEWISE, Reply(5, "0123"), {}, 10, 5, "0123......", ""},
        {9,
         Reply(0, DIGITS),
         {},
         9,
         -ENOBUFS,
         "012345678.",
         "3 the 9(513) reply data is truncated.\n"},
        {8,
         ABC.substr(0, 8) + std::string(8, '\0'),
         {},
         4,
         -ENODATA,
         "..........",
         "3 the 8(513) request can't get reply data\n"},
        {8, Reply(6, DIGITS), {}, 0, 6, "..........", ""},
        {8, Reply(-EPERM, "0123"), {}, 4, -EPERM, "..........", ""},
        {8, ABC, {1, 15, 19, 1, 15, 1, 2}, 3, 0, "abc.......", ""},
        {8, ABC, {7, -EAGAIN, -EINTR, 28, 1, -EAGAIN, -EINTR}, 3, 0, "abc.......", AGAIN},
        {8, ABC, {7, 0}, 3, -EREMOTEIO, nullptr, ""},
        {8, ABC, {7, -ENOSPC}, 3, -ENOSPC, nullptr, SEND + "No space left on device -28\n"},
        {8, ABC, {35, -ETIMEDOUT}, 3, -ETIMEDOUT, nullptr, HDR + "-110\n"},
        {BYTEWISE | CLOSES, ABC.substr(0, 15), {}, 4, -EREMOTEIO, nullptr, HDR + "-121\n"},
        {BYTEWISE | CLOSES, ABC.substr(0, 18), {}, 4, -EREMOTEIO, nullptr, DATA + "-121\n"},
        {CLOSES, Claims(1U << 30), {}, 4, -EREMOTEIO, nullptr, DATA + "-121\n"},
        {8, Claims(UINT32_MAX), {}, 4, -ENOMEM, nullptr, NO},
        {8, Claims(UINT64_MAX), {}, 4, -ENOMEM, nullptr, NO},
        {8, Claims(UINT64_MAX - 15), {}, 4, -ENOMEM, nullptr, NO},
    };
    for (const auto &Row : ROWS) {
        SCOPED_TRACE(&Row - ROWS);
        const std::string &Answer = Row.Answer;
        std::string Buffer = NONE;
        Portions = Row.Portions;
        EXPECT_EQ(OV_ImcConfGet(Row.Mod, 513, Answer.data(), Answer.size(), Buffer.data(),
                                Row.ReplyBytes),
                  Row.Result);
        EXPECT_EQ(Buffer, Row.Reply == nullptr ? NONE : Row.Reply);
        EXPECT_EQ(Log(), Row.Log);
        EXPECT_TRUE(Portions.empty());
        EXPECT_EQ(OV_ImcConfSet(8, 2, nullptr, 0) < 0, Row.Reply == nullptr);
        Reconnect();
    }
    Server.Disconnect(); /* between two exchanges */
    EXPECT_LT(OV_ImcConfSet(8, 2, nullptr, 0), 0) << "and no signal";
    EXPECT_LT(OV_ImcConfSet(8, 2, nullptr, 0), 0);
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
    EXPECT_EQ(Got.size(), 100000U);
    EXPECT_EQ(Log(), "3 Failed to OV_ImcConfigure in OV_ImcConfGetByFunc :"
                     "Unknown error -2147483648 \n");
}

TEST_F(Imc, StartsAndStopsOutOfTurn)
{
    OV_FLEXIBLE_MSG Short = {};
    EXPECT_EQ(OV_ImcConfigure(&Short), -EINVAL) << "would wait for a reply to nothing";
    EXPECT_EQ(OV_ImcConfClientInit(), -EALREADY);
    EXPECT_EQ(Server.Connections(), 1U);
    OV_SOCKET Socket = -1;
    EXPECT_EQ(OV_ImcConnect(INADDR_LOOPBACK, 55435, &Socket), 0);
    EXPECT_EQ(fcntl(Socket, F_GETFD), FD_CLOEXEC);
    OV_SocketClose(Socket);
    OV_ImcConfClientRelease();
    OV_ImcConfClientRelease();
    OV_FlexMsgRelease();
    EXPECT_EQ(Blocks(), -1);
    Log();
    EXPECT_EQ(OV_FlexMsgAlloc(), nullptr);
    EXPECT_EQ(OV_ImcConfSet(8, 2, nullptr, 0), -EBADF);
    EXPECT_EQ(Log(), "3 _OV_ImcConfClientThread alloc memory failed\n"
                     "3 OV_ImcSendAll failed : Bad file descriptor -9\n"
                     "3 Failed to OV_ImcConfigure in OV_ImcConfSet :Bad file descriptor \n");
    EXPECT_EQ(OV_ImcConfigure(&Short), -EBADF);
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
    for (int Thread = 0; Thread < 4; Thread++) {
        Threads.emplace_back([&, Thread] {
            for (int Count = 0; Count < 500; Count++) {
                const std::string Sent = std::to_string(Thread * 1000 + 1000 + Count);
                const std::string Answer = Reply(0, Sent);
                std::string Got(4, '.');
                OV_ImcConfGet(8, 2, Answer.data(), Answer.size(), Got.data(), Got.size());
                Right += Got == Sent;
            }
        });
    }
    Threads.emplace_back([] {
        pthread_cancel(pthread_self());
        OV_ImcConfSet(8, 2, nullptr, 0);
    });
    Threads.clear();
    EXPECT_EQ(Right, 2000);
    EXPECT_EQ(Blocks(), 0);
}

/* One waits for a silent service, the others for their turn, when the stop comes. */
TEST_F(Imc, AStopEndsExchangesThatHang)
{
    std::vector<std::jthread> Threads;
    std::atomic<int> Failed = 0;
    for (int Thread = 0; Thread < 3; Thread++) {
        Threads.emplace_back([&] { Failed += OV_ImcConfSet(8, 2, "hangs", 5) < 0; });
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
