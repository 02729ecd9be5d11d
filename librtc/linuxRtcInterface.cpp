#include "linuxRtcInterface.h"

#include "linuxRtcInterfaceInternal.h"
#include "linuxRtcNetwork.h"
#include "linuxRtcShellInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneLibrtcLog.h"

#include <errno.h>
#include <string.h>

static constexpr size_t PPPOE_OPTIONS_SIZE = 128;

/* The interface's line stands there twice on purpose, and must stay so. */
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

    if (Static->IpMulti.IpCnt > OV_CONF_IP_MAX || Static->Ip6Multi.IpCnt > OV_CONF_IP_MAX) {
        OV_LOG_ERROR("too many addresses(IpCnt = %u and %u)", Static->IpMulti.IpCnt,
                     Static->Ip6Multi.IpCnt);
        return -EINVAL;
    }
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
