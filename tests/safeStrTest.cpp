/* Bounded strings: a write past the size, a missing NUL, a wrong truncation report, a reader that
 * looks past its input. */
#include "orvaneSafeStr.h"
#include "testSupport.h"

#include <string.h>

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

TEST(SafeStr, Ip4AddressAtTheEdgeOfMemory)
{
    struct ROW {
        const char *Text;
        uint32_t Address;
        int Rest; /* what is left behind the position; -1: the result is null */
    };
    static const ROW Rows[] = {
        {"192.168.1.1", 0xC0A80101, 0},
        {"0.0.0.0", 0, 0},
        {" 1.2.3.4 \t", 0x01020304, 0},
        {"1.2.3.4x", 0x01020304, 1},
        {"1.2.3.4 .", 0x01020304, 1},
        {"0001.2.3.4", 0x01020304, 0},
        {"256.1.1.1", 0, -1},
        {"1.2.3.999999999999", 0, -1},
        {"1.2.3", 0, -1},
        {"1.2.3.", 0, -1},
        {"1..2.3.4", 0, -1},
        {".1.2.3.4", 0, -1},
        {"1.2.3.4294967297", 0, -1},
        {"-1.2.3.4", 0, -1},
        {"        ", 0, -1},
        {"  1.2.3", 0, -1},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Text);
        const GUARDED_TEXT Guarded(Row.Text);
        const size_t Length = strlen(Row.Text);
        uint32_t Address = 77;
        const char *Rest = OV_SafeStrGetIp4Addr(Guarded.Text(), Length, &Address);
        EXPECT_EQ(Address, Row.Address);
        EXPECT_EQ(Rest == nullptr ? -1 : Guarded.Text() + Length - Rest, Row.Rest);

        for (size_t Count = 0; Count < Length; Count++) {
            const GUARDED_TEXT Cut(std::string(Row.Text, Count));
            Rest = OV_SafeStrGetIp4Addr(Cut.Text(), Count, &Address);
            EXPECT_TRUE(Rest == nullptr || Rest <= Cut.Text() + Count);
            EXPECT_TRUE(Rest != nullptr || Address == 0);
        }
    }
    uint32_t Address = 77;
    EXPECT_EQ(OV_SafeStrGetIp4Addr(nullptr, 10, &Address), nullptr);
    EXPECT_EQ(Address, 0U);
    EXPECT_EQ(OV_SafeStrGetIp4Addr("1.2.3.4", 6, &Address), nullptr);
}
