#include "linuxRtc.h"
#include "linuxRtcInterfaceInternal.h"
#include "linuxRtcShellInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <errno.h>
#include <iterator>
#include <string.h>

static constexpr size_t SYS_FILE_PATH_SIZE = 64;
static constexpr size_t SYS_FILE_LINE_SIZE = 48;
static constexpr size_t COMMAND_SIZE = 48;
static constexpr size_t ETHTOOL_OUTPUT_SIZE = 48;
static constexpr size_t IFCONFIG_OUTPUT_SIZE = 64;
static constexpr size_t WORD_SIZE = 48;

/* A path or command that fills its buffer to the last character is taken for one that was cut. */
int32_t _OV_RTCIfGetSysFilePath(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *SysFilePath,
                                size_t Size)
{
    static constexpr const char *Names[] = {"mtu", "speed", "duplex"};

    if (static_cast<size_t>(Type) >= std::size(Names)) {
        return -EINTR;
    }
    const bool IsWhole =
        _OV_RTCIsGiven(IfName) && SysFilePath != nullptr && Size > 0 &&
        _OV_RTCCompose(SysFilePath, Size - 1, "/sys/class/net//%s/%s", IfName, Names[Type]);
    return IsWhole ? 0 : -ESRCH;
}

int32_t _OV_RTCIfGetCurConfigFromSysFile(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *OutStr,
                                         size_t Size)
{
    const CANCEL_SCOPE Whole;
    char Path[SYS_FILE_PATH_SIZE] = "";
    char Line[SYS_FILE_LINE_SIZE] = "";

    const int32_t Result = _OV_RTCIfGetSysFilePath(Type, IfName, Path, sizeof(Path));
    if (Result != 0) {
        OV_LOG_ERROR("get sys file path error(type: %d)", Type);
        return Result;
    }
    const STREAM_SCOPE File(fopen(Path, "re"));
    if (!File) {
        OV_LOG_ERROR("open file %s error(%d: %s)", Path, errno, strerror(errno));
        return -ENXIO;
    }
    /* A link that is down has a file for its speed that cannot be read. */
    if (fgets(Line, sizeof(Line), File.get()) == nullptr || Line[0] == '\0') {
        OV_LOG_ERROR("read empty string from(%s)", Path);
        return -EBADF;
    }
    if (OutStr != nullptr) {
        const size_t Length = strlen(Line);

        if (Line[Length - 1] == '\n') {
            Line[Length - 1] = '\0';
        }
        OV_SafeStrCopy(OutStr, Size, Line);
    }
    return 0;
}

int32_t _OV_RTCIfGetCurAutoGeno(const char *IfName, char *OutStr, size_t Size)
{
    char Command[COMMAND_SIZE];
    char Output[ETHTOOL_OUTPUT_SIZE] = "";
    char Word[WORD_SIZE] = "";

    if (!_OV_RTCIsGiven(IfName) ||
        !_OV_RTCCompose(Command, sizeof(Command) - 1, "ethtool %s |grep \"Auto-negotiation:\"",
                        IfName)) {
        return -ESRCH;
    }
    if (OV_RTCExecCmd(Command, Output, sizeof(Output)) == 0) {
        return -EAGAIN;
    }
    const char *Value = OV_SafeStrGetStr(Output, Word, sizeof(Word)); /* "Auto-negotiation:" */
    if (Value == nullptr || OV_SafeStrGetStr(Value, Word, sizeof(Word)) == nullptr) {
        return -EAGAIN;
    }
    if (OutStr != nullptr) {
        OV_SafeStrCopy(OutStr, Size, Word);
    }
    return 0;
}

int32_t _OV_RTCIfGetCurTxQueueLen(const char *IfName, char *OutStr, size_t Size)
{
    static constexpr char Label[] = "txqueuelen";
    char Command[COMMAND_SIZE];
    char Output[IFCONFIG_OUTPUT_SIZE] = "";
    char Word[WORD_SIZE] = "";

    if (!_OV_RTCIsGiven(IfName) ||
        !_OV_RTCCompose(Command, sizeof(Command) - 1, "ifconfig %s |grep \"txqueuelen\"", IfName)) {
        return -ESRCH;
    }
    if (OV_RTCExecCmd(Command, Output, sizeof(Output)) == 0) {
        return -EAGAIN;
    }
    const char *Found = strstr(Output, Label);
    if (Found == nullptr ||
        OV_SafeStrGetStr(Found + strlen(Label), Word, sizeof(Word)) == nullptr) {
        return -EAGAIN;
    }
    if (OutStr != nullptr && OV_SafeStrCopy(OutStr, Size, Word) == Size) {
        return -EINVAL;
    }
    return 0;
}

int32_t _OV_RTCIfGetCurConfig(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *OutStr,
                              size_t Size)
{
    switch (Type) {
    case OV_RTC_L2_CONF_TYPE_AUTO_NEGO:
        return _OV_RTCIfGetCurAutoGeno(IfName, OutStr, Size);
    case OV_RTC_L2_CONF_TYPE_TXQUEUE_LEN:
        return _OV_RTCIfGetCurTxQueueLen(IfName, OutStr, Size);
    default:
        return _OV_RTCIfGetCurConfigFromSysFile(Type, IfName, OutStr, Size);
    }
}
