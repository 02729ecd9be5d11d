#include "orvaneLogLineInternal.h"

#include "orvaneForeignInternal.h"
#include "orvaneSafeStr.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

static constexpr mode_t LOG_FILE_MODE = 0666;
static constexpr size_t LINE_SIZE = 1024; /* longer ones are put together on the heap */

struct HEAP_FREE {
    void operator()(char *Block) const
    {
        free(Block);
    }
};

struct tm *_OV_LocalTime(const time_t *Second, struct tm *Date)
{
    const MUTEX_SCOPE Zone(g_TimeZoneLock);

    if (g_TimeZoneLock.IsTorn()) {
        return nullptr; /* libc's own lock may be held for ever */
    }
    tzset();
    return localtime_r(Second, Date);
}

struct tm *_OV_LogLocalTime(const time_t *Second, struct tm *Date)
{
    static thread_local time_t LastSecond;
    static thread_local struct tm LastDate; /* day 0 until the first line */

    if (LastDate.tm_mday == 0 || LastSecond != *Second) {
        if (_OV_LocalTime(Second, Date) == nullptr) {
            return nullptr;
        }
        LastSecond = *Second;
        LastDate = *Date;
    }
    *Date = LastDate;
    return Date;
}

/* The last digit stands at End - 1. */
static void _PutDigits(char *End, int Digits, int Value)
{
    for (; Digits > 0; Digits--) {
        *--End = static_cast<char>('0' + Value % 10);
        Value /= 10;
    }
}

/* Digits are put in by hand: printf would take a third of a line's time. */
void _OV_LogStampPrint(char (&Text)[LOG_STAMP_SIZE], int Year, int Month, int Day, int Hour,
                       int Minute, int Second, int Milliseconds)
{
    static constexpr char FORM[] = "[0000/00/00_00:00:00.000]";

    if (Year < 0 || Year > 9999) {
        OV_SNPrintf(Text, sizeof(Text), "[%04d/%02d/%02d_%02d:%02d:%02d.%03d]", Year, Month, Day,
                    Hour, Minute, Second, Milliseconds);
        return;
    }
    memcpy(Text, FORM, sizeof(FORM));
    _PutDigits(Text + 5, 4, Year);
    _PutDigits(Text + 8, 2, Month);
    _PutDigits(Text + 11, 2, Day);
    _PutDigits(Text + 14, 2, Hour);
    _PutDigits(Text + 17, 2, Minute);
    _PutDigits(Text + 20, 2, Second);
    _PutDigits(Text + 24, 3, Milliseconds);
}

FILE *_OV_LogOpen(const char *Path)
{
    DESCRIPTOR_SCOPE File(
        open(Path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, LOG_FILE_MODE));
    if (File.Get() < 0) {
        return nullptr;
    }

    fcntl(File.Get(), F_SETFL, O_APPEND); /* a pipe's reader may be slow: lines wait for it */
    FILE *Stream = fdopen(File.Get(), "a");
    if (Stream != nullptr) {
        File.Release();
    }
    return Stream;
}

/* How many of the bytes the file took. */
static size_t _WriteBytes(int File, const char *Bytes, size_t Size)
{
    size_t Done = 0;

    while (Done < Size) {
        const ssize_t Result = write(File, Bytes + Done, Size - Done);

        if (Result > 0) {
            Done += static_cast<size_t>(Result);
        } else if (Result == 0 || errno != EINTR) {
            break;
        }
    }
    return Done;
}

LOG_LINE_SIZES _OV_LogLineWrite(FILE *Stream, bool *IsTorn, const char *Stamp, const char *Format,
                                va_list Args)
{
    char Short[LINE_SIZE];
    std::unique_ptr<char, HEAP_FREE> Long;
    char *Line = Short;
    va_list Again;

    va_copy(Again, Args);
    const size_t Head = OV_SNPrintf(Short, sizeof(Short), "%s%s", *IsTorn ? "\n" : "", Stamp);
    const int Printed = vsnprintf(Short + Head, sizeof(Short) - Head, Format, Args);
    const size_t Text = Printed < 0 ? 0 : static_cast<size_t>(Printed);
    size_t Size = Head + Text;
    if (Size >= sizeof(Short)) {
        Long.reset(static_cast<char *>(malloc(Size + 1)));
        if (Long) {
            Line = Long.get();
            memcpy(Line, Short, Head);
            const int Second = vsnprintf(Line + Head, Text + 1, Format, Again);
            /* An argument may have become shorter since. */
            Size = Head + std::min(Text, static_cast<size_t>(std::max(Second, 0)));
        } else { /* no memory for all of it: what there is, as a line */
            Size = sizeof(Short) - 1;
            Line[Size - 1] = '\n';
        }
    }
    va_end(Again);

    const size_t Written = _WriteBytes(fileno(Stream), Line, Size);
    if (Written > 0) {
        *IsTorn = Written < Size && Line[Written - 1] != '\n';
    }
    return {strlen(Stamp) + Text, Written};
}
