#include "linuxRtcInterfaceLink.h"

#include "linuxRtcInterfaceInternal.h"
#include "linuxRtcInterfaceSteering.h"
#include "linuxRtcShellInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"

#include <errno.h>
#include <string.h>

static constexpr size_t VALUE_SIZE = 128;
static constexpr size_t DUPLEX_AND_SPEED_VALUE_SIZE = 32;
static constexpr size_t DUPLEX_AND_SPEED_ROOM = 63;
static constexpr size_t NAME_SIZE = 16; /* of an interface, with the NUL */

static const char *_OnOrOff(int IsOn)
{
    return IsOn != 0 ? "on" : "off";
}

static const char *_FullOrHalf(int IsFull)
{
    return IsFull != 0 ? "full" : "half";
}

/* The NUL takes part, so a longer word is another one. */
static bool _IsWord(const char *Text, const char *Word)
{
    return OV_SafeStrCaseCmp(Text, Word, strlen(Word) + 1) == 0;
}

/* Whether the setting can be read and is the number, or the word. Text that is no number is 0. */
static bool _IsPresent(OV_RTC_L2_CONF_TYPE Type, const char *IfName, int Number)
{
    char Value[VALUE_SIZE] = "";
    int32_t Present = 0;

    if (_OV_RTCIfGetCurConfig(Type, IfName, Value, sizeof(Value)) != 0) {
        return false;
    }
    OV_SafeStrGetI32(Value, 10, &Present);
    return Present == Number;
}

static bool _IsPresent(OV_RTC_L2_CONF_TYPE Type, const char *IfName, const char *Word)
{
    char Value[VALUE_SIZE] = "";

    return _OV_RTCIfGetCurConfig(Type, IfName, Value, sizeof(Value)) == 0 && _IsWord(Value, Word);
}

int rtc_if_up(const char *ifname)
{
    const int Result = RTC_RUN("ifconfig %s up", ifname);
    if (Result == 0 && OV_RTCIfFdirRssEnableRssOneInterface(ifname) != 0) {
        OV_LOG_WARN("Enable RSS on %s, failed", ifname);
    }
    return Result;
}

int rtc_if_down(const char *ifname)
{
    return RTC_RUN("ifconfig %s down", ifname);
}

int rtc_if_set_mac(const char *ifname, const char *mac)
{
    if (mac != nullptr && mac[0] == '\0') {
        OV_LOG_DEBUG("strlen(mac)=%d ", 0);
        return 0;
    }
    return RTC_RUN("ifconfig %s hw ether %s", ifname, mac);
}

OV_ERR_T _OV_RTCSetIntfMtu(const char *Ifname, int32_t Mtu)
{
    if (Ifname == nullptr || strnlen(Ifname, NAME_SIZE) == NAME_SIZE || Mtu < 0) {
        OV_LOG_ERROR("Config Mtu error, param invalid (ifname:%s mtu %d)",
                     Ifname == nullptr ? "(null)" : Ifname, Mtu);
        return -EINVAL;
    }
    if (_IsPresent(OV_RTC_L2_CONF_TYPE_MTU, Ifname, Mtu)) {
        OV_LOG_INFO("no need to set %s mtu %d", Ifname, Mtu);
        return 0;
    }
    return RTC_RUN("ifconfig %s mtu %d", Ifname, Mtu);
}

int rtc_if_set_mtu(const char *Ifname, int32_t Mtu)
{
    return _OV_RTCSetIntfMtu(Ifname, Mtu);
}

int rtc_if_set_speed(const char *ifname, int speed)
{
    if (_IsPresent(OV_RTC_L2_CONF_TYPE_SPEED, ifname, speed)) {
        OV_LOG_INFO("no need to set %s speed %d", ifname, speed);
        return 0;
    }
    return RTC_RUN("ethtool -s %s speed %d", ifname, speed);
}

int rtc_if_set_mode(const char *ifname, int duplex)
{
    if (_IsPresent(OV_RTC_L2_CONF_TYPE_DUPLEX, ifname, _FullOrHalf(duplex))) {
        OV_LOG_INFO("no need to set %s duplex %s", ifname, _FullOrHalf(duplex));
        return 0;
    }
    return RTC_RUN("ethtool -s %s  duplex %s", ifname, _FullOrHalf(duplex));
}

int rtc_if_set_nego(const char *ifname, int autoneg)
{
    if (_IsPresent(OV_RTC_L2_CONF_TYPE_AUTO_NEGO, ifname, _OnOrOff(autoneg))) {
        OV_LOG_INFO("no need to set %s auto-nego %s", ifname, _OnOrOff(autoneg));
        return 0;
    }
    return RTC_RUN("ethtool -s %s autoneg %s", ifname, _OnOrOff(autoneg));
}

OV_ERR_T OV_IntfSetDuplexAndSpeed(const char *Ifname, BOOL Duplex, uint32_t Speed)
{
    char DuplexText[DUPLEX_AND_SPEED_VALUE_SIZE] = "";
    char SpeedText[DUPLEX_AND_SPEED_VALUE_SIZE] = "";
    uint32_t PresentSpeed = 0;

    if (_OV_RTCIfGetCurConfig(OV_RTC_L2_CONF_TYPE_DUPLEX, Ifname, DuplexText, sizeof(DuplexText)) ==
            0 &&
        _OV_RTCIfGetCurConfig(OV_RTC_L2_CONF_TYPE_SPEED, Ifname, SpeedText, sizeof(SpeedText)) ==
            0) {
        if (OV_SafeStrGetU32(SpeedText, 10, &PresentSpeed) == nullptr) {
            OV_LOG_ERROR("Get U32 error SourceStr(%s)", SpeedText);
        } else if (PresentSpeed == Speed && _IsWord(DuplexText, _FullOrHalf(Duplex))) {
            OV_LOG_INFO("no need to set %s duplex %s, speed %u", Ifname, _FullOrHalf(Duplex),
                        Speed);
            return 0;
        }
    }

    const OV_ERR_T Result =
        RTC_RUN_WITHIN(DUPLEX_AND_SPEED_ROOM, -EFAULT, "ethtool -s %s speed %u duplex %s", Ifname,
                       Speed, _FullOrHalf(Duplex));
    if (Result == -EFAULT) {
        OV_LOG_ERROR("buf overflow for l2config speed & duplex");
    }
    return Result;
}

OV_ERR_T OV_RTCIfTxQueueLenSet(const char *IfName, uint32_t TxQueueLen)
{
    const int Length = static_cast<int>(TxQueueLen);

    if (IfName == nullptr || Length == 0) {
        return -1;
    }
    if (_IsPresent(OV_RTC_L2_CONF_TYPE_TXQUEUE_LEN, IfName, Length)) {
        OV_LOG_INFO("no need to set %s txqueuelen %d", IfName, Length);
        return 0;
    }
    return RTC_RUN("ifconfig %s txqueuelen %d", IfName, Length);
}

OV_ERR_T OV_RTCSetRxCheckSum(const char *IfName, BOOL Enable)
{
    const OV_ERR_T Result = RTC_RUN_WITHIN(
        RTC_COMMAND_SIZE, -EOVERFLOW, "ethtool -K %s rx-checksum %s", IfName, _OnOrOff(Enable));
    if (Result == -EOVERFLOW) {
        OV_LOG_ERROR("Set %s rx checksum cmd is overflow", IfName);
    }
    return Result;
}
