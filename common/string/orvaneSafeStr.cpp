#include "orvaneSafeStr.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

/* "0.0.0.0": no shorter text is an address. */
static constexpr size_t IP4_TEXT_LENGTH_MIN = 7;
static constexpr unsigned IP4_PART_COUNT = 4;
static constexpr uint32_t IP4_PART_MAX = 255;

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
    return static_cast<char *>(OV_DiscardConst(Text));
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
    if (SrcStr == nullptr) {
        return nullptr;
    }

    const char *Start = _SkipSpace(SrcStr);
    char *End = _Position(Start); /* an invalid radix leaves End as it was */
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

/* Reads one decimal part of at most Bound; null when it has no digit or exceeds the bound. */
static const char *_GetBoundedDecimal(const char *Text, const char *End, uint32_t Bound,
                                      uint32_t *OutValue)
{
    const char *Next = Text;
    uint32_t Value = 0;

    for (; Next < End && _IsDigit(*Next); Next++) {
        Value = Value * 10 + static_cast<uint32_t>(*Next - '0');
        if (Value > Bound) {
            return nullptr;
        }
    }
    *OutValue = Value;
    return Next == Text ? nullptr : Next;
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
