#include "linuxRtcInterface.h"

#include "linuxRtc.h"
#include "linuxRtcInterfaceInternal.h"
#include "linuxRtcNetwork.h"
#include "linuxRtcShellInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <errno.h>
#include <string.h>

static constexpr size_t SYS_FILE_PATH_SIZE = 64;
static constexpr size_t READER_COMMAND_SIZE = 48;
static constexpr size_t WORD_SIZE = 48;
static constexpr size_t SYS_FILE_LINE_SIZE = 48;
static constexpr size_t ETHTOOL_OUTPUT_SIZE = 48;
static constexpr size_t IFCONFIG_OUTPUT_SIZE = 64;
static constexpr size_t PPPOE_OPTIONS_SIZE = 128;

/* A path or command that fills its buffer to the last character is taken for one that was cut. */
int32_t _OV_RTCIfGetSysFilePath(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *SysFilePath,
                                size_t Size)
{
    static constexpr const char *Names[] = {"mtu", "speed", "duplex"};

    if (static_cast<size_t>(Type) >= std::size(Names)) {
        return -EINTR;
    }
    const bool IsWhole =
        IfName != nullptr && SysFilePath != nullptr && Size > 0 &&
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
    char Command[READER_COMMAND_SIZE];
    char Output[ETHTOOL_OUTPUT_SIZE] = "";
    char Word[WORD_SIZE] = "";

    if (IfName == nullptr || !_OV_RTCCompose(Command, sizeof(Command) - 1,
                                             "ethtool %s |grep \"Auto-negotiation:\"", IfName)) {
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
    char Command[READER_COMMAND_SIZE];
    char Output[IFCONFIG_OUTPUT_SIZE] = "";
    char Word[WORD_SIZE] = "";

    if (IfName == nullptr ||
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

/* The interface's line stands there twice on purpose: installed peers files have it so. */
static OV_ERR_T _ComposePppoeOptions(const OV_RTC_INTF_CONFIG *IntfConf,
                                     char (&Options)[PPPOE_OPTIONS_SIZE])
{
    const FIELD_TEXT User(IntfConf->Pppoe.PppoeUser);
    const FIELD_TEXT Password(IntfConf->Pppoe.PppoePasswd);

    if (!_OV_RTCCompose(Options, sizeof(Options), "password %s\nuser %s\n%s\n%s\n", Password.Text,
                        User.Text, IntfConf->IfName, IntfConf->IfName)) {
        OV_LOG_ERROR("pppoe options is overflow");
        return -EOVERFLOW;
    }
    return 0;
}

static OV_ERR_T _StartPppoe(const OV_RTC_INTF_CONFIG *IntfConf)
{
    char Options[PPPOE_OPTIONS_SIZE] = "";

    OV_ERR_T Result = _ComposePppoeOptions(IntfConf, Options);
    if (Result != 0) {
        return Result;
    }
    Result = rtc_if_pppoe_set(Options, IntfConf->IfName);
    if (Result < 0) {
        OV_LOG_ERROR("pppoe options set failed(%d:%s)", -Result, strerror(-Result));
        return Result;
    }
    Result = rtc_if_pppoe_start(IntfConf->IfName);
    if (Result < 0) {
        OV_LOG_ERROR("Start pppd failed(%d:%s)", -Result, strerror(-Result));
    }
    return Result;
}

static OV_ERR_T _StopPppoe(const char *IfName)
{
    const OV_ERR_T Result = OV_StopPPPDProcess(IfName);
    if (Result < 0) {
        OV_LOG_ERROR("Stop pppd failed(%d:%s)", -Result, strerror(-Result));
    }
    return Result;
}

static OV_ERR_T _SetStatic(const char *IfName, const OV_RTC_INTF_CONFIG_STATIC *Static)
{
    OV_ERR_T Result = 0;

    if (Static->IpMulti.IpCnt != 0) {
        Result = _OV_RTCIntfSetIPMul(IfName, &Static->IpMulti);
        if (Result < 0) {
            OV_LOG_ERROR("Set ipv4 addr failed(%d:%s)", -Result, strerror(-Result));
            return Result;
        }
    }
    if (Static->Ip6Multi.IpCnt != 0) {
        Result = _OV_RTCIntfSetIP6Mul(IfName, &Static->Ip6Multi);
        if (Result < 0) {
            OV_LOG_ERROR("Set ipv6 addr failed(%d:%s)", -Result, strerror(-Result));
        }
    }
    return Result;
}

static OV_ERR_T _FlushStatic(const char *IfName)
{
    OV_ERR_T Result = rtc_if_flush_ip(IfName);
    if (Result < 0) {
        OV_LOG_ERROR("Flush ipv4 addr for %s failed", IfName);
        return Result;
    }
    Result = OV_RTCIntfFlushIpv6Addr(IfName);
    if (Result < 0) {
        OV_LOG_ERROR("Flush ipv6 addr for %s failed", IfName);
    }
    return Result;
}

OV_ERR_T OV_RTCIntfConfig(const OV_RTC_INTF_CONFIG *IntfConf)
{
    if (IntfConf == nullptr) {
        OV_LOG_ERROR("input config is null");
        return -EINVAL;
    }
    if (memchr(IntfConf->IfName, '\0', sizeof(IntfConf->IfName)) == nullptr) {
        OV_LOG_ERROR("input interface name has no end");
        return -EINVAL;
    }

    const char *IfName = IntfConf->IfName;
    const bool IsOn = IntfConf->Enable != 0;
    const int Value = static_cast<int>(IntfConf->Val);

    switch (IntfConf->Type) {
    case OV_RTC_INTF_TYPE_ENABLE:
        return IsOn ? rtc_if_up(IfName) : rtc_if_down(IfName);
    case OV_RTC_INTF_TYPE_DHCP:
        return IsOn ? rtc_if_dhcpclient_enable(IfName) : rtc_if_dhcpclient_disable(IfName);
    case OV_RTC_INTF_TYPE_PPPOE:
        return IsOn ? _StartPppoe(IntfConf) : _StopPppoe(IfName);
    case OV_RTC_INTF_TYPE_STATIC:
        return IsOn ? _SetStatic(IfName, &IntfConf->Static) : _FlushStatic(IfName);
    case OV_RTC_INTF_TYPE_LTE:
        return OV_RTCEcm4GConfig(IfName, &IntfConf->Lte, IntfConf->Enable);
    case OV_RTC_INTF_TYPE_PROXY_ARP:
        return IsOn ? rtc_net_arpproxy_enable(IfName) : rtc_net_arpproxy_disable(IfName);
    case OV_RTC_INTF_TYPE_MTU:
        return rtc_if_set_mtu(IfName, Value);
    case OV_RTC_INTF_TYPE_SPEED:
        return rtc_if_set_speed(IfName, Value);
    case OV_RTC_INTF_TYPE_DUPLEX:
        return rtc_if_set_mode(IfName, Value);
    case OV_RTC_INTF_TYPE_AUTONEG:
        return rtc_if_set_nego(IfName, Value);
    case OV_RTC_INTF_TYPE_MAC:
        return rtc_if_set_mac(IfName, FIELD_TEXT(IntfConf->Str).Text);
    default:
        return -EINVAL;
    }
}
