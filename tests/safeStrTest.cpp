/* Bounded strings: a write past the size, a missing NUL, a wrong truncation report, a reader that
 * looks past its input. */
#include "orvaneSafeStr.h"
#include "testSupport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <random>
#include <string.h>
#include <tuple>

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

TEST(SafeStr, WritersReportTruncationAndStayInside)
{
    for (const char *Source : {"", "1", "1234567"}) {
        CheckFormat(Source,
                    [=](char *Out, size_t Size) { return OV_SafeStrCopy(Out, Size, Source); });
        CheckFormat(Source,
                    [=](char *Out, size_t Size) { return OV_SNPrintf(Out, Size, "%s", Source); });
        CheckFormat(std::string("ab") + Source, [=](char *Out, size_t Size) {
            memcpy(Out, "ab", std::min(Size, sizeof("ab"))); /* unterminated, where it is cut */
            return OV_SafeStrCat(Out, Size, Source);
        });
    }
}

TEST(SafeStr, PrintToEndStaysSafeOnceFull)
{
    MARKED_BUFFER Line(8);
    char *const End = Line.Text() + 8;

    EXPECT_EQ(OV_SEPrintf(Line.Text(), End, "%s", "abc"), Line.Text() + 3);
    EXPECT_EQ(OV_SEPrintf(Line.Text() + 3, End, "%d", 12345), End - 1);
    EXPECT_EQ(OV_SEPrintf(End - 1, End, "more"), End - 1);
    EXPECT_EQ(OV_SEPrintf(End, End, "more"), End);
    EXPECT_STREQ(Line.Text(), "abc1234");

    End[-1] = 'x';
    /* A wide character without a multibyte form in the C locale fails the print. */
    EXPECT_EQ(OV_SNPrintf(Line.Text(), 8, "a%lc", static_cast<wint_t>(0x20AC)), 8U);
    EXPECT_EQ(End[-1], '\0');
    EXPECT_EQ(OV_SEPrintf(Line.Text(), End, "a%lc", static_cast<wint_t>(0x20AC)), End - 1);
    EXPECT_TRUE(Line.EdgesIntact());
}

TEST(SafeStr, TokensThatFitAndThatDoNot)
{
    static const struct {
        const char *Text;
        size_t Size;
        const char *Token;
        const char *Rest; /* null: the result is null */
    } ROWS[] = {{"  eth0  up", 16, "eth0", "up"},
                {"\t\v\f\r\neth0", 16, "eth0", ""},
                {"123456789012345 x", 16, "123456789012345", "x"},
                {"1234567890123456 x", 16, "123456789012345", nullptr},
                {" \n ", 16, "", nullptr},
                {"a", 1, "", nullptr},
                {nullptr, 16, "", nullptr}};
    for (const auto &Row : ROWS) {
        MARKED_BUFFER Token(Row.Size);
        EXPECT_STREQ(OV_SafeStrGetStr(Row.Text, Token.Text(), Row.Size), Row.Rest);
        EXPECT_STREQ(Token.Text(), Row.Token);
        EXPECT_TRUE(Token.EdgesIntact());
    }
    EXPECT_EQ(OV_SafeStrGetStr("a", nullptr, 0), nullptr);
}

TEST(SafeStr, NumbersOfEveryWidth)
{
    static const struct {
        const char *Text;
        unsigned Radix;
        const char *Rest;
        uint32_t U32;
        int32_t I32;
        uint64_t U64;
        int64_t I64;
    } ROWS[] = {{" 0x1F ", 16, "", 31, 31, 31, 31},
                {"017", 0, "", 15, 15, 15, 15},
                {"12abc", 10, "abc", 12, 12, 12, 12},
                {" x", 10, nullptr, 0, 0, 0, 0},
                {nullptr, 10, nullptr, 0, 0, 0, 0},
                {"7", 1, nullptr, 0, 0, 0, 0}, /* no such radix */
                {"7", 37, nullptr, 0, 0, 0, 0},
                {"4294967296 z", 10, "z", 0, 0, 4294967296U, 4294967296},
                {"-1", 10, "", UINT32_MAX, -1, UINT64_MAX, -1},
                {"99999999999999999999", 10, "", UINT32_MAX, -1, UINT64_MAX, INT64_MAX}};
    for (const auto &Row : ROWS) {
        SCOPED_TRACE(Row.Text == nullptr ? "null" : Row.Text);
        const auto Check = [&]<typename NUMBER>(auto Reader, NUMBER Expected) {
            NUMBER Value = 77;
            EXPECT_STREQ(Reader(Row.Text, Row.Radix, &Value), Row.Rest);
            EXPECT_EQ(Value, Expected);
        };
        Check(OV_SafeStrGetU32, Row.U32);
        Check(OV_SafeStrGetI32, Row.I32);
        Check(OV_SafeStrGetU64, Row.U64);
        Check(OV_SafeStrGetI64, Row.I64);
    }
}

/* What a reader made of a text: its outputs, and "+" how much it left behind its position ("+-1":
 * it is one past the count), or "!". */
static std::string Result(const std::string &Value, const char *Text, size_t Count,
                          const char *Position)
{
    if (Position == nullptr) {
        return Value + "!";
    }
    return Position == Text + Count ? Value : Value + "+" + std::to_string(Text + Count - Position);
}

using READER = std::string (*)(const char *Text, size_t Count);
using READ_ROWS = std::vector<std::pair<const char *, std::string>>;

/* Every text, and each shorter count of it, ends at an unreadable page, and must read there as it
 * does with the rest of the text behind the count. A reader that looks at the character Behind the
 * count is given one, and is left out of that comparison. */
static void CheckReader(READER Read, const std::string &OnFailure, READ_ROWS Rows,
                        const std::vector<const char *> &Refused, const std::string &Behind = "")
{
    const std::string Failure = OnFailure + "!";

    for (const char *Text : Refused) {
        Rows.emplace_back(Text, Failure);
    }
    for (const auto &[Text, Expected] : Rows) {
        const size_t Length = strlen(Text);
        for (size_t Count = 0; Count <= Length; Count++) {
            const GUARDED_TEXT Guarded(std::string(Text, Count) + Behind);
            const std::string Got = Read(Guarded.Text(), Count);
            const std::string Whole = Behind.empty() ? Read(Text, Count) : Got;
            EXPECT_EQ(Got, Count == Length ? Expected : Whole) << Text << ", " << Count;
            EXPECT_TRUE(Got.back() != '!' || Got == Failure) << Text << ", " << Count;
            EXPECT_TRUE(!Behind.empty() || !Contains(Got, "+-")) << Text << ", " << Count;
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
static std::string ReadNumbers(const char *Text, size_t Count)
{
    std::tuple<OUTPUTS...> Given = {OUTPUTS{77}...};
    const char *Position = Reader(Text, Count, &std::get<OUTPUTS>(Given)...);
    const std::string Value = (... + Number(std::get<OUTPUTS>(Given), sizeof(OUTPUTS) == 4));
    return Result(Value, Text, Count, Position);
}

template <char Delimiter>
static char *GetIp4AddrPort(const char *Text, size_t Count, uint32_t *Address, uint16_t *Port)
{
    return OV_SafeStrGetIp4AddrPort(Text, Count, Delimiter, Address, Port);
}

TEST(SafeStr, Ip4AddressAtTheEdgeOfMemory)
{
    CheckReader(ReadNumbers<OV_SafeStrGetIp4Addr, uint32_t>, "00000000",
                {{"192.168.1.1", "c0a80101"},
                 {"0.0.0.0", "00000000"},
                 {" 1.2.3.4 \t", "01020304"},
                 {"1.2.3.4 .", "01020304+1"},
                 {"1.2.3.255.5", "010203ff+2"},
                 {"0001.2.3.000004", "01020304"}},
                {"256.1.1.1", "1.2.3.999999999999", "1.2.3.", "1.2.3.x", "1..2.3.4", ".1.2.3.4",
                 "1.2.3.4294967297", "-1.2.3.4", "1.2 .3.4", "        ", "  1.2.3"});
}

TEST(SafeStr, PortsAndPrefixLengths)
{
    CheckReader(ReadNumbers<OV_SafeStrGetPort, uint16_t>, " 0",
                {{"65535", " 65535"}, {" \t00080 \n", " 80"}, {"443,", " 443+1"}},
                {"65536", "4294967297", "+1", "  ", "x", ""});
    CheckReader(ReadNumbers<OV_SafeStrGetMask, uint8_t>, " 0", {{" 32 x", " 32+1"}, {"0", " 0"}},
                {"33", "256", "", "/8"});

    CheckReader(ReadNumbers<GetIp4AddrPort<':'>, uint32_t, uint16_t>, "00000000 0",
                {{"10.0.0.1:80", "0a000001 80"}, {" 1.2.3.4 : 5 ,", "01020304 5+1"}},
                {"10.0.0.1:65536", "10.0.0.1:", "10.0.0.1", "10.0.0.1 80", "10.0.0.256:80"});
    CheckReader(ReadNumbers<GetIp4AddrPort<'\0'>, uint32_t, uint16_t>, "00000000 0",
                {{"10.0.0.1 80", "0a000001 80"}}, {"10.0.0.180", "10.0.0.1:80", "10.0.0.1  "});

    const READER ReadWithMask = ReadNumbers<OV_SafeStrGetIp4AddrMask, uint32_t, uint8_t>;
    CheckReader(ReadWithMask, "00000000 0",
                {{"10.0.0.0/8", "0a000000 8"},
                 {" 1.2.3.4 / 32 x", "01020304 32+1"},
                 {"10.0.0.10", "00000000 32+-1"},
                 {"10.0.0.0,32", "00000000 32+2"}},
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

static std::string ReadIp6(const char *Text, size_t Count)
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
        CheckReader(ReadIp6, "7::7", {{Text, Print(&AsLibc)}}, {});
    }
    const READ_ROWS RefusedByLibc = {
        {" \n::1\t", "::1"},
        {"fe80::1%eth0", "fe80::1+5"},
        {"1:2:3:4:5:6:7:8 ::", "1:2:3:4:5:6:7:8+2"},
        {"::01.2.3.0000004", "::1.2.3.4"},
        {"::1.2.3.4.5", "::1.2.3.4+2"},
        /* Where no dotted tail can be read, what stands before the dot is the last group. */
        {"::256.1.1.1", "::256+6"},
        {"1:2:3:4:5:6:7:1.2.3.4", "1:2:3:4:5:6:7:1+6"},
        {"1::.2.3.4", "1::+6"},
        /* A single colon is refused at the very end, but not with anything behind it. */
        {"::1: ", "::1"},
        {"1:2:3:4:5:6:7:8:x", "1:2:3:4:5:6:7:8+1"},
    };
    for (const auto &[Text, Expected] : RefusedByLibc) {
        OV_IN6_ADDR Address;
        EXPECT_EQ(inet_pton(AF_INET6, Text, &Address), 0) << Text;
    }
    CheckReader(ReadIp6, "7::7", RefusedByLibc,
                {"", "  ", ":", ":1::", ":::", "1:", "1:::2", "1::2::3", "1::2:", "::00001",
                 "g::", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:", "1:2:3:4:5:6:7:8:", "1:2:3:4:5:6:7:8:9",
                 "1:2:3:4:5:6:7:8::", "::1:2:3:4:5:6:7:8", "::00001.2.3.4", "1.2.3.4"});
}

TEST(SafeStr, EthernetTexts)
{
    const READER Read = [](const char *Text, size_t Count) {
        OV_ETH_ADDR Out = {{7, 7, 7, 7, 7, 7}};
        std::string Value;
        const char *Position = OV_SafeStrGetEthAddr(Text, Count, &Out);
        for (const uint8_t Part : Out.Addr8) {
            Value += Number(Part, true).substr(6);
        }
        return Result(Value, Text, Count, Position);
    };
    CheckReader(Read, "070707070707",
                {{"00:1a:2B:3c:4d:5e", "001a2b3c4d5e"},
                 {" ff:FF:ff:ff:ff:ff \t-", "ffffffffffff+1"},
                 {"0:1:2:3::5e       ", "00010203005e"}},
                {"00:1a:2b:3c:4d:5 ", "00:1a:2b:3c:4d:5e0", "00:1a:2b:3c:4d:5e:",
                 "00:1a:2b:3c:4d:5e:6f", "00:1a:2b:3c:4d:5e:6f:70", "00:1a:2b:3c:4d   ",
                 "00-1a-2b-3c-4d-5e", "001:a:2b:3c:4d:5e", "0:1:2:3:4:5e", "                  "});
}

TEST(SafeStr, AddressesWritten)
{
    for (const char *Text :
         {"0.0.0.0", "1.20.100.99", "10.9.199.255", "255.255.255.255", "::", "::1",
          "1::", "2001:db8::1:0:0:1", "1:0:0:2::3", "1:2:3:4:5:6::", "0:2:3:4:5:6:7:0", "::0.1.0.0",
          "2001:db8:0:1:1:1:1:1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::ffff:1.2.3.4",
          "::fffe:102:304", "::ffff:0:102:304"}) {
        const bool V6 = Contains(Text, ":");
        OV_INET_ADDR Address;
        ASSERT_EQ(inet_pton(V6 ? AF_INET6 : AF_INET, Text, &Address), 1);
        CheckFormat(Text, [&](char *Buffer, size_t Size) {
            const auto Type = V6 ? OV_IN_ADDR_TYPE_IPV6 : OV_IN_ADDR_TYPE_IPV4;
            return OV_SafeStrFormatIpAddr(Buffer, Size, Type, &Address);
        });
    }
}

TEST(SafeStr, AddressesOfEitherFamily)
{
    static constexpr auto INVALID = OV_IN_ADDR_TYPE_INVALID;
    OV_IP_TYPE_ADDR Ip = {INVALID, {.In6 = Ip6("102:304:5::6")}};
    OV_INET_ADDR *const Addr = &Ip.Addr;

    EXPECT_EQ(OV_SafeStrGetIpAddr("9.8.7.6", 7, INVALID, Addr), nullptr);
    EXPECT_EQ(OV_SafeStrGetIpAddr("9.8.7.x", 7, OV_IN_ADDR_TYPE_IPV4, Addr), nullptr);
    EXPECT_EQ(Print(Addr), "102:304:5::6");
    EXPECT_NE(OV_SafeStrGetIpAddr("9.8.7.6", 7, OV_IN_ADDR_TYPE_IPV4, Addr), nullptr);
    EXPECT_EQ(Print(Addr), "908:706:5::6"); /* the other 12 bytes stay */

    MARKED_BUFFER Untouched(0);
    EXPECT_EQ(OV_SafeStrFormatIpAddr(Untouched.Text(), 16, INVALID, Addr), 0U);
    EXPECT_EQ(OV_SafeStrFormatIpTypeAddr(Untouched.Text(), -1, &Ip), Untouched.Text());
    EXPECT_TRUE(Untouched.EdgesIntact());

    for (const auto Type : {OV_IN_ADDR_TYPE_IPV4, OV_IN_ADDR_TYPE_IPV6, INVALID}) {
        Ip.AddrType = Type;
        const std::string Expected = Type == OV_IN_ADDR_TYPE_IPV4 ? "9.8.7.6" : "908:706:5::6";
        CheckFormat(Expected, [&](char *Buffer, size_t Size) {
            EXPECT_EQ(OV_SafeStrFormatIpTypeAddr(Buffer, static_cast<int32_t>(Size), &Ip), Buffer);
            return std::min(Expected.size(), Size); /* it has no such result */
        });
    }

    const READER Read = [](const char *Given, size_t Count) {
        OV_IP_TYPE_ADDR Out = {INVALID, {{7, 7, 7, 7}}};
        const BOOL Found = OV_SafeStrGetIpTypeAddr(Given, Count, &Out);
        const std::string Value = std::to_string(Out.AddrType) + " " + Print(&Out.Addr);
        return Found == TRUE ? Value : Value + "!";
    };
    CheckReader(
        Read, "0 ::",
        {{"1.2.3.4", "0 102:304::"}, {"fe80::1", "1 fe80::1"}, {"::1.2.3.4", "1 ::1.2.3.4"}},
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
        ASSERT_EQ(ReadIp6(Text, Length), Written);

        /* With one character exchanged: what libc takes we take, and what we take to its end libc
         * refuses only for a leading zero in a dotted tail. */
        Text[Random() % Length] = ":.0159af"[Random() % 8];
        OV_IN6_ADDR Theirs;
        const std::string Ours = ReadIp6(Text, Length);
        if (inet_pton(AF_INET6, Text, &Theirs) == 1) {
            ASSERT_EQ(Ours, Print(&Theirs)) << Text;
        } else if (!Contains(Ours, "!") && !Contains(Ours, "+")) {
            ASSERT_TRUE(Contains(Text, ".0") || (Contains(Text, ":0") && Contains(Text, ".")));
        }
    }
}
