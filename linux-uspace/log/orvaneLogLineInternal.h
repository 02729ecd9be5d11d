/*
 * What both logs are made of: the stamp ahead of each line, "[2024/01/02_03:04:05.006]", and the
 * one write with which a line goes out. Nothing of a line ever waits in the stream's buffer: what a
 * forked child inherits holds no half line, and what the disk took is known.
 */
#ifndef ORVANE_LOG_LINE_INTERNAL_H
#define ORVANE_LOG_LINE_INTERNAL_H

#include "orvaneTypes.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <time.h>

static constexpr size_t LOG_STAMP_SIZE = 64; /* with the NUL; room for the oddest year */

/* localtime_r with the zone as it is set now; localtime_r alone keeps the one that the process
 * first asked for. */
struct tm *_OV_LocalTime(const time_t *Second, struct tm *Date);

/* The same for the logs: the second of this thread's last line is not broken down again, which in
 * some zones takes a third of a line's time. */
struct tm *_OV_LogLocalTime(const time_t *Second, struct tm *Date);

void _OV_LogStampPrint(char (&Text)[LOG_STAMP_SIZE], int Year, int Month, int Day, int Hour,
                       int Minute, int Second, int Milliseconds);

/* Opens for appending, closed in programs that are run, without waiting: a pipe that nobody reads
 * is refused (ENXIO). Null: errno tells. */
FILE *_OV_LogOpen(const char *Path);

struct LOG_LINE_SIZES {
    size_t Printed; /* of stamp and text */
    size_t Written; /* what the file took */
};

/* Writes stamp and text to the stream's file. *IsTorn belongs to the file and says that its last
 * line was cut: this one then begins with a newline. Under the lock of the file. */
LOG_LINE_SIZES _OV_LogLineWrite(FILE *Stream, bool *IsTorn, const char *Stamp, const char *Format,
                                va_list Args) OV_PRINTF_LIKE(4, 0);

#endif
