/*
 * The agent log: one process-wide record with a back end that the program picks once at start.
 *
 * Every log site of the library writes "[LEVEL][function-line]message" through the record's Log
 * operation, when the record's LimitLevel lets its level pass. Three back ends stand here: a plain
 * file that is created again when it vanished, a file that is rotated by size, and functions
 * supplied by the caller. Without a back end nothing is written.
 *
 * Any thread may log; a record of the file back ends is written whole, under one lock. Constructing
 * and destructing belong to the start and the end of the process, on one thread.
 */
#ifndef ORVANE_LIBRTC_LOG_H
#define ORVANE_LIBRTC_LOG_H

#include "orvaneTypes.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

OV_PUBLIC_BEGIN

typedef enum _OV_AGENT_LOG_LEVEL {
    OV_AGENT_LOG_LEVEL_DEBUG = 0,
    OV_AGENT_LOG_LEVEL_INFO = 1,
    OV_AGENT_LOG_LEVEL_WARN = 2,
    OV_AGENT_LOG_LEVEL_ERROR = 3,
    OV_AGENT_LOG_LEVEL_MAX = 4
} OV_AGENT_LOG_LEVEL;

/* Sizes with the NUL. */
#define OV_AGENT_LOG_PATH_SIZE 128
#define OV_AGENT_LOG_TAG_SIZE 128

struct _OV_AGENT_LOG;

/* A back end's operations. Init returns 0 or a negative errno value. Level is an
 * OV_AGENT_LOG_LEVEL; the format carries prefix and newline already, where there are to be any. */
typedef int (*OV_AGENT_LOG_INIT_FUNC)(struct _OV_AGENT_LOG *Log);
typedef void (*OV_AGENT_LOG_RELEASE_FUNC)(struct _OV_AGENT_LOG *Log);
typedef void (*OV_AGENT_LOG_FUNC)(int Level, const char *Format, ...) OV_PRINTF_LIKE(2, 3);
typedef void (*OV_AGENT_LOG_VALIST_FUNC)(int Level, const char *Format, va_list Args)
    OV_PRINTF_LIKE(2, 0);

typedef struct _OV_AGENT_LOG {
    struct {
        char Path[OV_AGENT_LOG_PATH_SIZE]; /* of the file, plain or rotated */
        FILE *Fp;                          /* the file back end's stream, null when closed */
        int32_t HandlerId;                 /* the rotating back end's, -1 when released */
        BOOL IsNeedReCreate;               /* the file vanished: the next write creates it */
    } FileLog;
    char Tag[OV_AGENT_LOG_TAG_SIZE]; /* for programs; no back end reads it */
    OV_AGENT_LOG_LEVEL LimitLevel;   /* lowest level that is written */
    OV_AGENT_LOG_INIT_FUNC Init;     /* set only once it has succeeded */
    OV_AGENT_LOG_RELEASE_FUNC Release;
    OV_AGENT_LOG_FUNC Log;
    OV_AGENT_LOG_VALIST_FUNC LogValist;
} OV_AGENT_LOG;

/* The one record; never null, owned by the library. */
OV_AGENT_LOG *OV_AgentLogOps(void);

/* The level's name ("DEBUG" to "ERROR"). Level must be below OV_AGENT_LOG_LEVEL_MAX: it is not
 * checked. */
const char *OV_AgentLogLevel(OV_AGENT_LOG_LEVEL Level);

/* Starts the file back end on Path (copied; at most 127 characters; null: the path of before),
 * appending. Returns 0, -EOVERFLOW for a longer path (nothing is installed, the record keeps its
 * first 127 characters), or the negated errno of the open (-ENXIO: a pipe that nobody reads): the
 * operations are then installed all the same. Nothing that was constructed before is released: call
 * OV_AgentLogDtor first. */
OV_ERR_T OV_AgentFileLogCtor(const char *Path);

/* Starts the rotating back end on Path (as above), which writes through orvaneLogFile.h: 50 MiB a
 * file and 4 older ones, unless set otherwise. Returns 0 or -EOVERFLOW. Traps: with a path that
 * cannot be opened the result is 0, and the first line waits for ever; without a free handle the
 * process ends. */
OV_ERR_T OV_AgentMavoLogCtor(const char *Path);

/* Size in bytes of the rotating back end's file, and how many older ones are kept (1 or more). Once
 * it is stopped -EINVAL; before its first start they reach the handle with id 0. */
OV_ERR_T OV_AgentLogFileSetMaxSize(uint32_t MaxFileSize);
OV_ERR_T OV_AgentLogFileSetNum(uint32_t FileNum);

/* Installs the caller's functions as the back end; both may be called from any thread. Returns 0.
 */
OV_ERR_T OV_AgentCustomLogCtor(OV_AGENT_LOG_FUNC Log, OV_AGENT_LOG_VALIST_FUNC LogValist);

/* Stops the back end (those with a file close it). The operations stay installed: a write to the
 * file back end is skipped, unless OV_AgentLogFileCheck finds the file gone meanwhile; one to the
 * rotating back end goes to standard output. */
void OV_AgentLogDtor(void);

/* To be called now and then, from any thread: restarts rsyslog when /var/log/messages is gone,
 * and has the next write create the agent log's file when that is gone (or could never be opened
 * and is not there). Until then lines go to the file that was deleted; those of the rotating back
 * end, which does not listen, until its next rotation. */
void OV_AgentLogFileCheck(void);

/* Write one line at their level (OV_DumpInfo: info) as it stands: the caller's format carries
 * prefix and newline. OV_LOG_DEBUG to OV_LOG_ERROR below add both. */
void OV_COMMDebug(const char *Format, ...) OV_PRINTF_LIKE(1, 2);
void OV_COMMInfo(const char *Format, ...) OV_PRINTF_LIKE(1, 2);
void OV_COMMWarn(const char *Format, ...) OV_PRINTF_LIKE(1, 2);
void OV_COMMError(const char *Format, ...) OV_PRINTF_LIKE(1, 2);
void OV_DumpInfo(const char *Format, ...) OV_PRINTF_LIKE(1, 2);

OV_PUBLIC_END

/* An agent level as the back end's level: today they are the same. */
static inline int _OV_AgentLogLevelTranslatePaltform(int Level)
{
    return Level;
}

/* A log site. Format is a string literal; its arguments are evaluated only when level and back end
 * let the line pass. End closes the record. */
#define OV_LOG_SITE(Level, End, Format, ...)                                                   \
    do {                                                                                       \
        const OV_AGENT_LOG *LogSite_ = OV_AgentLogOps();                                       \
        if (LogSite_->LimitLevel <= (Level) && LogSite_->Log) {                                \
            LogSite_->Log(_OV_AgentLogLevelTranslatePaltform(Level), "[%s][%s-%d]" Format End, \
                          OV_AgentLogLevel(Level), __func__, __LINE__, ##__VA_ARGS__);         \
        }                                                                                      \
    } while (0)

#define OV_LOG_DEBUG(Format, ...) OV_LOG_SITE(OV_AGENT_LOG_LEVEL_DEBUG, "\n", Format, ##__VA_ARGS__)
#define OV_LOG_INFO(Format, ...) OV_LOG_SITE(OV_AGENT_LOG_LEVEL_INFO, "\n", Format, ##__VA_ARGS__)
#define OV_LOG_WARN(Format, ...) OV_LOG_SITE(OV_AGENT_LOG_LEVEL_WARN, "\n", Format, ##__VA_ARGS__)
#define OV_LOG_ERROR(Format, ...) OV_LOG_SITE(OV_AGENT_LOG_LEVEL_ERROR, "\n", Format, ##__VA_ARGS__)

/* For a message after which the next record follows on the same line. */
#define OV_LOG_INFO_WITHOUT_NEWLINE(Format, ...) \
    OV_LOG_SITE(OV_AGENT_LOG_LEVEL_INFO, "", Format, ##__VA_ARGS__)

#endif
