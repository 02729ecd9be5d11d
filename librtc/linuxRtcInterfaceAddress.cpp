#include "linuxRtcInterfaceAddress.h"

#include "linuxRtc.h"
#include "linuxRtcInterfaceInternal.h"
#include "linuxRtcShellInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <algorithm>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static constexpr uint8_t IP4_HOST_PREFIX = 32;
static constexpr uint8_t IP6_HOST_PREFIX = 128;
static constexpr size_t IP6_TEXT_SIZE = 50;
static constexpr size_t PPPD_COMMAND_SIZE = 256;
static constexpr size_t LINK_COMMAND_SIZE = 128;
static constexpr size_t LINK_NAME_SIZE = 24;
static constexpr size_t HOOK_PATH_SIZE = 512;
static constexpr size_t PROCESS_LIST_SIZE = 256;
static constexpr size_t UNIT_POSITION = 3; /* of the unit's number in an interface's name */

#define HOOK_PATH "/etc/ppp//ip-up.local.%s"
#define DHCP_CLIENT "/sbin/dhclient"

/* The unit, the options of the session, the interface. */
static constexpr char PEERS_COMMAND[] = "echo \"plugin rp-pppoe.so\n"
                                        "persist\n"
                                        "holdoff 5\n"
                                        "usepeerdns\n"
                                        "maxfail 0\n"
                                        "unit %d\n"
                                        "%snoauth\" > /etc/ppp/peers/%s";

/* pppd runs it with the link as $1, the device below as $2, the local address as $4 and the peer as
 * $5. A line of the file is a line here. */
// clang-format off
static constexpr char IP_UP_HOOK[] =
    "#!/bin/sh\n"
    "[[ \"$2\" == \"%s\" ]] && {\n"
    "          interface=$1\n"
    " \t    ipaddr=$4\n"
    "         gateway=$5\n"
    "         type=RouteUpdate\n"
    "         empty=0.0.0.0\n"
    "         /bin/corsin/msg-fifo.sh $type ${interface} ${gateway} ${ipaddr} 32 pppoe ${DNS1:-$empty} ${DNS2:-$empty}\n"
    "         }";
// clang-format on

/* A prefix length that no address has leaves no bit of the network. */
static uint32_t _BroadcastOf(uint32_t Ip, uint8_t Mask)
{
    const auto HostBits = static_cast<uint8_t>(IP4_HOST_PREFIX - Mask);

    return HostBits >= IP4_HOST_PREFIX ? UINT32_MAX : Ip | ((1U << HostBits) - 1);
}

int rtc_if_set_ip(const char *IfName, uint32_t Ip, uint8_t Mask)
{
    return RTC_RUN("ip addr replace %s/%d dev %s broadcast %s", _OV_RTCIp4Text(Ip).Text, Mask,
                   IfName, _OV_RTCIp4Text(_BroadcastOf(Ip, Mask)).Text);
}

OV_ERR_T OV_RTCIntfDelIP(const char *IfName, uint32_t Ip, uint8_t Mask)
{
    if (Ip == 0) {
        return -1;
    }
    return RTC_RUN("ip addr del %s/%d dev %s", _OV_RTCIp4Text(Ip).Text, Mask, IfName);
}

OV_ERR_T _OV_RTCIntfSetIPMul(const char *IfName, const OV_CONF_IPMULTI *IpMulti)
{
    if (IpMulti->IpCnt > OV_CONF_IP_MAX) {
        return -EINVAL;
    }
    for (uint8_t Index = 0; Index < IpMulti->IpCnt; Index++) {
        const uint32_t Ip = IpMulti->Ip[Index];
        const uint8_t Mask = IpMulti->Mask[Index] != 0 ? IpMulti->Mask[Index] : IP4_HOST_PREFIX;

        const OV_ERR_T Result = rtc_if_set_ip(IfName, Ip, Mask);
        if (Result < 0) {
            OV_LOG_ERROR("Set interface %s %s/%u failed(%d:%s)", IfName, _OV_RTCIp4Text(Ip).Text,
                         Mask, -Result, strerror(-Result));
            return Result;
        }
    }
    return 0;
}

OV_ERR_T _OV_RTCIntfSetIpv6Addr(const char *IfName, const OV_IN6_ADDR *Ip6, uint32_t Mask)
{
    char Text[IP6_TEXT_SIZE] = "";

    const size_t Length = Ip6 == nullptr ? 0 : OV_SafeStrFormatIp6Addr(Text, sizeof(Text), Ip6);
    if (Length == 0 || Length >= sizeof(Text)) {
        OV_LOG_ERROR("trans ipv6 to string failed");
        return -EINVAL;
    }
    const OV_ERR_T Result = RTC_RUN_WITHIN(RTC_COMMAND_SIZE, -EOVERFLOW,
                                           "ip -6 addr replace %s/%u dev %s", Text, Mask, IfName);
    if (Result == -EOVERFLOW) {
        OV_LOG_ERROR("Set ipv6 addr cmd is overflow");
    } else if (Result < 0) {
        OV_LOG_ERROR("Set interface %s ipv6 addr %s/%u failed", IfName, Text, Mask);
    }
    return Result;
}

OV_ERR_T _OV_RTCIntfSetIP6Mul(const char *IfName, const OV_CONF_IP6MULTI *Ip6Multi)
{
    if (Ip6Multi->IpCnt > OV_CONF_IP_MAX) {
        return -EINVAL;
    }
    for (uint8_t Index = 0; Index < Ip6Multi->IpCnt; Index++) {
        const uint8_t Mask = Ip6Multi->Mask[Index] != 0 ? Ip6Multi->Mask[Index] : IP6_HOST_PREFIX;

        const OV_ERR_T Result = _OV_RTCIntfSetIpv6Addr(IfName, &Ip6Multi->Ip[Index], Mask);
        if (Result < 0) {
            return Result;
        }
    }
    return 0;
}

int rtc_if_flush_ip(const char *IfName)
{
    return RTC_RUN("ip addr flush dev %s", IfName);
}

OV_ERR_T OV_RTCIntfFlushIpv6Addr(const char *IfName)
{
    return RTC_RUN("ip -6 addr flush dev %s", IfName);
}

int rtc_if_set_method(const char *)
{
    return 0;
}

/* What stands behind the first three characters of a name; nothing in a shorter one. */
static const char *_UnitText(const char *IfName)
{
    return IfName + strnlen(IfName, UNIT_POSITION);
}

int rtc_if_pppoe_set(const char *Options, const char *IfName)
{
    int32_t Unit = 0;

    if (Options == nullptr || !_OV_RTCIsGiven(IfName)) {
        return -1;
    }
    OV_SafeStrGetI32(_UnitText(IfName), 10, &Unit);
    return _OV_RTCRun(RTC_COMMAND_SIZE, -1, PEERS_COMMAND, static_cast<uint8_t>(Unit), Options,
                      IfName);
}

static int _create_script4ipup(const char *IfName)
{
    const CANCEL_SCOPE Whole; /* the file is ours until it is closed */
    char Path[HOOK_PATH_SIZE];

    if (!_OV_RTCCompose(Path, sizeof(Path), HOOK_PATH, IfName)) {
        return -1;
    }
    FILE *File = fopen(Path, "we");
    if (File == nullptr) {
        OV_LOG_DEBUG("Can't open %s", Path);
        return -1;
    }
    fprintf(File, IP_UP_HOOK, IfName);
    return _OV_RTCCloseText(File, Path, RTC_HOOK_ARMED);
}

/* A link that comes up late is not reported any more. */
static void _remove_execute_bit(const char *IfName)
{
    char Path[HOOK_PATH_SIZE];

    if (_OV_RTCCompose(Path, sizeof(Path), HOOK_PATH, IfName)) {
        chmod(Path, RTC_HOOK_DISARMED);
    }
}

int rtc_if_pppoe_start(const char *IfName)
{
    if (!_OV_RTCIsGiven(IfName)) {
        return -1;
    }
    OV_StopPPPDProcess(IfName);
    _create_script4ipup(IfName);
    return RTC_RUN_WITHIN(PPPD_COMMAND_SIZE, -1, "pppd call %s &", IfName);
}

int OV_StopPPPDProcess(const char *IfName)
{
    char Process[PPPD_COMMAND_SIZE];

    if (!_OV_RTCIsGiven(IfName)) {
        return -1;
    }
    _remove_execute_bit(IfName);
    if (!_OV_RTCCompose(Process, sizeof(Process), "pppd call %s", IfName)) {
        return -1;
    }
    const int Found = _OV_RTCFindProcess(PPPD_COMMAND_SIZE, -EOVERFLOW, Process);
    if (Found != 0) {
        return Found == -EOVERFLOW ? -1 : 0;
    }
    return RTC_RUN_WITHIN(PPPD_COMMAND_SIZE, -1, "pkill -9 -f \"%s\"", Process);
}

int rtc_is_inf_pppoe(const char *IfName)
{
    char Link[LINK_NAME_SIZE] = "ppp";
    char Command[LINK_COMMAND_SIZE];

    if (IfName == nullptr) {
        return -1;
    }
    /* The bound is that of the appended part and cuts the name. Callers live with the answers. */
    const char *Unit = _UnitText(IfName);
    OV_SafeStrCat(Link, std::min(strlen(Unit), sizeof(Link)), Unit);
    _OV_RTCCompose(Command, sizeof(Command), "ip addr show %s 2>/dev/null", Link);
    return OV_RTCSystem(Command);
}

int rtc_if_dhcpclient_enable(const char *IfName)
{
    rtc_if_dhcpclient_disable(IfName);
    return RTC_RUN("%s %s %s", DHCP_CLIENT, IfName, "--no-pid -nw");
}

/* The number of a process in a list of ps, or 0: what the tools print in its place when one of them
 * is missing must not be killed, nor may 0 (this process group) or 1. */
static pid_t _ProcessOf(const char *Token, const char *End)
{
    int64_t Process = 0;

    if (Token == End || !std::all_of(Token, End, [](char C) { return C >= '0' && C <= '9'; })) {
        return 0;
    }
    OV_SafeStrGetI64(Token, 10, &Process);
    return Process > 1 && Process <= INT32_MAX ? static_cast<pid_t>(Process) : 0;
}

int rtc_if_dhcpclient_disable(const char *IfName)
{
    char Command[RTC_COMMAND_SIZE];
    char List[PROCESS_LIST_SIZE] = "";
    int Result = 0;

    if (!_OV_RTCIsGiven(IfName) ||
        !_OV_RTCCompose(Command, sizeof(Command),
                        "ps aux |grep \"%s %s\" |                 grep -v grep |"
                        "awk '{printf \"%%s \", $2}'",
                        DHCP_CLIENT, IfName)) {
        return -1;
    }
    OV_RTCExecCmd(Command, List, sizeof(List));

    const char *Token = List;
    for (const char *Blank; (Blank = strchr(Token, ' ')) != nullptr; Token = Blank + 1) {
        const pid_t Process = _ProcessOf(Token, Blank);
        if (Process != 0) {
            Result |= kill(Process, SIGKILL);
        }
    }
    return Result;
}
