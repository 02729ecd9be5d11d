#include "orvaneSafeStr.h"

#include "orvaneAssert.h"

#include <arpa/inet.h>
#include <array>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

static constexpr unsigned RADIX_MAX = 36;

/* "0.0.0.0": no shorter text is an address. */
static constexpr size_t IP4_TEXT_LENGTH_MIN = 7;
static constexpr unsigned IP4_PART_COUNT = 4;
static constexpr uint32_t IP4_PART_MAX = 255;
static constexpr size_t IP4_TEXT_SIZE = sizeof("255.255.255.255");

static constexpr uint32_t PORT_MAX = UINT16_MAX;
static constexpr uint32_t IP4_PREFIX_MAX = 32;
/* "0.0.0.0:0" and "0.0.0.0/0" */
static constexpr size_t IP4_WITH_NUMBER_LENGTH_MIN = 9;

static constexpr size_t IP6_BYTE_COUNT = sizeof(OV_IN6_ADDR);
static constexpr size_t IP6_GROUP_COUNT = 8;
static constexpr size_t IP6_GROUP_SIZE = 2;
static constexpr unsigned IP6_GROUP_DIGITS = 4;
static constexpr size_t IP6_TEXT_SIZE = sizeof("ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255");
static constexpr size_t IP6_RUN_LENGTH_MIN = 2; /* a single zero group is written as 0 */
static constexpr size_t IP6_TAIL_GROUP =
    6; /* the dotted tail is written in place of the last two */

static constexpr size_t ETH_TEXT_LENGTH_MIN = 17;
static constexpr unsigned ETH_BYTE_DIGITS = 2;

/* The POSIX locale's space class, whatever locale the process runs in. */
static bool _IsSpace(char Character)
{
    return Character == ' ' || (Character >= '\t' && Character <= '\r');
}

static bool _IsDigit(char Character)
{
    return Character >= '0' && Character <= '9';
}

static const char *_SkipSpace(const char *Text)
{
    while (_IsSpace(*Text)) {
        Text++;
    }
    return Text;
}

static const char *_SkipSpaceBefore(const char *Text, const char *End)
{
    while (Text < End && _IsSpace(*Text)) {
        Text++;
    }
    return Text;
}

static char *_Position(const char *Text)
{
    return const_cast<char *>(Text);
}

void *OV_DiscardConst(const void *P)
{
    return const_cast<void *>(P);
}

size_t OV_SafeStrCopy(char *OutStr, size_t CharCnt, const char *SrcStr)
{
    size_t Count = 0;

    while (Count < CharCnt) {
        OutStr[Count] = SrcStr[Count];
        if (SrcStr[Count] == '\0') {
            return Count;
        }
        Count++;
    }
    if (CharCnt != 0) {
        OutStr[CharCnt - 1] = '\0';
    }
    return Count;
}

size_t OV_SafeStrCat(char *DstStr, size_t CharCnt, const char *SrcStr)
{
    if (CharCnt == 0) {
        return 0;
    }

    const size_t Length = strnlen(DstStr, CharCnt);
    if (Length >= CharCnt) {
        DstStr[CharCnt - 1] = '\0';
        return CharCnt;
    }
    return Length + OV_SafeStrCopy(DstStr + Length, CharCnt - Length, SrcStr);
}

int OV_SafeStrCmp(const char *Str1, const char *Str2, size_t CharCnt)
{
    return strncmp(Str1, Str2, CharCnt);
}

int OV_SafeStrCaseCmp(const char *Str1, const char *Str2, size_t CharCnt)
{
    return strncasecmp(Str1, Str2, CharCnt);
}

size_t OV_SNPrintf(char *OutStr, size_t CharCnt, const char *Format, ...)
{
    if (CharCnt == 0) {
        return 0;
    }

    va_list Args;
    va_start(Args, Format);
    const int Printed = vsnprintf(OutStr, CharCnt, Format, Args);
    va_end(Args);

    /* A negative result becomes a huge size, so that one test covers cut and failed prints. */
    if (static_cast<size_t>(Printed) >= CharCnt) {
        OutStr[CharCnt - 1] = '\0';
        return CharCnt;
    }
    return static_cast<size_t>(Printed);
}

char *OV_SEPrintf(char *OutStr, char *EndPtr, const char *Format, ...)
{
    if (OutStr >= EndPtr) {
        return OutStr;
    }

    va_list Args;
    va_start(Args, Format);
    const int Printed = vsnprintf(OutStr, static_cast<size_t>(EndPtr - OutStr), Format, Args);
    va_end(Args);

    if (Printed >= 0 && Printed < EndPtr - OutStr) {
        return OutStr + Printed;
    }
    EndPtr[-1] = '\0';
    return EndPtr - 1;
}

char *OV_SafeStrGetStr(const char *SrcStr, char *OutStr, size_t CharCnt)
{
    const char *Position = nullptr;
    size_t Count = 0;

    if (SrcStr != nullptr) {
        const char *Next = _SkipSpace(SrcStr);
        if (*Next != '\0') {
            while (*Next != '\0' && !_IsSpace(*Next) && Count < CharCnt) {
                OutStr[Count++] = *Next++;
            }
            Position = _SkipSpace(Next);
        }
    }

    if (Count >= CharCnt) {
        if (CharCnt != 0) {
            OutStr[CharCnt - 1] = '\0';
        }
        return nullptr;
    }
    OutStr[Count] = '\0';
    return _Position(Position);
}

/* The four number readers differ in the conversion and in the width they keep of its result. */
template <auto Convert, typename NUMBER>
static char *_GetNumber(const char *SrcStr, unsigned int Radix, NUMBER *OutNumber)
{
    *OutNumber = 0;
    /* For a radix that there is not, not every conversion says where it stopped. */
    if (SrcStr == nullptr || Radix == 1 || Radix > RADIX_MAX) {
        return nullptr;
    }

    const char *Start = _SkipSpace(SrcStr);
    char *End = nullptr;
    const auto Value = Convert(Start, &End, static_cast<int>(Radix));
    if (End == Start) {
        return nullptr;
    }
    *OutNumber = static_cast<NUMBER>(Value);
    return _Position(_SkipSpace(End));
}

char *OV_SafeStrGetU32(const char *SrcStr, unsigned int Radix, uint32_t *OutU32)
{
    return _GetNumber<strtoul>(SrcStr, Radix, OutU32);
}

char *OV_SafeStrGetI32(const char *SrcStr, unsigned int Radix, int32_t *OutI32)
{
    return _GetNumber<strtol>(SrcStr, Radix, OutI32);
}

char *OV_SafeStrGetU64(const char *SrcStr, unsigned int Radix, uint64_t *OutU64)
{
    return _GetNumber<strtoull>(SrcStr, Radix, OutU64);
}

char *OV_SafeStrGetI64(const char *SrcStr, unsigned int Radix, int64_t *OutI64)
{
    return _GetNumber<strtoll>(SrcStr, Radix, OutI64);
}

/* Reads one decimal number of at most Bound (9 or more: one digit never exceeds it); null when it
 * has no digit or exceeds the bound. */
static inline const char *_GetBoundedDecimal(const char *Text, const char *End, uint32_t Bound,
                                             uint32_t *OutValue)
{
    if (Text == End || !_IsDigit(*Text)) {
        return nullptr;
    }

    const char *Next = Text + 1;
    uint32_t Value = static_cast<uint32_t>(*Text - '0');
    if (Bound >= 99 && Next != End && _IsDigit(*Next)) { /* nor do two: most parts end here */
        Value = Value * 10 + static_cast<uint32_t>(*Next++ - '0');
    }
    while (Next != End && _IsDigit(*Next)) {
        Value = Value * 10 + static_cast<uint32_t>(*Next++ - '0');
        if (Value > Bound) {
            return nullptr;
        }
    }
    *OutValue = Value;
    return Next;
}

char *OV_SafeStrGetIp4Addr(const char *SrcStr, size_t CharCnt, uint32_t *OutIp4Addr)
{
    *OutIp4Addr = 0;
    if (SrcStr == nullptr || CharCnt < IP4_TEXT_LENGTH_MIN) {
        return nullptr;
    }

    const char *End = SrcStr + CharCnt;
    const char *Next = _SkipSpaceBefore(SrcStr, End);
    if (static_cast<size_t>(End - Next) < IP4_TEXT_LENGTH_MIN) {
        return nullptr;
    }

    uint32_t Address = 0;
    /* Four copies, so that each part's branches are foreseen by themselves: the benchmark's mixed
     * texts read in two thirds of the time. */
#pragma GCC unroll 4
    for (unsigned Part = 0; Part < IP4_PART_COUNT; Part++) {
        uint32_t Value = 0;

        if (Part != 0 && (Next == End || *Next++ != '.')) {
            return nullptr;
        }
        Next = _GetBoundedDecimal(Next, End, IP4_PART_MAX, &Value);
        if (Next == nullptr) {
            return nullptr;
        }
        Address = (Address << 8) | Value;
    }
    *OutIp4Addr = Address;
    return _Position(_SkipSpaceBefore(Next, End));
}

/* The port and the prefix reader differ in the bound and in the width of what they store. */
template <uint32_t Bound, typename NUMBER>
static char *_GetBoundedNumber(const char *SrcStr, size_t CharCnt, NUMBER *OutNumber)
{
    *OutNumber = 0;
    if (SrcStr == nullptr || CharCnt == 0) {
        return nullptr;
    }

    const char *End = SrcStr + CharCnt;
    uint32_t Value = 0;
    const char *Next = _GetBoundedDecimal(_SkipSpaceBefore(SrcStr, End), End, Bound, &Value);
    if (Next == nullptr) {
        return nullptr;
    }
    *OutNumber = static_cast<NUMBER>(Value);
    return _Position(_SkipSpaceBefore(Next, End));
}

char *OV_SafeStrGetPort(const char *SrcStr, size_t CharCnt, uint16_t *OutPort)
{
    return _GetBoundedNumber<PORT_MAX>(SrcStr, CharCnt, OutPort);
}

char *OV_SafeStrGetMask(const char *SrcStr, size_t CharCnt, uint8_t *OutMask)
{
    return _GetBoundedNumber<IP4_PREFIX_MAX>(SrcStr, CharCnt, OutMask);
}

char *OV_SafeStrGetIp4AddrPort(const char *SrcStr, size_t CharCnt, char Delimiter,
                               uint32_t *OutIp4Addr, uint16_t *OutPort)
{
    *OutIp4Addr = 0;
    *OutPort = 0;
    if (SrcStr == nullptr || CharCnt < IP4_WITH_NUMBER_LENGTH_MIN) {
        return nullptr;
    }

    const char *End = SrcStr + CharCnt;
    uint32_t Address = 0;
    const char *Next = OV_SafeStrGetIp4Addr(SrcStr, CharCnt, &Address);
    if (Next == nullptr) {
        return nullptr;
    }
    if (Delimiter != '\0' && (Next == End || *Next++ != Delimiter)) {
        return nullptr;
    }

    char *Position = OV_SafeStrGetPort(Next, static_cast<size_t>(End - Next), OutPort);
    if (Position != nullptr) {
        *OutIp4Addr = Address;
    }
    return Position;
}

char *OV_SafeStrGetIp4AddrMask(const char *SrcStr, size_t CharCnt, uint32_t *OutIp4Addr,
                               uint8_t *OutMask)
{
    *OutIp4Addr = 0;
    *OutMask = 0;
    if (SrcStr == nullptr || CharCnt < IP4_WITH_NUMBER_LENGTH_MIN) {
        return nullptr;
    }

    const char *End = SrcStr + CharCnt;
    uint32_t Address = 0;
    const char *Next = OV_SafeStrGetIp4Addr(SrcStr, CharCnt, &Address);
    if (Next == nullptr) {
        return nullptr;
    }

    /* Taken without a look at the count: behind an address that ends the text this is its NUL.
     * Callers know address 0, length 32 and a position as "no prefix given", so a bare address
     * must neither be refused nor be handed out as a host route. */
    if (*Next++ != '/') {
        *OutMask = IP4_PREFIX_MAX;
        return _Position(Next);
    }
    if (Next >= End) {
        return nullptr;
    }
    char *Position = OV_SafeStrGetMask(Next, static_cast<size_t>(End - Next), OutMask);
    if (Position != nullptr) {
        *OutIp4Addr = Address;
    }
    return Position;
}

/* A byte in decimal, without a NUL; returns the position behind it. */
static char *_PutByte(char *Out, unsigned Byte)
{
    if (Byte >= 100) {
        *Out++ = static_cast<char>('0' + Byte / 100);
    }
    if (Byte >= 10) {
        *Out++ = static_cast<char>('0' + Byte / 10 % 10);
    }
    *Out++ = static_cast<char>('0' + Byte % 10);
    return Out;
}

/* Returns the length of the text. */
static size_t _PutDotted(std::array<char, IP4_TEXT_SIZE> *OutText, const uint8_t *Bytes)
{
    char *Next = _PutByte(OutText->data(), Bytes[0]);

    for (unsigned Part = 1; Part < IP4_PART_COUNT; Part++) {
        *Next++ = '.';
        Next = _PutByte(Next, Bytes[Part]);
    }
    *Next = '\0';
    return static_cast<size_t>(Next - OutText->data());
}

size_t OV_SafeStrFormatIp4Addr(char *OutStr, size_t CharCnt, const OV_IN_ADDR *Ip4Addr)
{
    std::array<char, IP4_TEXT_SIZE> Text;
    uint8_t Bytes[sizeof(*Ip4Addr)];

    memcpy(Bytes, Ip4Addr, sizeof(Bytes));
    _PutDotted(&Text, Bytes);
    return OV_SafeStrCopy(OutStr, CharCnt, Text.data());
}

/* By character: -1 is no digit. */
static constexpr std::array<int8_t, UINT8_MAX + 1> HEX_DIGIT_VALUES = [] {
    std::array<int8_t, UINT8_MAX + 1> Values = {};

    Values.fill(-1);
    for (unsigned Digit = 0; Digit < 10; Digit++) {
        Values['0' + Digit] = static_cast<int8_t>(Digit);
    }
    for (unsigned Digit = 10; Digit < 16; Digit++) {
        Values['a' + Digit - 10] = Values['A' + Digit - 10] = static_cast<int8_t>(Digit);
    }
    return Values;
}();

static int _OV_SafeStrHexDigitValue(char Character)
{
    return HEX_DIGIT_VALUES[static_cast<unsigned char>(Character)];
}

static constexpr size_t IP6_NO_DOUBLE_COLON = IP6_BYTE_COUNT + 1;

/* An IPv6 text while it is read. */
struct IP6_READING {
    std::array<uint8_t, IP6_BYTE_COUNT> Bytes;
    size_t Used;
    size_t DoubleColon; /* how many bytes stood before it, or IP6_NO_DOUBLE_COLON */
    const char *Token;  /* where a dotted tail would start: behind the last colon */
    uint32_t Group;     /* the group whose end has not been seen yet */
    unsigned Digits;
};
/* Stores the group that is being read; false when there is no room. */
static bool _StoreGroup(IP6_READING *Reading)
{
    if (IP6_BYTE_COUNT - Reading->Used < IP6_GROUP_SIZE) {
        return false;
    }
    Reading->Bytes[Reading->Used++] = static_cast<uint8_t>(Reading->Group >> 8);
    Reading->Bytes[Reading->Used++] = static_cast<uint8_t>(Reading->Group);
    return true;
}

/* Reads the digits at Next into the group. Returns the position behind them, or null for too many.
 */
static const char *_ScanDigits(IP6_READING *Reading, const char *Next, const char *End)
{
    uint32_t Group = 0;
    unsigned Digits = 0;

    for (; Digits < IP6_GROUP_DIGITS && Next < End; Digits++, Next++) {
        const int Digit = _OV_SafeStrHexDigitValue(*Next);
        if (Digit < 0) {
            break;
        }
        Group = Group << 4 | static_cast<uint32_t>(Digit);
    }
    Reading->Group = Group;
    Reading->Digits = Digits;
    const bool More = Next < End && _OV_SafeStrHexDigitValue(*Next) >= 0;
    return More ? nullptr : Next;
}

/* Returns where the scan stopped, on a character that belongs to no group or at the end; null for
 * what is no address. */
static const char *_ScanGroups(IP6_READING *Reading, const char *End)
{
    for (;;) {
        const char *Next = _ScanDigits(Reading, Reading->Token, End);
        if (Next == nullptr || Next == End || *Next != ':') {
            return Next;
        }

        Reading->Token = Next + 1;
        if (Reading->Digits == 0) {
            if (Reading->DoubleColon != IP6_NO_DOUBLE_COLON) {
                return nullptr;
            }
            Reading->DoubleColon = Reading->Used;
        } else if (Reading->Token == End || !_StoreGroup(Reading)) {
            return nullptr;
        }
    }
}

/* Reads the dotted tail whose first dot stands at Dot. Returns the position behind it, or null when
 * there is none and the digits before the dot are a group. */
static const char *_GetDottedTail(IP6_READING *Reading, const char *End)
{
    uint32_t Address = 0;

    if (IP6_BYTE_COUNT - Reading->Used < sizeof(Address)) {
        return nullptr;
    }
    const size_t Count = static_cast<size_t>(End - Reading->Token);
    const char *Next = OV_SafeStrGetIp4Addr(Reading->Token, Count, &Address);
    if (Next == nullptr) {
        return nullptr;
    }
    Address = htonl(Address);
    memcpy(&Reading->Bytes[Reading->Used], &Address, sizeof(Address));
    Reading->Used += sizeof(Address);
    Reading->Digits = 0;
    return Next;
}

/* Opens the gap that the double colon stands for; false when the address is not whole. */
static bool _OpenGap(IP6_READING *Reading)
{
    if (Reading->DoubleColon == IP6_NO_DOUBLE_COLON) {
        return Reading->Used == IP6_BYTE_COUNT;
    }
    if (Reading->Used == IP6_BYTE_COUNT) {
        return false;
    }
    uint8_t *Gap = &Reading->Bytes[Reading->DoubleColon];
    const size_t GapSize = IP6_BYTE_COUNT - Reading->Used;
    memmove(Gap + GapSize, Gap, Reading->Used - Reading->DoubleColon);
    memset(Gap, 0, GapSize);
    return true;
}

char *OV_SafeStrGetIp6Addr(const char *SrcStr, size_t CharCnt, OV_IN6_ADDR *OutIp6Addr)
{
    if (SrcStr == nullptr) {
        return nullptr;
    }

    const char *End = SrcStr + CharCnt;
    const char *Next = _SkipSpaceBefore(SrcStr, End);
    if (Next == End) {
        return nullptr;
    }
    if (*Next == ':' && (++Next == End || *Next != ':')) {
        return nullptr;
    }

    IP6_READING Reading = {{}, 0, IP6_NO_DOUBLE_COLON, Next, 0, 0};
    Next = _ScanGroups(&Reading, End);
    if (Next == nullptr) {
        return nullptr;
    }
    if (Next < End && *Next == '.') {
        const char *BehindTail = _GetDottedTail(&Reading, End);
        Next = BehindTail == nullptr ? Next : BehindTail;
    }
    if ((Reading.Digits != 0 && !_StoreGroup(&Reading)) || !_OpenGap(&Reading)) {
        return nullptr;
    }
    memcpy(OutIp6Addr, Reading.Bytes.data(), IP6_BYTE_COUNT);
    return _Position(_SkipSpaceBefore(Next, End));
}

/* An IPv6 text while it is written; not terminated meanwhile. */
struct IP6_WRITING {
    std::array<char, IP6_TEXT_SIZE> Text;
    size_t Length;
};

static void _Append(IP6_WRITING *Writing, const char *Piece, size_t Length)
{
    OV_ASSERT_AT(Length < IP6_TEXT_SIZE - Writing->Length, "(len < sizeof(tmp) - (tp - tmp))",
                 "orvaneSafeStr", __LINE__, __func__);
    memcpy(&Writing->Text[Writing->Length], Piece, Length);
    Writing->Length += Length;
}

static void _AppendGroup(IP6_WRITING *Writing, unsigned Group)
{
    std::array<char, IP6_GROUP_DIGITS> Digits;
    size_t Start = Digits.size();

    do {
        Digits[--Start] = "0123456789abcdef"[Group & 0xF];
        Group >>= 4;
    } while (Group != 0);
    _Append(Writing, &Digits[Start], Digits.size() - Start);
}

struct GROUP_RUN {
    size_t Start;
    size_t Length;
};

/* The leftmost of the longest runs of zero groups; length 0 when none is worth a double colon. */
static GROUP_RUN _LongestZeroRun(const std::array<unsigned, IP6_GROUP_COUNT> &Groups)
{
    GROUP_RUN Best = {0, 0};
    size_t Start = 0;

    for (size_t Index = 0; Index < Groups.size(); Index++) {
        if (Groups[Index] != 0) {
            Start = Index + 1;
            continue;
        }
        const size_t Length = Index + 1 - Start;
        if (Length >= IP6_RUN_LENGTH_MIN && Length > Best.Length) {
            Best = {Start, Length};
        }
    }
    return Best;
}

size_t OV_SafeStrFormatIp6Addr(char *OutStr, size_t CharCnt, const OV_IN6_ADDR *Ip6Addr)
{
    const uint8_t *Bytes = Ip6Addr->In6.U6Addr8;
    std::array<unsigned, IP6_GROUP_COUNT> Groups;
    for (size_t Index = 0; Index < Groups.size(); Index++) {
        Groups[Index] = static_cast<unsigned>(Bytes[2 * Index] << 8 | Bytes[2 * Index + 1]);
    }
    const GROUP_RUN Run = _LongestZeroRun(Groups);
    const size_t RunEnd = Run.Start + Run.Length;
    const bool DottedTail =
        Run.Start == 0 && (Run.Length == 6 || (Run.Length == 5 && Groups[5] == 0xFFFF));

    IP6_WRITING Writing;
    Writing.Length = 0;
    for (size_t Index = 0; Index < Groups.size(); Index++) {
        const bool InRun = Index >= Run.Start && Index < RunEnd;
        /* One colon for the run; its second one belongs to the group behind it. */
        if (InRun ? Index == Run.Start : Index != 0) {
            _Append(&Writing, ":", 1);
        }
        if (InRun) {
            continue;
        }
        if (DottedTail && Index == IP6_TAIL_GROUP) {
            std::array<char, IP4_TEXT_SIZE> Tail;
            const size_t Length = _PutDotted(&Tail, Bytes + IP6_TAIL_GROUP * IP6_GROUP_SIZE);
            _Append(&Writing, Tail.data(), Length);
            break;
        }
        _AppendGroup(&Writing, Groups[Index]);
    }
    if (RunEnd == Groups.size()) {
        _Append(&Writing, ":", 1);
    }
    Writing.Text[Writing.Length] = '\0';
    return OV_SafeStrCopy(OutStr, CharCnt, Writing.Text.data());
}

char *OV_SafeStrGetIpAddr(const char *SrcStr, size_t CharCnt, OV_IN_ADDR_TYPE AddrType,
                          OV_INET_ADDR *OutIpAddr)
{
    if (AddrType == OV_IN_ADDR_TYPE_IPV6) {
        return OV_SafeStrGetIp6Addr(SrcStr, CharCnt, &OutIpAddr->In6);
    }
    if (AddrType != OV_IN_ADDR_TYPE_IPV4) {
        return nullptr;
    }

    uint32_t Address = 0;
    char *Position = OV_SafeStrGetIp4Addr(SrcStr, CharCnt, &Address);
    if (Position != nullptr) {
        OutIpAddr->Ip = htonl(Address);
    }
    return Position;
}

size_t OV_SafeStrFormatIpAddr(char *OutStr, size_t CharCnt, OV_IN_ADDR_TYPE AddrType,
                              const OV_INET_ADDR *IpAddr)
{
    switch (AddrType) {
    case OV_IN_ADDR_TYPE_IPV4:
        return OV_SafeStrFormatIp4Addr(OutStr, CharCnt, &IpAddr->In);
    case OV_IN_ADDR_TYPE_IPV6:
        return OV_SafeStrFormatIp6Addr(OutStr, CharCnt, &IpAddr->In6);
    default:
        return 0;
    }
}

char *OV_SafeStrFormatIpTypeAddr(char *Buffer, int32_t BufferSize, const OV_IP_TYPE_ADDR *Ip)
{
    if (BufferSize <= 0) {
        return Buffer;
    }
    const bool Ip4 = Ip->AddrType == OV_IN_ADDR_TYPE_IPV4;
    OV_SafeStrFormatIpAddr(Buffer, static_cast<size_t>(BufferSize),
                           Ip4 ? OV_IN_ADDR_TYPE_IPV4 : OV_IN_ADDR_TYPE_IPV6, &Ip->Addr);
    return Buffer;
}

BOOL OV_SafeStrGetIpTypeAddr(const char *IpStr, size_t IpStrLen, OV_IP_TYPE_ADDR *Ip)
{
    memset(Ip, 0, sizeof(*Ip));
    if (IpStr == nullptr) {
        return FALSE;
    }

    const bool Ip6 = memchr(IpStr, ':', IpStrLen) != nullptr;
    const OV_IN_ADDR_TYPE AddrType = Ip6 ? OV_IN_ADDR_TYPE_IPV6 : OV_IN_ADDR_TYPE_IPV4;
    OV_SafeStrGetIpAddr(IpStr, IpStrLen, AddrType, &Ip->Addr);
    if (OV_InetAddrZero(&Ip->Addr)) {
        return FALSE;
    }
    Ip->AddrType = AddrType;
    return TRUE;
}

char *OV_SafeStrGetEthAddr(const char *SrcStr, size_t CharCnt, OV_ETH_ADDR *OutEthAddr)
{
    if (SrcStr == nullptr || CharCnt < ETH_TEXT_LENGTH_MIN) {
        return nullptr;
    }

    OV_ETH_ADDR Address;
    const char *End = SrcStr + CharCnt;
    const char *Next = _SkipSpaceBefore(SrcStr, End);
    size_t Count = 0;
    int Byte = 0;
    unsigned Digits = 0;
    for (; Next < End; Next++) {
        const int Digit = _OV_SafeStrHexDigitValue(*Next);
        if (Digit >= 0) {
            if (Digits == ETH_BYTE_DIGITS) {
                return nullptr;
            }
            Byte = Byte << 4 | Digit;
            Digits++;
            continue;
        }
        if (*Next != ':') {
            break;
        }
        if (Count == sizeof(Address)) {
            return nullptr;
        }
        Address.Addr8[Count++] = static_cast<uint8_t>(Byte);
        Byte = 0;
        Digits = 0;
    }

    if (Digits != ETH_BYTE_DIGITS || Count != sizeof(Address) - 1) {
        return nullptr;
    }
    Address.Addr8[Count] = static_cast<uint8_t>(Byte);
    *OutEthAddr = Address;
    return _Position(_SkipSpaceBefore(Next, End));
}
