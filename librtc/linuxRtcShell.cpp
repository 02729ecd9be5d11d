#include "linuxRtcShellInternal.h"

#include "linuxRtc.h"
#include "orvaneLibrtcLog.h"

#include <stdarg.h>
#include <sys/stat.h>

static bool OV_PRINTF_LIKE(3, 0)
    _Compose(char *Out, size_t Room, const char *Format, va_list Arguments)
{
    const int Length = vsnprintf(Out, Room, Format, Arguments);
    return Length >= 0 && static_cast<size_t>(Length) < Room;
}

bool _OV_RTCCompose(char *Out, size_t Room, const char *Format, ...)
{
    va_list Arguments;

    va_start(Arguments, Format);
    const bool IsWhole = _Compose(Out, Room, Format, Arguments);
    va_end(Arguments);
    return IsWhole;
}

int _OV_RTCRun(size_t Room, int Refused, const char *Format, ...)
{
    char Command[RTC_COMMAND_LIMIT];
    va_list Arguments;

    va_start(Arguments, Format);
    const bool IsWhole = _Compose(Command, Room, Format, Arguments);
    va_end(Arguments);
    return IsWhole ? OV_RTCSystem(Command) : Refused;
}

/* The shell that looks has the text in its own line, and "grep" too: that takes it out again. */
int _OV_RTCFindProcess(size_t Room, int Refused, const char *Text)
{
    return _OV_RTCRun(Room, Refused, "ps aux | grep \"%s\" | grep -v grep", Text);
}

int _OV_RTCKillProcess(size_t Room, int Refused, const char *Text)
{
    return _OV_RTCRun(Room, Refused,
                      "kill -9 `ps aux | grep \"%s\" | grep -v grep | awk '{print $2}' `"
                      ">/dev/null 2>&1",
                      Text);
}

int _OV_RTCCloseText(FILE *File, const char *Path, mode_t Mode)
{
    const bool IsWhole = ferror(File) == 0;

    if (fclose(File) != 0 || !IsWhole) {
        OV_LOG_ERROR("write file(%s) failed", Path);
        return -1;
    }
    if (Mode != 0) {
        chmod(Path, Mode);
    }
    return 0;
}
