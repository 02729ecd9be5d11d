/* Bounded strings: a write past the size, a missing NUL, a wrong truncation report, a reader that
 * looks past its input. */
#include "orvaneSafeStr.h"
#include "testSupport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <random>
#include <string.h>
#include <tuple>

TEST(SafeStr, WritersReportTruncationAndStayInside)
{
    struct ROW {
        const char *Present; /* what Cat appends to */
        const char *Source;
        size_t Size;
        size_t CopyResult;
        const char *Copied;
        size_t CatResult;
        const char *Appended;
    };
    static const ROW Rows[] = {
        {"ab", "", 8, 0, "", 2, "ab"},
        {"ab", "1234567", 8, 7, "1234567", 8, "ab12345"},
        {"ab", "12345678", 8, 8, "1234567", 8, "ab12345"},
        {"ab", "12345", 8, 5, "12345", 7, "ab12345"},
        {"", "12", 1, 1, "", 1, ""},
        {"", "", 1, 0, "", 0, ""},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(std::string(Row.Present) + "+" + Row.Source);
        MARKED_BUFFER Copy(Row.Size);
        EXPECT_EQ(OV_SafeStrCopy(Copy.Text(), Row.Size, Row.Source), Row.CopyResult);
        EXPECT_STREQ(Copy.Text(), Row.Copied);
        EXPECT_TRUE(Copy.EdgesIntact());

        MARKED_BUFFER Print(Row.Size);
        EXPECT_EQ(OV_SNPrintf(Print.Text(), Row.Size, "%s", Row.Source), Row.CopyResult);
        EXPECT_STREQ(Print.Text(), Row.Copied);
        EXPECT_TRUE(Print.EdgesIntact());

        MARKED_BUFFER Cat(Row.Size);
        memcpy(Cat.Text(), Row.Present, strlen(Row.Present) + 1);
        EXPECT_EQ(OV_SafeStrCat(Cat.Text(), Row.Size, Row.Source), Row.CatResult);
        EXPECT_STREQ(Cat.Text(), Row.Appended);
        EXPECT_TRUE(Cat.EdgesIntact());
    }

    MARKED_BUFFER None(0);
    EXPECT_EQ(OV_SafeStrCopy(None.Text(), 0, "x"), 0U);
    EXPECT_EQ(OV_SafeStrCat(None.Text(), 0, "x"), 0U);
    EXPECT_EQ(OV_SNPrintf(None.Text(), 0, "x"), 0U);
    EXPECT_TRUE(None.EdgesIntact());

    MARKED_BUFFER Unterminated(8); /* the marks themselves are no NUL */
    EXPECT_EQ(OV_SafeStrCat(Unterminated.Text(), 8, "x"), 8U);
    EXPECT_EQ(strlen(Unterminated.Text()), 7U);
    EXPECT_TRUE(Unterminated.EdgesIntact());
}

TEST(SafeStr, AFormatThatFailsIsReportedAsCut)
{
    char Text[8] = "before";

    /* A wide character without a multibyte form in the C locale fails the print. */
    EXPECT_EQ(OV_SNPrintf(Text, sizeof(Text), "a%lc", static_cast<wint_t>(0x20AC)), sizeof(Text));
    EXPECT_EQ(Text[7], '\0');
    EXPECT_EQ(OV_SEPrintf(Text, Text + 8, "a%lc", static_cast<wint_t>(0x20AC)), Text + 7);
}

TEST(SafeStr, PrintToEndStaysSafeOnceFull)
{
    MARKED_BUFFER Line(8);
    char *const End = Line.Text() + 8;

    char *Next = OV_SEPrintf(Line.Text(), End, "%s", "abc");
    EXPECT_EQ(Next, Line.Text() + 3);
    Next = OV_SEPrintf(Next, End, "%d", 12345);
    EXPECT_EQ(Next, End - 1);
    EXPECT_STREQ(Line.Text(), "abc1234");
    EXPECT_EQ(OV_SEPrintf(Next, End, "more"), End - 1);
    EXPECT_STREQ(Line.Text(), "abc1234");
    EXPECT_EQ(OV_SEPrintf(End, End, "more"), End);
    EXPECT_TRUE(Line.EdgesIntact());
}

TEST(SafeStr, TokensThatFitAndThatDoNot)
{
    struct ROW {
        const char *Text;
        size_t Size;
        const char *Token;
        const char *Rest; /* null: the result is null */
    };
    static const ROW Rows[] = {
        {"  eth0  up", 16, "eth0", "up"},
        {"\t\v\f\r\neth0", 16, "eth0", ""},
        {"123456789012345 x", 16, "123456789012345", "x"},
        {"1234567890123456 x", 16, "123456789012345", nullptr},
        {" \n ", 16, "", nullptr},
        {"", 1, "", nullptr},
        {"a", 1, "", nullptr},
        {nullptr, 16, "", nullptr},
    };
    for (const ROW &Row : Rows) {
        MARKED_BUFFER Token(Row.Size);
        const char *Rest = OV_SafeStrGetStr(Row.Text, Token.Text(), Row.Size);
        EXPECT_STREQ(Token.Text(), Row.Token);
        EXPECT_STREQ(Rest, Row.Rest);
        EXPECT_TRUE(Token.EdgesIntact());
    }
    EXPECT_EQ(OV_SafeStrGetStr("a", nullptr, 0), nullptr);
}

TEST(SafeStr, NumbersOfEveryWidth)
{
    struct ROW {
        const char *Text;
        unsigned Radix;
        const char *Rest;
        uint32_t U32;
        int32_t I32;
        uint64_t U64;
        int64_t I64;
    };
    static const ROW Rows[] = {
        {" 0x1F ", 16, "", 31, 31, 31, 31},
        {" 0x1F ", 0, "", 31, 31, 31, 31},
        {"017", 0, "", 15, 15, 15, 15},
        {"12abc", 10, "abc", 12, 12, 12, 12},
        {" x", 10, nullptr, 0, 0, 0, 0},
        {"", 10, nullptr, 0, 0, 0, 0},
        {nullptr, 10, nullptr, 0, 0, 0, 0},
        {"7", 1, nullptr, 0, 0, 0, 0}, /* no such radix */
        {"7", 37, nullptr, 0, 0, 0, 0},
        {"4294967296 z", 10, "z", 0, 0, 4294967296U, 4294967296},
        {"-1", 10, "", UINT32_MAX, -1, UINT64_MAX, -1},
        {"99999999999999999999", 10, "", UINT32_MAX, -1, UINT64_MAX, INT64_MAX},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Text == nullptr ? "null" : Row.Text);
        uint32_t U32 = 77;
        int32_t I32 = 77;
        uint64_t U64 = 77;
        int64_t I64 = 77;
        EXPECT_STREQ(OV_SafeStrGetU32(Row.Text, Row.Radix, &U32), Row.Rest);
        EXPECT_STREQ(OV_SafeStrGetI32(Row.Text, Row.Radix, &I32), Row.Rest);
        EXPECT_STREQ(OV_SafeStrGetU64(Row.Text, Row.Radix, &U64), Row.Rest);
        EXPECT_STREQ(OV_SafeStrGetI64(Row.Text, Row.Radix, &I64), Row.Rest);
        EXPECT_EQ(U32, Row.U32);
        EXPECT_EQ(I32, Row.I32);
        EXPECT_EQ(U64, Row.U64);
        EXPECT_EQ(I64, Row.I64);
    }
}

/* What a reader made of a text: its outputs, and how much it left behind its position. */
struct READING {
    std::string Value;
    long Left = 0; /* -1: the position is one past the count */
    bool operator==(const READING &) const = default;
};
static constexpr long REFUSED = -100;

struct READ_ROW {
    const char *Text;
    READING Expected;
};
using READER = READING (*)(const char *Text, size_t Count);

static READING Result(const std::string &Value, const char *Text, size_t Count,
                      const char *Position)
{
    return {Value, Position == nullptr ? REFUSED : Text + Count - Position};
}

/* Every text, and each shorter count of it, ends at an unreadable page, and must read there as it
 * does with the rest of the text behind the count. A reader that looks at the character Behind the
 * count is given one, and is left out of that comparison. */
static void CheckReader(READER Read, const std::string &OnFailure, std::vector<READ_ROW> Rows,
                        const std::vector<const char *> &Refused, const std::string &Behind = "")
{
    const READING Failure = {OnFailure, REFUSED};

    for (const char *Text : Refused) {
        Rows.push_back({Text, Failure});
    }
    for (const READ_ROW &Row : Rows) {
        const size_t Length = strlen(Row.Text);
        for (size_t Count = 0; Count <= Length; Count++) {
            const std::string Text(Row.Text, Count);
            const GUARDED_TEXT Guarded(Text + Behind);
            const READING Got = Read(Guarded.Text(), Count);
            const READING Whole = Behind.empty() ? Read(Row.Text, Count) : Got;
            const READING &Expected = Count == Length ? Row.Expected : Whole;
            EXPECT_EQ(Got.Value, Expected.Value) << '"' << Text << '"';
            EXPECT_EQ(Got.Left, Expected.Left) << '"' << Text << '"';
            EXPECT_TRUE(Got == Failure || Got.Left >= -static_cast<long>(Behind.size())) << Text;
        }
    }
    EXPECT_EQ(Read(nullptr, 20), Failure);
}

/* Addresses in hexadecimal, ports and prefix lengths in decimal. */
static std::string Number(uint32_t Value, bool Address)
{
    char Text[16];
    snprintf(Text, sizeof(Text), Address ? "%08x" : " %u", Value);
    return Text;
}

template <auto Reader, typename... OUTPUTS>
static READING ReadNumbers(const char *Text, size_t Count)
{
    std::tuple<OUTPUTS...> Given = {OUTPUTS{77}...};
    return std::apply(
        [&](OUTPUTS &...Outputs) {
            const char *Position = Reader(Text, Count, &Outputs...);
            return Result((... + Number(Outputs, sizeof(Outputs) == 4)), Text, Count, Position);
        },
        Given);
}

template <char Delimiter>
static char *GetIp4AddrPort(const char *Text, size_t Count, uint32_t *Address, uint16_t *Port)
{
    return OV_SafeStrGetIp4AddrPort(Text, Count, Delimiter, Address, Port);
}

TEST(SafeStr, Ip4AddressAtTheEdgeOfMemory)
{
    CheckReader(ReadNumbers<OV_SafeStrGetIp4Addr, uint32_t>, "00000000",
                {{"192.168.1.1", {"c0a80101"}},
                 {"0.0.0.0", {"00000000"}},
                 {" 1.2.3.4 \t", {"01020304"}},
                 {"1.2.3.4x", {"01020304", 1}},
                 {"1.2.3.4 .", {"01020304", 1}},
                 {"1.2.3.255.5", {"010203ff", 2}},
                 {"0001.2.3.000004", {"01020304"}}},
                {"256.1.1.1", "1.2.3.999999999999", "1.2.3", "1.2.3.", "1.2.3.x", "1..2.3.4",
                 ".1.2.3.4", "1.2.3.4294967297", "-1.2.3.4", "1.2 .3.4", "        ", "  1.2.3"});
}

TEST(SafeStr, PortsAndPrefixLengths)
{
    CheckReader(ReadNumbers<OV_SafeStrGetPort, uint16_t>, " 0",
                {{"65535", {" 65535"}}, {" \t00080 \n", {" 80"}}, {"443,", {" 443", 1}}},
                {"65536", "4294967297", "+1", "  ", "x", ""});
    CheckReader(ReadNumbers<OV_SafeStrGetMask, uint8_t>, " 0",
                {{" 32 x", {" 32", 1}}, {"0", {" 0"}}}, {"33", "256", "", "/8"});

    CheckReader(ReadNumbers<GetIp4AddrPort<':'>, uint32_t, uint16_t>, "00000000 0",
                {{"10.0.0.1:80", {"0a000001 80"}}, {" 1.2.3.4 : 5 ,", {"01020304 5", 1}}},
                {"10.0.0.1:65536", "10.0.0.1:", "10.0.0.1", "10.0.0.1 80", "10.0.0.256:80"});
    CheckReader(ReadNumbers<GetIp4AddrPort<'\0'>, uint32_t, uint16_t>, "00000000 0",
                {{"10.0.0.1 80", {"0a000001 80"}}}, {"10.0.0.180", "10.0.0.1:80", "10.0.0.1  "});

    const READER ReadWithMask = ReadNumbers<OV_SafeStrGetIp4AddrMask, uint32_t, uint8_t>;
    CheckReader(ReadWithMask, "00000000 0",
                {{"10.0.0.0/8", {"0a000000 8"}},
                 {" 1.2.3.4 / 32 x", {"01020304 32", 1}},
                 {"10.0.0.10", {"00000000 32", -1}},
                 {"10.0.0.0,32", {"00000000 32", 2}}},
                {"10.0.0.0/33", "10.0.0.0/x", "10.0.0.0/", "256.0.0.0/8", "1.2.3.4"},
                std::string(1, '\0'));
    /* A slash at the count is seen, and nothing remains behind it. */
    CheckReader(ReadWithMask, "00000000 0", {}, {"10.0.0.10"}, "/");
}

static OV_IN6_ADDR Ip6(const char *Text)
{
    OV_IN6_ADDR Address;
    EXPECT_EQ(inet_pton(AF_INET6, Text, &Address), 1) << Text;
    return Address;
}

static std::string Print(const void *Address)
{
    char Text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, Address, Text, sizeof(Text));
}

static READING ReadIp6(const char *Text, size_t Count)
{
    OV_IN6_ADDR Address = Ip6("7::7");
    const char *Position = OV_SafeStrGetIp6Addr(Text, Count, &Address);
    return Result(Print(&Address), Text, Count, Position);
}

TEST(SafeStr, Ip6Texts)
{
    for (const char *Text : {"::", "::1", "1::", "0001::0", "ABCD:Ef09::", "1:2:3:4:5:6:7:8",
                             "1:2:3:4:5:6:7::", "::2:3:4:5:6:7:8", "::ffff:1.2.3.4", "::1.2.3.4",
                             "1::2.3.4.5", "1:2:3:4:5:6:7.8.9.10", "1:2:3:4:5::255.0.0.255"}) {
        const OV_IN6_ADDR AsLibc = Ip6(Text);
        CheckReader(ReadIp6, "7::7", {{Text, {Print(&AsLibc)}}}, {});
    }
    const std::vector<READ_ROW> RefusedByLibc = {
        {" \n::1\t", {"::1"}},
        {"::1 x", {"::1", 1}},
        {"fe80::1%eth0", {"fe80::1", 5}},
        {"1:2:3:4:5:6:7:8 ::", {"1:2:3:4:5:6:7:8", 2}},
        {"::01.2.3.0000004", {"::1.2.3.4"}},
        {"::1.2.3.4.5", {"::1.2.3.4", 2}},
        /* Where no dotted tail can be read, what stands before the dot is the last group. */
        {"::256.1.1.1", {"::256", 6}},
        {"1::ffff:1.2.3", {"1::ffff:1", 4}},
        {"1:2:3:4:5:6:7:1.2.3.4", {"1:2:3:4:5:6:7:1", 6}},
        {"1::.2.3.4", {"1::", 6}},
        /* A single colon is refused at the very end, but not with anything behind it. */
        {"::1: ", {"::1"}},
        {"1:2:3:4:5:6:7:8:x", {"1:2:3:4:5:6:7:8", 1}},
    };
    for (const READ_ROW &Row : RefusedByLibc) {
        OV_IN6_ADDR Address;
        EXPECT_EQ(inet_pton(AF_INET6, Row.Text, &Address), 0) << Row.Text;
    }
    CheckReader(
        ReadIp6, "7::7", RefusedByLibc,
        {"", "  ", ":", ":1::", ":::", "1:::2", "1::2::3", "1:", "1::2:", "::00001", "g::"});
    CheckReader(ReadIp6, "7::7", {},
                {"1:2:3:4:5:6:7", "1:2:3:4:5:6:7:", "1:2:3:4:5:6:7:8:", "1:2:3:4:5:6:7:8:9",
                 "1:2:3:4:5:6:7:8::", "::1:2:3:4:5:6:7:8", "1:2:3:4::5:6:7:8", "::00001.2.3.4",
                 "1.2.3.4"});
}

TEST(SafeStr, EthernetTexts)
{
    const READER Read = [](const char *Text, size_t Count) {
        OV_ETH_ADDR Out = {{7, 7, 7, 7, 7, 7}};
        const char *Position = OV_SafeStrGetEthAddr(Text, Count, &Out);
        std::string Value;
        for (const OV_BE16 Part : Out.Addr16) {
            Value += Number(htons(Part), true).substr(4);
        }
        return Result(Value, Text, Count, Position);
    };
    CheckReader(Read, "070707070707",
                {{"00:1a:2B:3c:4d:5e", {"001a2b3c4d5e"}},
                 {" ff:FF:ff:ff:ff:ff \t-", {"ffffffffffff", 1}},
                 {"0:1:2:3::5e       ", {"00010203005e"}}},
                {"00:1a:2b:3c:4d:5", "00:1a:2b:3c:4d:5 ", "00:1a:2b:3c:4d:5e0",
                 "00:1a:2b:3c:4d:5e:", "00:1a:2b:3c:4d:5e:6f",
                 "00:1a:2b:3c:4d:::", "00:1a:2b:3c:4d   ", "00-1a-2b-3c-4d-5e", "001:a:2b:3c:4d:5e",
                 "0:1:2:3:4:5e", "                  "});
}

/* Writes into every size up to one more than the text needs. */
template <typename FORMAT>
static void CheckFormat(const std::string &Text, FORMAT Format)
{
    SCOPED_TRACE(Text);
    for (size_t Size = 0; Size <= Text.size() + 2; Size++) {
        MARKED_BUFFER Buffer(Size);
        EXPECT_EQ(Format(Buffer.Text(), Size), std::min(Text.size(), Size));
        if (Size != 0) {
            EXPECT_EQ(Buffer.Text(), Text.substr(0, Size - 1));
        }
        EXPECT_TRUE(Buffer.EdgesIntact());
    }
}

TEST(SafeStr, AddressesWritten)
{
    for (const char *Text : {"0.0.0.0", "1.20.100.99", "10.9.199.255", "255.255.255.255"}) {
        OV_IN_ADDR Address;
        ASSERT_EQ(inet_pton(AF_INET, Text, &Address), 1);
        CheckFormat(Text, [&](char *Buffer, size_t Size) {
            return OV_SafeStrFormatIp4Addr(Buffer, Size, &Address);
        });
    }
    for (const char *Text :
         {"::", "::1", "1::", "2001:db8::1:0:0:1", "1:0:0:2::3", "1:2:3:4:5:6::", "0:2:3:4:5:6:7:0",
          "2001:db8:0:1:1:1:1:1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::ffff:1.2.3.4",
          "::0.1.0.0", "::fffe:102:304", "::ffff:0:102:304"}) {
        const OV_IN6_ADDR Address = Ip6(Text);
        CheckFormat(Text, [&](char *Buffer, size_t Size) {
            return OV_SafeStrFormatIp6Addr(Buffer, Size, &Address);
        });
    }
}

TEST(SafeStr, AddressesOfEitherFamily)
{
    static constexpr auto INVALID = OV_IN_ADDR_TYPE_INVALID;
    OV_IP_TYPE_ADDR Ip = {INVALID, {.In6 = Ip6("102:304:5::6")}};
    const char *const Text = "9.8.7.6";
    OV_INET_ADDR *const Addr = &Ip.Addr;

    EXPECT_EQ(OV_SafeStrGetIpAddr(Text, 7, INVALID, Addr), nullptr);
    EXPECT_EQ(OV_SafeStrGetIpAddr("9.8.7.x", 7, OV_IN_ADDR_TYPE_IPV4, Addr), nullptr);
    EXPECT_EQ(Print(Addr), "102:304:5::6");
    EXPECT_EQ(OV_SafeStrGetIpAddr(Text, 7, OV_IN_ADDR_TYPE_IPV4, Addr), Text + 7);
    EXPECT_EQ(Print(Addr), "908:706:5::6"); /* the other 12 bytes stay */

    MARKED_BUFFER Untouched(0);
    EXPECT_EQ(OV_SafeStrFormatIpAddr(Untouched.Text(), 16, INVALID, Addr), 0U);
    EXPECT_EQ(OV_SafeStrFormatIpTypeAddr(Untouched.Text(), 0, &Ip), Untouched.Text());
    EXPECT_EQ(OV_SafeStrFormatIpTypeAddr(Untouched.Text(), -1, &Ip), Untouched.Text());
    EXPECT_TRUE(Untouched.EdgesIntact());

    for (const auto Type : {OV_IN_ADDR_TYPE_IPV4, OV_IN_ADDR_TYPE_IPV6, INVALID}) {
        Ip.AddrType = Type;
        const std::string Expected = Type == OV_IN_ADDR_TYPE_IPV4 ? Text : "908:706:5::6";
        CheckFormat(Expected, [&](char *Buffer, size_t Size) {
            EXPECT_EQ(OV_SafeStrFormatIpTypeAddr(Buffer, static_cast<int32_t>(Size), &Ip), Buffer);
            return std::min(Expected.size(), Size); /* it has no such result */
        });
        if (Type != INVALID) {
            CheckFormat(Expected, [&](char *Buffer, size_t Size) {
                return OV_SafeStrFormatIpAddr(Buffer, Size, Type, Addr);
            });
        }
    }

    const READER Read = [](const char *Given, size_t Count) {
        OV_IP_TYPE_ADDR Out = {INVALID, {{7, 7, 7, 7}}};
        const BOOL Found = OV_SafeStrGetIpTypeAddr(Given, Count, &Out);
        const std::string Value = std::to_string(Out.AddrType) + " " + Print(&Out.Addr);
        return READING{Value, Found == TRUE ? 0 : REFUSED};
    };
    CheckReader(
        Read, "0 ::",
        {{"1.2.3.4", {"0 102:304::"}}, {"fe80::1", {"1 fe80::1"}}, {"::1.2.3.4", {"1 ::1.2.3.4"}}},
        {"1.2.3.4 :", "0.0.0.0", "::", "eth0", ":1::"});
}

TEST(SafeStr, RandomIp6AddressesAsLibcHasThem)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr int ROUNDS = 100'000;
#else
    static constexpr int ROUNDS = 1'000'000;
#endif
    std::mt19937 Random(42);
    for (int Round = 0; Round < ROUNDS && !HasFailure(); Round++) {
        OV_IN6_ADDR Address;
        const auto Shape = Random() % 8; /* zero runs; some IPv4-compatible and -mapped */
        for (size_t Group = 0; Group < 8; Group++) {
            const bool Zero = Group < 6 ? Shape < 2 || Random() % 2 == 0 : Random() % 16 == 0;
            const auto Value = Random() >> (16 + Random() % 16);
            Address.In6.U6Addr16[Group] = Zero ? 0 : htons(static_cast<uint16_t>(Value));
        }
        Address.In6.U6Addr16[5] = Shape == 1 ? 0xFFFF : Address.In6.U6Addr16[5];

        char Text[INET6_ADDRSTRLEN];
        const size_t Length = OV_SafeStrFormatIp6Addr(Text, sizeof(Text), &Address);
        const std::string Written = Print(&Address);
        ASSERT_EQ(std::string(Text, Length), Written);
        ASSERT_EQ(ReadIp6(Text, Length), (READING{Written}));

        /* With one character exchanged: what libc takes we take, and what we take to its end libc
         * refuses only for a leading zero in a dotted tail. */
        Text[Random() % Length] = ":.0159af"[Random() % 8];
        OV_IN6_ADDR Theirs;
        const bool Taken = inet_pton(AF_INET6, Text, &Theirs) == 1;
        const READING Ours = ReadIp6(Text, Length);
        if (Taken) {
            ASSERT_EQ(Ours, (READING{Print(&Theirs)})) << Text;
        } else if (Ours.Left == 0) {
            ASSERT_TRUE(strstr(Text, ".0") || strstr(Text, ":0")) << Text;
            ASSERT_NE(strchr(Text, '.'), nullptr) << Text;
        }
    }
}
