/* The stamp ahead of each line of both logs, "[2024/01/02_03:04:05.006]". */
#ifndef ORVANE_LOG_STAMP_INTERNAL_H
#define ORVANE_LOG_STAMP_INTERNAL_H

#include "orvaneSafeStr.h"

#include <pthread.h>
#include <string.h>
#include <time.h>

static constexpr size_t LOG_STAMP_SIZE = 64; /* with the NUL; room for the oddest year */

/* Reads the zone anew: localtime_r alone keeps the one that the process first asked for. One thread
 * at a time; libc sees to that as well, but where no sanitizer sees it. */
inline void _OV_LogReadZone()
{
    static pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;

    pthread_mutex_lock(&Lock);
    tzset();
    pthread_mutex_unlock(&Lock);
}

/* localtime_r for the logs: the second of this thread's last line is not broken down again, which
 * in some zones takes a third of a line's time. The zone is read anew with each second. */
inline struct tm *_OV_LogLocalTime(const time_t *Second, struct tm *Date)
{
    static thread_local time_t LastSecond;
    static thread_local struct tm LastDate; /* day 0 until the first line */

    if (LastDate.tm_mday == 0 || LastSecond != *Second) {
        _OV_LogReadZone();
        if (localtime_r(Second, Date) == nullptr) {
            return nullptr;
        }
        LastSecond = *Second;
        LastDate = *Date;
    }
    *Date = LastDate;
    return Date;
}

/* The last digit stands at End - 1. */
static inline void _PutDigits(char *End, int Digits, int Value)
{
    for (; Digits > 0; Digits--) {
        *--End = static_cast<char>('0' + Value % 10);
        Value /= 10;
    }
}

/* Digits are put in by hand: printf would take a third of a line's time. */
static inline void _OV_LogStampPrint(char (&Text)[LOG_STAMP_SIZE], int Year, int Month, int Day,
                                     int Hour, int Minute, int Second, int Milliseconds)
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

#endif
