/*
 * The rotating log file: time-stamped lines to a file that is renamed away when it has grown to a
 * size, or to standard output. A process has up to 64 handles, named by ids 0 to 63; an id that is
 * not open, and every higher one, means standard output. A handle counts the bytes of its file,
 * those that it found there included. With the defaults (50 MiB, 4 files kept) a path P stands for
 *
 *   P (live)   P.0 (newest)   P.1   P.2   P.3 (oldest; overwritten by the next rotation)
 *
 * Any thread may write to any handle: a line goes out whole, by one write, and no rotation cuts
 * into it or loses it. On a full disk a line is lost or cut; it then does not count, and the next
 * one begins a line of its own. A handle must not be released while other threads still write to
 * it. Lock order: the table's mutex (start, release, settings), then the handle's spin lock
 * (everything, writes included).
 */
#ifndef ORVANE_LOG_FILE_H
#define ORVANE_LOG_FILE_H

#include "orvaneTypes.h"

#include <stdarg.h>
#include <stddef.h>

OV_PUBLIC_BEGIN

#define OV_LOG_FILE_HANDLE_COUNT 64
#define OV_LOG_FILE_PATH_SIZE 512 /* with the NUL */

/* A moment in local time. */
typedef struct _OV_SYSTIME {
    uint16_t Year; /* in full */
    uint8_t Month; /* 1 to 12 */
    uint8_t Day;   /* 1 to 31 */
    uint8_t Hour;
    uint8_t Minute;
    uint8_t Second;
    uint16_t Milliseconds; /* 0 to 999 */
} _OV_SYSTIME_T;

/* Opens a handle on LogPath (copied; Size is its length, at most 511), appending, or on standard
 * output for null, and writes "log start...". Returns its id. The process ends with a fault when
 * Size is larger or all handles are taken. Where the file cannot be opened the id is returned all
 * the same, with a message on standard error: whatever then uses that id waits for ever, settings
 * and release with the table locked. A longer path with a smaller Size is cut. */
int32_t OV_LogFileInit(const char *LogPath, size_t Size);

/* Closes the handle's stream and frees the id; one that is not open is left alone. A handle without
 * a path closes standard output itself, for the whole process. */
void OV_LogFileRelease(uint32_t LogHandleId);

/* Write "[YYYY/MM/DD_hh:mm:ss.mmm]" and, right behind it, the text as it stands: the newline is the
 * caller's. Return the characters of both, also where the disk did not take them; 0 while the file
 * cannot be opened again. errno stays as it was. */
int OV_Log2File(uint32_t LogHandleId, const char *Format, ...) OV_PRINTF_LIKE(2, 3);
int OV_Log2FileWithVaList(uint32_t LogHandleId, const char *Format, va_list Args)
    OV_PRINTF_LIKE(2, 0);

/* The size in bytes at which a file is renamed away (checked after each line), and how many such
 * files are kept: at least 1, which is not checked (0 renames through all 32-bit numbers). -EINVAL
 * for an id above 63 and a null output. For an id that is not open 0 is returned and nothing is
 * read or set. */
OV_ERR_T OV_LogFileGetMaxFileSize(uint32_t LogHandleId, uint32_t *MaxFileSize);
OV_ERR_T OV_LogFileSetMaxFileSize(uint32_t LogHandleId, uint32_t MaxFileSize);
OV_ERR_T OV_LogFileGetFileNum(uint32_t LogHandleId, uint32_t *FileTotalNum);
OV_ERR_T OV_LogFileSetFileNum(uint32_t LogHandleId, uint32_t FileTotalNum);

/* One handle for code that carries no id. A 0 for MaxFileSize or FileNum keeps the default; else
 * as OV_LogFileInit and the setters: with one of them set, a path that cannot be opened makes the
 * call itself wait for ever. A handle that was opened before stays open. Without one,
 * OV_FileLog writes to standard output. */
OV_ERR_T OV_FileLogInit(const char *LogPath, size_t Size, uint32_t MaxFileSize, uint32_t FileNum);
int OV_FileLog(const char *Format, ...) OV_PRINTF_LIKE(1, 2);
void OV_FileLogRelease(void);

/* Now, in local time: 0, the negated errno of the clock, or -EINVAL where it cannot be broken down.
 * On failure *Systime is left as it was. */
OV_ERR_T OV_GetSystime(_OV_SYSTIME_T *Systime);

OV_PUBLIC_END

#endif
