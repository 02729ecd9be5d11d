#include "linuxRtc.h"

#include "linuxRtcInternal.h"
#include "orvaneGateInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

static constexpr size_t COMMAND_SIZE = 1024;
static constexpr size_t LINE_SIZE = 1024;
static constexpr mode_t CONTROL_FILE_MODE = 0666;
static constexpr uint32_t PREFIX_LENGTH_DEFAULT = 32;

/* Who is inside of popen, pclose or system. */
static constinit VISITORS s_InLibc;

/* These have locks of libc's, which a fork leaves held: a child that was forked meanwhile starts
 * its shells without them. So does a thread of the library's, in a callback: from them a command
 * would have all signals blocked, and could not be told to end. */
static bool _IsWithoutLibc()
{
    return g_IsLibraryThread || s_InLibc.WereLost();
}

/* Held while a command that is read starts: a forked child would have the pipe's other end open,
 * and the reader wait for the child, too. */
static constinit FORK_MUTEX s_PipeLock(FORK_RANK_COMMAND_PIPE, HELD_FOR_A_MOMENT);

/* A command whose output is read. */
struct SHELL_OUTPUT {
    FILE *Stream;
    pid_t Shell; /* 0: popen's, which has its own record */
};

static pid_t _SpawnShell(const char *Command, const posix_spawn_file_actions_t *Actions)
{
    char *const Arguments[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                               const_cast<char *>(Command), nullptr};
    posix_spawnattr_t Attributes;
    sigset_t Mask;
    pid_t Shell;

    pthread_sigmask(SIG_SETMASK, nullptr, &Mask);
    if (g_IsLibraryThread) {
        sigemptyset(&Mask);
    }
    posix_spawnattr_init(&Attributes);
    posix_spawnattr_setflags(&Attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&Attributes, &Mask);
    const int Error = posix_spawn(&Shell, "/bin/sh", Actions, &Attributes, Arguments, environ);
    posix_spawnattr_destroy(&Attributes);
    return Error == 0 ? Shell : -1;
}

/* Its status, -1 when that cannot be known. */
static int _WaitForShell(pid_t Shell)
{
    int Status = -1;

    while (waitpid(Shell, &Status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return Status;
}

static SHELL_OUTPUT _OpenOwnOutput(const char *Command)
{
    posix_spawn_file_actions_t Actions;
    int Ends[2];

    if (pipe2(Ends, O_CLOEXEC) != 0) {
        return {nullptr, 0};
    }
    DESCRIPTOR_SCOPE Reading(Ends[0]);
    const DESCRIPTOR_SCOPE Writing(Ends[1]);
    STREAM_SCOPE Stream(fdopen(Reading.Get(), "r"));
    if (!Stream) {
        return {nullptr, 0};
    }
    Reading.Release();
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_adddup2(&Actions, Writing.Get(), STDOUT_FILENO);
    const pid_t Shell = _SpawnShell(Command, &Actions);
    posix_spawn_file_actions_destroy(&Actions);
    return {Shell > 0 ? Stream.release() : nullptr, Shell};
}

static SHELL_OUTPUT _OpenOutput(const char *Command)
{
    const MUTEX_SCOPE Pipe(s_PipeLock);

    if (_IsWithoutLibc()) {
        return _OpenOwnOutput(Command);
    }
    const unsigned Ticket = s_InLibc.Enter();
    FILE *Stream = popen(Command, "re"); /* one at a time in libc, too */
    s_InLibc.Leave(Ticket);
    return {Stream, 0};
}

/* Waits for the command. */
static void _CloseOutput(const SHELL_OUTPUT &Output)
{
    if (Output.Shell != 0) {
        fclose(Output.Stream);
        _WaitForShell(Output.Shell);
        return;
    }
    const unsigned Ticket = s_InLibc.Enter();
    pclose(Output.Stream);
    s_InLibc.Leave(Ticket);
}

static void _LeaveLibc(void *Ticket)
{
    s_InLibc.Leave(*static_cast<unsigned *>(Ticket));
}

/* What system returns; it may be cancelled, and then ends the shell. */
int _OV_RTCRunShell(const char *Command)
{
    if (_IsWithoutLibc()) {
        const CANCEL_SCOPE Whole;
        const pid_t Shell = _SpawnShell(Command, nullptr);
        return Shell > 0 ? _WaitForShell(Shell) : -1;
    }
    unsigned Ticket = s_InLibc.Enter();
    int Status;
    pthread_cleanup_push(_LeaveLibc, &Ticket);
    Status = system(Command);
    pthread_cleanup_pop(1);
    return Status;
}

/* What fgets would read: up to a newline, the room or the end. But fgets forgets the start of a
 * line when a handler's signal interrupts the wait for the rest. */
static bool _ReadLine(FILE *Stream, char *Line, size_t Size)
{
    size_t Length = 0;

    for (int Character = 0; Character != '\n' && Length < Size - 1;) {
        Character = getc_unlocked(Stream); /* nobody else has the stream */
        if (Character != EOF) {
            Line[Length++] = static_cast<char>(Character);
        } else if (!ferror(Stream)) {
            break;
        } else if (errno != EINTR) {
            return false;
        } else {
            clearerr(Stream);
            errno = 0; /* a stream without a descriptor may fail without a reason */
        }
    }
    Line[Length] = '\0';
    return Length > 0;
}

/* Appends the lines of Stream to the empty Buf; false when one did not fit. */
static bool _CaptureLines(FILE *Stream, char *Buf, size_t Size, size_t *Count)
{
    char Line[LINE_SIZE];

    while (_ReadLine(Stream, Line, sizeof(Line))) {
        const size_t Length = strlen(Line);

        if (*Count + Length >= Size) {
            return false;
        }
        OV_SafeStrCat(Buf + *Count, Size - *Count, Line);
        *Count += Length;
    }
    return true;
}

int OV_RTCExecCmd(const char *cmd, char *buf, size_t size)
{
    const CANCEL_SCOPE Whole; /* the pipe and the child are ours until pclose */
    const int CallerErrno = errno;
    char Command[COMMAND_SIZE];
    size_t Count = 0;

    OV_SNPrintf(Command, sizeof(Command) - 1, "%s 2>&1", cmd);
    if (buf == nullptr) {
        size = 0; /* no room: any output is over size */
    } else {
        memset(buf, 0, size);
    }
    if (size > INT_MAX) {
        size = INT_MAX; /* the count returned is an int */
    }

    const SHELL_OUTPUT Output = cmd == nullptr ? SHELL_OUTPUT{} : _OpenOutput(Command);
    if (Output.Stream == nullptr) {
        printf("invalid cmd %s\n", cmd);
        return 0;
    }
    if (!_CaptureLines(Output.Stream, buf, size, &Count)) {
        OV_LOG_ERROR("csn_exec_cmd: over size");
    }
    _CloseOutput(Output);
    errno = CallerErrno;
    return static_cast<int>(Count);
}

int OV_RTCSystem(const char *cmd)
{
    OV_LOG_INFO("%s", cmd);

    /* system(NULL) would only ask whether there is a shell. */
    const int Status = cmd == nullptr ? -1 : _OV_RTCRunShell(cmd);
    if (Status != -1 && WIFEXITED(Status) && WEXITSTATUS(Status) == 0) {
        return 0;
    }
    OV_LOG_ERROR("%s , rc=%d", cmd, -1);
    return -1;
}

/* No path at all is refused as the kernel would refuse it. */
static int _OpenControlFile(const char *FilePath, int32_t Flags)
{
    if (FilePath == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return open(FilePath, Flags, CONTROL_FILE_MODE);
}

static OV_ERR_T _OV_RTCWriteFile(const char *Data, size_t DataSize, const char *FilePath,
                                 int32_t Flags)
{
    const CANCEL_SCOPE Whole;
    const DESCRIPTOR_SCOPE File(_OpenControlFile(FilePath, Flags));
    if (File.Get() < 0) {
        const OV_ERR_T Error = -errno;
        OV_LOG_ERROR("open failed, filepath:%s cmd:%s ret = %d error_string:%s", FilePath, Data,
                     Error, strerror(-Error));
        return Error;
    }

    OV_LOG_INFO_WITHOUT_NEWLINE("Exec Path:%s, Cmd:%s", FilePath, Data);
    errno = 0; /* a short write is no error of its own: the line below then says so */
    const ssize_t Written = write(File.Get(), Data, DataSize);
    if (Written < 0 || static_cast<size_t>(Written) != DataSize) {
        OV_LOG_ERROR("write failed, filepath:%s, cmd:%s error_string:%s return:%d", FilePath, Data,
                     strerror(errno), static_cast<int>(Written));
        return -EIO;
    }
    return 0;
}

OV_ERR_T OV_RTCWriteFile(const char *Cmd, size_t CmdLen, const char *FilePath)
{
    return _OV_RTCWriteFile(Cmd, CmdLen, FilePath, O_WRONLY | O_CLOEXEC);
}

int OV_RTCWriteFileSync(const char *Cmd, int CmdLen, const char *FilePath)
{
    /* A negative length becomes a size that the kernel refuses. */
    return _OV_RTCWriteFile(Cmd, static_cast<size_t>(CmdLen), FilePath,
                            O_RDWR | O_CREAT | O_TRUNC | O_SYNC);
}

int OV_RTCParseIpSubnet(char *IpSubnet, int IpSubnetLen, u32 *Ip, u8 *Mask)
{
    uint32_t PrefixLength = PREFIX_LENGTH_DEFAULT;

    if (IpSubnet == nullptr || Ip == nullptr || Mask == nullptr) {
        return -OV_RTC_ERROR_INVALID_PARAM;
    }

    char *Slash = strchr(IpSubnet, '/');
    if (Slash != nullptr) {
        const ptrdiff_t Position = Slash - IpSubnet;

        if (Position >= IpSubnetLen) {
            OV_LOG_ERROR("buf oversize %d:%d", IpSubnetLen, static_cast<int>(Position));
            return -OV_RTC_ERROR_BUFF_OVERFLOW;
        }
        *Slash = '\0';
        if (OV_SafeStrGetU32(Slash + 1, 10, &PrefixLength) == nullptr) {
            OV_LOG_ERROR("Parse str to unsigned int error: %s", IpSubnet);
            return -OV_RTC_ERROR_BUFF_PARSE;
        }
    } else {
        OV_LOG_WARN("no / in ipsubnet-parse, using default mask %u : %s", PREFIX_LENGTH_DEFAULT,
                    IpSubnet);
    }

    if (OV_SafeStrGetIp4Addr(IpSubnet, strlen(IpSubnet), Ip) == nullptr) {
        OV_LOG_ERROR("parse ip error in ipsubnet-parse: %s", IpSubnet);
        return -OV_RTC_ERROR_BUFF_PARSE;
    }
    *Mask = static_cast<u8>(PrefixLength);
    return 0;
}
