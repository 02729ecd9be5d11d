#include "orvaneLogFile.h"

#include "orvaneLogLineInternal.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

static constexpr uint32_t DEFAULT_MAX_FILE_SIZE = 52428800; /* 50 MiB */
static constexpr uint32_t DEFAULT_FILE_TOTAL_NUM = 4;
static constexpr uint32_t STANDARD_OUTPUT_ID = 65535; /* any id without a slot would do */

struct _OV_LOG_HANDLE_ {
    std::atomic<FILE *> File; /* null: the slot is free, which is tested without the lock */
    BOOL IsLogFile;           /* sizes are counted, and files rotated */
    uint32_t CurFileSize;
    uint32_t MaxFileSize;
    uint32_t FileTotalNum;
    FORK_SPINLOCK<FORK_RANK_LOG_FILE> Lock; /* guards the other fields, and the stream */
    bool IsTorn;                            /* the last line was cut, by a full disk */
    char Path[OV_LOG_FILE_PATH_SIZE];
    BOOL IsAdrift; /* the file could not be opened again: File only keeps the slot taken meanwhile,
                      and nothing may write to it or close it */
};

/* The index is the handle's id. Slots are taken and given back under s_LogFileLock. */
static constinit _OV_LOG_HANDLE_ s_LogHandle[OV_LOG_FILE_HANDLE_COUNT] = {};

static constinit FORK_MUTEX s_LogFileLock(FORK_RANK_LOG_FILES, HELD_FOR_A_MOMENT);

/* Held while the module writes to standard output, for what that holds until it is flushed. */
static constinit FORK_MUTEX s_OutputLock(FORK_RANK_STANDARD_OUTPUT, HELD_FOR_A_MOMENT);

/* The handle of OV_FileLog; set by its start and release, on any thread. */
static std::atomic<int32_t> s_FileLogHandleId{-1};

/* BreakDown is one of the two local times. */
static OV_ERR_T _ReadSystime(_OV_SYSTIME_T *Systime,
                             struct tm *(*BreakDown)(const time_t *, struct tm *))
{
    struct timeval Now;
    struct tm Date;

    if (gettimeofday(&Now, nullptr) != 0) {
        return -errno;
    }
    if (BreakDown(&Now.tv_sec, &Date) == nullptr) {
        return -EINVAL;
    }
    Systime->Year = static_cast<uint16_t>(Date.tm_year + 1900);
    Systime->Month = static_cast<uint8_t>(Date.tm_mon + 1);
    Systime->Day = static_cast<uint8_t>(Date.tm_mday);
    Systime->Hour = static_cast<uint8_t>(Date.tm_hour);
    Systime->Minute = static_cast<uint8_t>(Date.tm_min);
    Systime->Second = static_cast<uint8_t>(Date.tm_sec);
    Systime->Milliseconds = static_cast<uint16_t>(Now.tv_usec / 1000);
    return 0;
}

OV_ERR_T OV_GetSystime(_OV_SYSTIME_T *Systime)
{
    return _ReadSystime(Systime, _OV_LocalTime);
}

/* Under the handle's lock. A file that is there already is counted with what it holds, so that a
 * restarted process rotates where the first one would. */
static OV_ERR_T _OV_LogFileOpen(_OV_LOG_HANDLE_ *Handle)
{
    struct stat Status;

    FILE *Stream = _OV_LogOpen(Handle->Path);
    if (Stream == nullptr) {
        return -EIO;
    }
    Handle->File.store(Stream);
    Handle->IsAdrift = FALSE;
    Handle->IsTorn = false;
    Handle->CurFileSize = fstat(fileno(Stream), &Status) == 0
                              ? static_cast<uint32_t>(std::min<off_t>(Status.st_size, UINT32_MAX))
                              : 0;
    return 0;
}

/* Under the handle's lock. A handle without a path closes standard output itself, known and kept: a
 * program that releases it gives its terminal or pipe up, and whoever reads that pipe sees its end.
 * The price: the next file that the process opens becomes its descriptor 1, and its children's
 * standard output unless it is closed for them. */
static void _OV_LogFileClose(_OV_LOG_HANDLE_ *Handle)
{
    FILE *Stream = Handle->File.load();

    if (Stream != nullptr && !Handle->IsAdrift) {
        fclose(Stream);
    }
    Handle->File.store(nullptr);
}

/* FALSE where "<live path>.<Number>" does not fit. */
static bool _RotatedName(char (&Name)[OV_LOG_FILE_PATH_SIZE], const char *Path, uint32_t Number)
{
    return OV_SNPrintf(Name, sizeof(Name), "%s.%u", Path, Number) < sizeof(Name);
}

/* Under the handle's lock. Moves each file on by one number, the oldest being overwritten, and
 * starts an empty one. Where a name does not fit the live file just grows, and the next line tries
 * again. No result is looked at: what could not be renamed is lost with the live file, which must
 * not grow for ever.
 *
 * A FileTotalNum of 0 counts down through all numbers, known and kept: hours under the handle's
 * lock. Callers set 1 or more. */
static void _OV_LogFileRotate(_OV_LOG_HANDLE_ *Handle)
{
    char NewName[OV_LOG_FILE_PATH_SIZE];
    char OldName[OV_LOG_FILE_PATH_SIZE];
    uint32_t Number = Handle->FileTotalNum - 1;

    if (!_RotatedName(NewName, Handle->Path, Number)) {
        return;
    }
    while (Number != 0) {
        Number--;
        if (!_RotatedName(OldName, Handle->Path, Number)) {
            return;
        }
        rename(OldName, NewName);
        memcpy(NewName, OldName, sizeof(NewName));
    }

    /* File stays set meanwhile: a null would be a free slot, to other writers and to a start. */
    fclose(Handle->File.exchange(stdout));
    Handle->IsAdrift = TRUE;
    rename(Handle->Path, NewName);
    unlink(Handle->Path); /* there only if the rename failed */
    _OV_LogFileOpen(Handle);
}

/* Under the handle's lock: where its next line goes; null: nowhere. */
static FILE *_StreamOf(_OV_LOG_HANDLE_ *Handle)
{
    if (Handle->IsAdrift && _OV_LogFileOpen(Handle) != 0) {
        return nullptr;
    }
    return Handle->File.load(); /* null in a slot that was released since it was tested */
}

/* Returns the characters printed; a print that failed counts 0, not -1. Handles without a path
 * share standard output with the program, whose lines stdio's own lock keeps whole. */
static uint32_t OV_PRINTF_LIKE(2, 0)
    _WriteToOutput(const char *Stamp, const char *Format, va_list Args)
{
    flockfile(stdout); /* first: the program may have it already, for several lines of its own */
    s_OutputLock.Lock();
    const int Stamped = fputs(Stamp, stdout) < 0 ? 0 : static_cast<int>(strlen(Stamp));
    const int Printed = vfprintf(stdout, Format, Args);
    fflush(stdout);
    s_OutputLock.Unlock();
    funlockfile(stdout);
    return static_cast<uint32_t>(Stamped) + static_cast<uint32_t>(Printed < 0 ? 0 : Printed);
}

/* Only what the file took counts towards its size: a full disk must not rotate away what there is.
 */
static uint32_t OV_PRINTF_LIKE(3, 0)
    _WriteToHandle(_OV_LOG_HANDLE_ *Handle, const char *Stamp, const char *Format, va_list Args)
{
    const LOCK_SCOPE Lock(Handle->Lock);

    FILE *Stream = _StreamOf(Handle);
    if (Stream == nullptr) {
        return 0;
    }
    if (!Handle->IsLogFile) {
        return _WriteToOutput(Stamp, Format, Args);
    }
    const LOG_LINE_SIZES Sizes = _OV_LogLineWrite(Stream, &Handle->IsTorn, Stamp, Format, Args);
    Handle->CurFileSize =
        static_cast<uint32_t>(std::min<size_t>(Handle->CurFileSize + Sizes.Written, UINT32_MAX));
    if (Sizes.Written > 0 && Handle->CurFileSize >= Handle->MaxFileSize) {
        _OV_LogFileRotate(Handle);
    }
    return static_cast<uint32_t>(Sizes.Printed);
}

static bool _IsInUse(uint32_t LogHandleId)
{
    return LogHandleId < OV_LOG_FILE_HANDLE_COUNT &&
           s_LogHandle[LogHandleId].File.load() != nullptr;
}

static int OV_PRINTF_LIKE(2, 0) _OV_Log2File(uint32_t LogHandleId, const char *Format, va_list Args)
{
    const int CallerErrno = errno; /* a log line between a failure and its report changes nothing */
    const CANCEL_SCOPE Whole;      /* a thread that ends here would keep the lock */
    _OV_SYSTIME_T Now = {};        /* without a clock a line is stamped with zeros */
    char Stamp[LOG_STAMP_SIZE];

    _ReadSystime(&Now, _OV_LogLocalTime);
    _OV_LogStampPrint(Stamp, Now.Year, Now.Month, Now.Day, Now.Hour, Now.Minute, Now.Second,
                      Now.Milliseconds);
    const uint32_t Size = _IsInUse(LogHandleId)
                              ? _WriteToHandle(&s_LogHandle[LogHandleId], Stamp, Format, Args)
                              : _WriteToOutput(Stamp, Format, Args);
    errno = CallerErrno;
    return static_cast<int>(Size);
}

int OV_Log2File(uint32_t LogHandleId, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    const int Size = _OV_Log2File(LogHandleId, Format, Args);
    va_end(Args);
    return Size;
}

int OV_Log2FileWithVaList(uint32_t LogHandleId, const char *Format, va_list Args)
{
    return _OV_Log2File(LogHandleId, Format, Args);
}

/* A handle that never lets go takes the table with it: no fork is to wait for that. */
static void _LoseTableWith(const _OV_LOG_HANDLE_ &Handle)
{
    if (Handle.Lock.IsLeftHeld()) {
        s_LogFileLock.Lose();
    }
}

/* Gives the slot back. Its lock is left usable: a writer that still waits for it, against the
 * rules, then finds no stream instead of waiting for ever. */
static void _OV_LogHandleRelease(_OV_LOG_HANDLE_ *Handle)
{
    const LOCK_SCOPE Lock(Handle->Lock);

    Handle->IsLogFile = FALSE;
    Handle->CurFileSize = Handle->MaxFileSize = Handle->FileTotalNum = 0;
    memset(Handle->Path, 0, sizeof(Handle->Path));
    _OV_LogFileClose(Handle);
    Handle->IsAdrift = FALSE;
}

/* The test ahead of the start's clean-up is inverted, known and kept: it releases a handle when
 * there is none, and so a start that is refused ends the process in the null handle's lock. Before
 * it is righted, look at all callers: an id is passed on unsigned, and a negative one that nobody
 * checked would send a whole log to standard output.
 * The volatile pointer keeps the compilers from knowing the null and dropping the path. */
static _OV_LOG_HANDLE_ *volatile s_NoHandle = nullptr;

static int32_t _CleanUpWithoutHandle(OV_ERR_T Error)
{
    _OV_LogHandleRelease(s_NoHandle);
    return Error;
}

/* Takes the lowest free slot, on standard output, and returns its id, or -ENOENT. */
static int32_t _TakeSlot()
{
    for (int32_t Id = 0; Id < OV_LOG_FILE_HANDLE_COUNT; Id++) {
        _OV_LOG_HANDLE_ &Handle = s_LogHandle[Id];

        if (Handle.File.load() == nullptr) {
            Handle.IsLogFile = FALSE;
            Handle.CurFileSize = 0;
            Handle.MaxFileSize = DEFAULT_MAX_FILE_SIZE;
            Handle.FileTotalNum = DEFAULT_FILE_TOTAL_NUM;
            memset(Handle.Path, 0, sizeof(Handle.Path));
            Handle.IsAdrift = FALSE;
            Handle.File.store(stdout); /* last: it shows the slot to the other threads */
            return Id;
        }
    }
    return -ENOENT;
}

/* A file that cannot be opened leaves the handle's lock held, known and kept. The slot stays taken
 * and bound to standard output, and the lock is all that stands between the two: whoever unlocks
 * here sends the lines of that log to standard output, and has the release close it. As it is,
 * each later use of the id waits for ever, and a setting or a release with the table's mutex held,
 * so that all other starts, settings and releases wait as well. */
static OV_ERR_T _BindToFile(_OV_LOG_HANDLE_ *Handle, const char *LogPath)
{
    Handle->Lock.Lock();
    OV_SafeStrCopy(Handle->Path, sizeof(Handle->Path), LogPath);
    const OV_ERR_T Result = _OV_LogFileOpen(Handle);
    if (Result != 0) {
        fprintf(stderr, "_OV_LogFileOpen(%s) faled(ret = %d).\n", LogPath, Result);
        fflush(stderr); /* all that is seen of it, and a redirected stream may hold it back */
        Handle->Lock.Lose();
        return Result;
    }
    Handle->IsLogFile = TRUE;
    Handle->Lock.Unlock();
    return 0;
}

int32_t OV_LogFileInit(const char *LogPath, size_t Size)
{
    const CANCEL_SCOPE Whole;

    if (LogPath != nullptr && Size >= OV_LOG_FILE_PATH_SIZE) {
        return _CleanUpWithoutHandle(-EINVAL);
    }
    const MUTEX_SCOPE Lock(s_LogFileLock);
    const int32_t Id = _TakeSlot();
    if (Id < 0) {
        return _CleanUpWithoutHandle(Id);
    }
    if (LogPath == nullptr || _BindToFile(&s_LogHandle[Id], LogPath) == 0) {
        OV_Log2File(static_cast<uint32_t>(Id), "log start...\n\n");
    }
    return Id;
}

void OV_LogFileRelease(uint32_t LogHandleId)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(s_LogFileLock);

    if (_IsInUse(LogHandleId)) {
        _LoseTableWith(s_LogHandle[LogHandleId]);
        _OV_LogHandleRelease(&s_LogHandle[LogHandleId]);
    }
}

/* What the four settings share: the id's range, the locks, and the free slot that is skipped. */
template <typename ACCESS>
static OV_ERR_T _WithHandle(uint32_t LogHandleId, const ACCESS &Access)
{
    if (LogHandleId >= OV_LOG_FILE_HANDLE_COUNT) {
        return -EINVAL;
    }
    const MUTEX_SCOPE Lock(s_LogFileLock);
    if (_IsInUse(LogHandleId)) {
        _LoseTableWith(s_LogHandle[LogHandleId]);
        const LOCK_SCOPE HandleLock(s_LogHandle[LogHandleId].Lock);
        Access(s_LogHandle[LogHandleId]);
    }
    return 0;
}

static OV_ERR_T _Get(uint32_t LogHandleId, uint32_t _OV_LOG_HANDLE_::*Field, uint32_t *Value)
{
    if (Value == nullptr) {
        return -EINVAL;
    }
    return _WithHandle(LogHandleId, [&](const _OV_LOG_HANDLE_ &Handle) { *Value = Handle.*Field; });
}

static OV_ERR_T _Set(uint32_t LogHandleId, uint32_t _OV_LOG_HANDLE_::*Field, uint32_t Value)
{
    return _WithHandle(LogHandleId, [&](_OV_LOG_HANDLE_ &Handle) { Handle.*Field = Value; });
}

OV_ERR_T OV_LogFileGetMaxFileSize(uint32_t LogHandleId, uint32_t *MaxFileSize)
{
    return _Get(LogHandleId, &_OV_LOG_HANDLE_::MaxFileSize, MaxFileSize);
}

OV_ERR_T OV_LogFileSetMaxFileSize(uint32_t LogHandleId, uint32_t MaxFileSize)
{
    return _Set(LogHandleId, &_OV_LOG_HANDLE_::MaxFileSize, MaxFileSize);
}

OV_ERR_T OV_LogFileGetFileNum(uint32_t LogHandleId, uint32_t *FileTotalNum)
{
    return _Get(LogHandleId, &_OV_LOG_HANDLE_::FileTotalNum, FileTotalNum);
}

OV_ERR_T OV_LogFileSetFileNum(uint32_t LogHandleId, uint32_t FileTotalNum)
{
    return _Set(LogHandleId, &_OV_LOG_HANDLE_::FileTotalNum, FileTotalNum);
}

OV_ERR_T OV_FileLogInit(const char *LogPath, size_t Size, uint32_t MaxFileSize, uint32_t FileNum)
{
    const int32_t Id = OV_LogFileInit(LogPath, Size);

    if (Id < 0) {
        return Id;
    }
    s_FileLogHandleId.store(Id);
    if (MaxFileSize != 0) {
        const OV_ERR_T Result = OV_LogFileSetMaxFileSize(static_cast<uint32_t>(Id), MaxFileSize);
        if (Result < 0) {
            return Result;
        }
    }
    return FileNum == 0 ? 0 : OV_LogFileSetFileNum(static_cast<uint32_t>(Id), FileNum);
}

int OV_FileLog(const char *Format, ...)
{
    const int32_t Id = s_FileLogHandleId.load();
    va_list Args;

    va_start(Args, Format);
    const int Size = OV_Log2FileWithVaList(Id < 0 ? STANDARD_OUTPUT_ID : static_cast<uint32_t>(Id),
                                           Format, Args);
    va_end(Args);
    return Size;
}

void OV_FileLogRelease(void)
{
    const int32_t Id = s_FileLogHandleId.exchange(-1); /* two releases must not both close it */

    if (Id >= 0) {
        OV_LogFileRelease(static_cast<uint32_t>(Id));
    }
}
