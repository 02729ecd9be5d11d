#include "orvaneLibrtcLog.h"

#include "linuxRtc.h"
#include "orvaneLogFile.h"
#include "orvaneLogLineInternal.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <atomic>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

static constexpr const char *SYSTEM_LOG_PATH = "/var/log/messages";

static const char *const s_AgentLogLevelStr[OV_AGENT_LOG_LEVEL_MAX] = {"DEBUG", "INFO", "WARN",
                                                                       "ERROR"};

/* Filled by the constructors before other threads log. Once they do, Fp is changed under
 * s_AgentLogLock alone; IsNeedReCreate is set by any thread and cleared under the lock. */
static OV_AGENT_LOG s_AgentLog;

/* Serialises the file back end. Recursive: a back end that logs from inside must not deadlock. */
static constinit FORK_MUTEX s_AgentLogLock(FORK_RANK_AGENT_LOG, HELD_FOR_A_MOMENT);
static bool s_IsTorn; /* the file's last line was cut, by a full disk; under the lock */

OV_AGENT_LOG *OV_AgentLogOps(void)
{
    return &s_AgentLog;
}

const char *OV_AgentLogLevel(OV_AGENT_LOG_LEVEL Level)
{
    return s_AgentLogLevelStr[Level];
}

/* The file check runs beside the writers and takes no lock, so as never to wait for a slow disk. */
static std::atomic_ref<BOOL> _NeedReCreate(OV_AGENT_LOG *Log)
{
    return std::atomic_ref<BOOL>(Log->FileLog.IsNeedReCreate);
}

static OV_ERR_T OV_GetTimeOfDay(struct timeval *Now)
{
    return gettimeofday(Now, nullptr) == 0 ? 0 : -errno;
}

/* Leaves TimeBuf empty when the time cannot be had. */
static void _OV_AgentGetTimeStr(char (&TimeBuf)[LOG_STAMP_SIZE])
{
    struct timeval Now;
    struct tm Date;

    TimeBuf[0] = '\0';
    if (OV_GetTimeOfDay(&Now) != 0) {
        return;
    }
    if (_OV_LogLocalTime(&Now.tv_sec, &Date) == nullptr) {
        printf("date is null: %s\n", strerror(errno));
        return;
    }
    _OV_LogStampPrint(TimeBuf, Date.tm_year + 1900, Date.tm_mon + 1, Date.tm_mday, Date.tm_hour,
                      Date.tm_min, Date.tm_sec, static_cast<int>(Now.tv_usec / 1000));
}

static void OV_PRINTF_LIKE(3, 4) _WriteLine(FILE *Stream, const char *Time, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    _OV_LogLineWrite(Stream, &s_IsTorn, Time, Format, Args);
    va_end(Args);
}

/* Opens the file for appending and writes its first line. The errno of a failed open is left for
 * the caller. Under the lock. */
static FILE *_OpenLogFile(const char *Path, const char *FirstLine)
{
    char Time[LOG_STAMP_SIZE];

    _OV_AgentGetTimeStr(Time);
    FILE *Stream = _OV_LogOpen(Path);
    if (Stream == nullptr) {
        return nullptr;
    }
    s_IsTorn = false;
    _WriteLine(Stream, Time, ": %s\n", FirstLine);
    return Stream;
}

static int _OV_AgentFileLogInit(OV_AGENT_LOG *Log)
{
    /* The path is the record's first field: what this catches is a record that is not there. */
    OV_ASSERT_AT(Log != nullptr, "(Log->FileLog.Path != ((void *)0))", "linuxRtcLog", 526,
                 __func__);
    const CANCEL_SCOPE Whole; /* the stream is nobody's until it is stored */
    const MUTEX_SCOPE Lock(s_AgentLogLock);

    FILE *Stream = _OpenLogFile(Log->FileLog.Path, "agent log start");
    if (Stream == nullptr) {
        return -errno;
    }
    _NeedReCreate(Log).store(FALSE);
    Log->FileLog.Fp = Stream;
    return 0;
}

static void _OV_AgentFileLogRelease(OV_AGENT_LOG *Log)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(s_AgentLogLock);

    if (Log->FileLog.Fp != nullptr) {
        fclose(Log->FileLog.Fp);
        Log->FileLog.Fp = nullptr;
    }
}

/* Called under the lock. When the file cannot be opened the flag stays set, so that the next
 * write tries again, and the old stream stays in use. */
static void _OV_AgentLogFileReCreate(OV_AGENT_LOG *Log)
{
    FILE *Stream = _OpenLogFile(Log->FileLog.Path, "re-created agent log.");
    if (Stream == nullptr) {
        return;
    }
    if (Log->FileLog.Fp != nullptr) {
        fclose(Log->FileLog.Fp);
    }
    Log->FileLog.Fp = Stream;
    _NeedReCreate(Log).store(FALSE);
}

/* One record goes out in one write under the lock, so that lines of several threads stay whole;
 * with the file in append mode, lines of several processes too. */
static void OV_PRINTF_LIKE(2, 0)
    _OV_AgentFileLogValist(int /*Level*/, const char *Format, va_list Args)
{
    const int CallerErrno = errno; /* a log line between a failure and its report changes nothing */
    const CANCEL_SCOPE Whole;      /* a thread that ends here would keep the lock */
    char Time[LOG_STAMP_SIZE];

    _OV_AgentGetTimeStr(Time);
    {
        const MUTEX_SCOPE Lock(s_AgentLogLock);

        if (_NeedReCreate(&s_AgentLog).load()) {
            _OV_AgentLogFileReCreate(&s_AgentLog);
        }
        if (s_AgentLog.FileLog.Fp != nullptr) {
            _OV_LogLineWrite(s_AgentLog.FileLog.Fp, &s_IsTorn, Time, Format, Args);
        }
    }
    errno = CallerErrno;
}

static void OV_PRINTF_LIKE(2, 3) _OV_AgentFileLog(int Level, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    _OV_AgentFileLogValist(Level, Format, Args);
    va_end(Args);
}

static OV_ERR_T _OV_AgentLogCtor(const char *Path, const char *Tag, OV_AGENT_LOG_INIT_FUNC Init,
                                 OV_AGENT_LOG_RELEASE_FUNC Release, OV_AGENT_LOG_FUNC Log,
                                 OV_AGENT_LOG_VALIST_FUNC LogValist)
{
    OV_AGENT_LOG *Record = OV_AgentLogOps();

    if (Path != nullptr && OV_SafeStrCopy(Record->FileLog.Path, sizeof(Record->FileLog.Path),
                                          Path) >= sizeof(Record->FileLog.Path)) {
        return -EOVERFLOW;
    }
    if (Tag != nullptr &&
        OV_SafeStrCopy(Record->Tag, sizeof(Record->Tag), Tag) >= sizeof(Record->Tag)) {
        return -EOVERFLOW;
    }

    /* In place before the start, and left in place when it fails: a program may then still log,
     * and when the file check finds no file the next line tries to create it. */
    Record->Release = Release;
    Record->Log = Log;
    Record->LogValist = LogValist;
    if (Init == nullptr) {
        return 0;
    }

    const int Result = Init(Record);
    if (Result >= 0) {
        Record->Init = Init;
    }
    return Result;
}

OV_ERR_T OV_AgentFileLogCtor(const char *Path)
{
    return _OV_AgentLogCtor(Path, nullptr, _OV_AgentFileLogInit, _OV_AgentFileLogRelease,
                            _OV_AgentFileLog, _OV_AgentFileLogValist);
}

static int _OV_AgentMavoLogInit(OV_AGENT_LOG *Log)
{
    const int32_t Id = OV_LogFileInit(Log->FileLog.Path, strlen(Log->FileLog.Path));

    if (Id < 0) {
        return -ENOENT;
    }
    Log->FileLog.HandlerId = Id;
    return 0;
}

/* The -1 that stays behind is, as the unsigned id that a log file takes, above every handle: lines
 * after the stop go to standard output, and the settings refuse it. */
static void _OV_AgentMavoLogRelease(OV_AGENT_LOG *Log)
{
    if (Log->FileLog.HandlerId >= 0) {
        OV_LogFileRelease(static_cast<uint32_t>(Log->FileLog.HandlerId));
        Log->FileLog.HandlerId = -1;
    }
}

static void OV_PRINTF_LIKE(2, 0)
    _OV_AgentMavoLogValist(int /*Level*/, const char *Format, va_list Args)
{
    OV_Log2FileWithVaList(static_cast<uint32_t>(s_AgentLog.FileLog.HandlerId), Format, Args);
}

static void OV_PRINTF_LIKE(2, 3) _OV_AgentMavoLog(int Level, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    _OV_AgentMavoLogValist(Level, Format, Args);
    va_end(Args);
}

OV_ERR_T OV_AgentMavoLogCtor(const char *Path)
{
    return _OV_AgentLogCtor(Path, nullptr, _OV_AgentMavoLogInit, _OV_AgentMavoLogRelease,
                            _OV_AgentMavoLog, _OV_AgentMavoLogValist);
}

OV_ERR_T OV_AgentLogFileSetMaxSize(uint32_t MaxFileSize)
{
    return OV_LogFileSetMaxFileSize(static_cast<uint32_t>(s_AgentLog.FileLog.HandlerId),
                                    MaxFileSize);
}

OV_ERR_T OV_AgentLogFileSetNum(uint32_t FileNum)
{
    return OV_LogFileSetFileNum(static_cast<uint32_t>(s_AgentLog.FileLog.HandlerId), FileNum);
}

OV_ERR_T OV_AgentCustomLogCtor(OV_AGENT_LOG_FUNC Log, OV_AGENT_LOG_VALIST_FUNC LogValist)
{
    return _OV_AgentLogCtor(nullptr, nullptr, nullptr, nullptr, Log, LogValist);
}

void OV_AgentLogDtor(void)
{
    OV_AGENT_LOG *Log = OV_AgentLogOps();

    if (Log->Release != nullptr) {
        Log->Release(Log);
    }
}

static bool _OV_IsFileExist(const char *Path)
{
    struct stat Status;

    return stat(Path, &Status) == 0 && S_ISREG(Status.st_mode);
}

void OV_AgentLogFileCheck(void)
{
    OV_AGENT_LOG *Log = OV_AgentLogOps();

    if (!_OV_IsFileExist(SYSTEM_LOG_PATH)) {
        const int Result = OV_RTCSystem("systemctl restart rsyslog");
        if (Result < 0) {
            OV_LOG_WARN("%s not exist, but failed to restart rsyslog server(ret = %d).",
                        SYSTEM_LOG_PATH, Result);
        }
    }
    if (Log->FileLog.Path[0] != '\0' && !_OV_IsFileExist(Log->FileLog.Path)) {
        _NeedReCreate(Log).store(TRUE);
    }
}

/* The five take their arguments as they stand; they differ in the level alone. */
#define OV_LOG_AS_IT_STANDS(Level, Format)                                           \
    do {                                                                             \
        const OV_AGENT_LOG *Log = OV_AgentLogOps();                                  \
        if (Log->LimitLevel <= (Level) && Log->LogValist != nullptr) {               \
            va_list Args;                                                            \
            va_start(Args, Format);                                                  \
            Log->LogValist(_OV_AgentLogLevelTranslatePaltform(Level), Format, Args); \
            va_end(Args);                                                            \
        }                                                                            \
    } while (0)

void OV_COMMDebug(const char *Format, ...)
{
    OV_LOG_AS_IT_STANDS(OV_AGENT_LOG_LEVEL_DEBUG, Format);
}

void OV_COMMInfo(const char *Format, ...)
{
    OV_LOG_AS_IT_STANDS(OV_AGENT_LOG_LEVEL_INFO, Format);
}

void OV_COMMWarn(const char *Format, ...)
{
    OV_LOG_AS_IT_STANDS(OV_AGENT_LOG_LEVEL_WARN, Format);
}

void OV_COMMError(const char *Format, ...)
{
    OV_LOG_AS_IT_STANDS(OV_AGENT_LOG_LEVEL_ERROR, Format);
}

void OV_DumpInfo(const char *Format, ...)
{
    OV_LOG_AS_IT_STANDS(OV_AGENT_LOG_LEVEL_INFO, Format);
}
