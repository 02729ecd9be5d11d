#include "linuxRtcNetwork.h"

#include "linuxRtc.h"
#include "linuxRtcBypass.h"
#include "linuxRtcBypassInternal.h"
#include "linuxRtcInterfaceLink.h"
#include "linuxRtcInternal.h"
#include "linuxRtcNetworkInternal.h"
#include "linuxRtcShellInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneRtcIpRule.h"
#include "orvaneSafeStr.h"

#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* A command line of 511 characters counts as cut in this module. */
static constexpr size_t COMMAND_ROOM = RTC_COMMAND_SIZE - 1;
#define RUN(Format, ...) RTC_RUN_WITHIN(COMMAND_ROOM, -1, Format, ##__VA_ARGS__)

static constexpr int MAIN_TABLE = 254;
static constexpr int MAIN_TABLE_PRIORITY = 50;
static constexpr int DEFAULT_TABLE = 253;
static constexpr int DEFAULT_TABLE_PRIORITY = 240;

static constexpr char BONDING_MASTERS[] = "/sys/class/net/bonding_masters";
static constexpr size_t BOND_PORTS_SIZE = 8;

static constexpr uint32_t BRIDGE_TX_QUEUE_LENGTH = 4000;
static constexpr size_t PORT_LIST_SIZE = 512;
static constexpr size_t PORT_NAME_SIZE = 32;

static OV_RTC_IP_RULE_CONF _RuleOf(int Prio, int Table, OV_IN_ADDR_TYPE IpType)
{
    return {IpType, static_cast<uint16_t>(Prio), static_cast<uint32_t>(Table), {}};
}

static const char *_IpCommandOf(OV_IN_ADDR_TYPE IpType)
{
    return IpType == OV_IN_ADDR_TYPE_IPV6 ? "ip -6" : "ip";
}

static const char *_Outcome(int32_t Result)
{
    return Result != 0 ? "failed" : "success";
}

int32_t OV_RTCNetAddIpRule(const int Prio, const int Table, OV_IN_ADDR_TYPE IpType)
{
    const OV_RTC_IP_RULE_CONF Rule = _RuleOf(Prio, Table, IpType);

    const int32_t Result = OV_RTCIpRuleAdd(&Rule);
    OV_LOG_INFO("%s rule add prio %d table %d %s ret=%d", _IpCommandOf(IpType), Prio, Table,
                _Outcome(Result), Result);
    return Result;
}

int32_t OV_RTCNetDelIpRule(const int Prio, OV_IN_ADDR_TYPE IpType)
{
    const OV_RTC_IP_RULE_CONF Rule = _RuleOf(Prio, 0, IpType);

    const int32_t Result = OV_RTCIpRuleDel(&Rule);
    OV_LOG_INFO("%s rule del prio %d %s ret=%d", _IpCommandOf(IpType), Prio, _Outcome(Result),
                Result);
    return Result;
}

/* The deletion takes the rule of an earlier start away. */
static void _PlaceTable(int Prio, int Table)
{
    OV_RTCNetDelIpRule(Prio, OV_IN_ADDR_TYPE_IPV4);
    OV_RTCNetDelIpRule(Prio, OV_IN_ADDR_TYPE_IPV6);
    OV_RTCNetAddIpRule(Prio, Table, OV_IN_ADDR_TYPE_IPV4);
    OV_RTCNetAddIpRule(Prio, Table, OV_IN_ADDR_TYPE_IPV6);
}

void OV_RTCNetIpRuleOrderInit(void)
{
    _PlaceTable(MAIN_TABLE_PRIORITY, MAIN_TABLE);
    _PlaceTable(DEFAULT_TABLE_PRIORITY, DEFAULT_TABLE);
}

int rtc_net_set_dns(char *resolv)
{
    char Command[RTC_COMMAND_SIZE];
    char *const End = Command + sizeof(Command);
    char *Rest = nullptr;

    if (resolv == nullptr) {
        return -1;
    }
    char *Next = OV_SEPrintf(Command, End, "echo -e \"");
    for (const char *Server = strtok_r(resolv, " ", &Rest); Server != nullptr;
         Server = strtok_r(nullptr, " ", &Rest)) {
        Next = OV_SEPrintf(Next, End, "nameserver %s\n", Server);
    }
    Next = OV_SEPrintf(Next, End, "\" > %s", "/etc/resolv.conf");
    /* A full buffer may be a cut one. */
    return Next < End - 1 ? OV_RTCSystem(Command) : -1;
}

int rtc_net_arp_add(const char *ip, const char *mac)
{
    return RUN("arp -s %s %s", ip, mac);
}

int rtc_net_arp_del(const char *ip)
{
    return RUN("arp -d %s", ip);
}

int rtc_net_arpproxy_enable(const char *ifname)
{
    return RUN("echo 1 > /proc/sys/net/ipv4/conf/%s/proxy_arp", ifname);
}

int rtc_net_arpproxy_disable(const char *ifname)
{
    return RUN("echo 0 > /proc/sys/net/ipv4/conf/%s/proxy_arp", ifname);
}

int rtc_net_bond_load_module(void)
{
    return access(BONDING_MASTERS, F_OK) == 0 ? 0 : RUN("modprobe bonding max_bonds=0");
}

/* A question is no action: it is not in the log. */
static int _IsSo(const char *Command)
{
    const int Status = _OV_RTCRunShell(Command);
    return Status != -1 && WIFEXITED(Status) && WEXITSTATUS(Status) == 0;
}

int rtc_net_bond_if_exist(const char *ifname)
{
    char Command[RTC_COMMAND_SIZE];

    return ifname != nullptr &&
           _OV_RTCCompose(Command, COMMAND_ROOM,
                          "cat /sys/class/net/bonding_masters|grep -w %s >/dev/null", ifname) &&
           _IsSo(Command);
}

int rtc_net_bond_add(const char *ifname)
{
    return RUN("echo +%s > /sys/class/net/bonding_masters", ifname);
}

int rtc_net_bond_del(const char *ifname)
{
    return RUN("echo -%s > /sys/class/net/bonding_masters", ifname);
}

int rtc_net_bond_add_port(const char *ifname, const char *slave)
{
    return RUN("echo +%s > /sys/class/net/%s/bonding/slaves", slave, ifname);
}

int rtc_net_bond_del_port(const char *ifname, const char *slave)
{
    return RUN("echo -%s > /sys/class/net/%s/bonding/slaves", slave, ifname);
}

int rtc_net_bonf_get_allports(const char *ifname, char *buf, size_t)
{
    char Command[RTC_COMMAND_SIZE];

    if (!_OV_RTCIsGiven(ifname) || buf == nullptr ||
        !_OV_RTCCompose(Command, COMMAND_ROOM, "cat /sys/class/net/%s/bonding/slaves", ifname)) {
        return -1;
    }
    return OV_RTCExecCmd(Command, buf, BOND_PORTS_SIZE);
}

int rtc_net_bond_port_if_exist(const char *ifname, const char *slave)
{
    char Command[RTC_COMMAND_SIZE];

    return _OV_RTCIsGiven(ifname, slave) &&
           _OV_RTCCompose(Command, COMMAND_ROOM, "cat /sys/class/net/%s/bonding/slaves|grep -w %s",
                          ifname, slave) &&
           _IsSo(Command);
}

int rtc_net_bond_alg_set(const char *ifname, int mode)
{
    return RUN("echo %d > /sys/class/net/%s/bonding/mode", mode, ifname);
}

int rtc_net_br_stp_set(const char *brname, int on)
{
    return RUN("/usr/sbin/brctl stp %s %s", brname, on != 0 ? "on" : "off");
}

int rtc_net_arp_get(void)
{
    return 0;
}

int rtc_net_arpproxy_get(void)
{
    return 0;
}

int rtc_net_bond_set(void)
{
    return 0;
}

int rtc_net_bond_set_port(void)
{
    return 0;
}

int rtc_net_bond_del_allport(const char *)
{
    return 0;
}

int rtc_net_br_set(void)
{
    return 0;
}

int rtc_net_br_set_port(void)
{
    return 0;
}

/* Composes a bridge's command line: 0, or the operation's result when there is none to run. */
#define COMPOSE_FOR_BRIDGE(Command, Format, ...)                                                  \
    (!_OV_RTCIsGiven(__VA_ARGS__)                                   ? -OV_RTC_ERROR_INVALID_PARAM \
     : _OV_RTCCompose(Command, COMMAND_ROOM, Format, ##__VA_ARGS__) ? 0                           \
                                                                    : -OV_RTC_ERROR_BUFF_OVERFLOW)
#define LOG_IF_CUT(Composed)                             \
    do {                                                 \
        if ((Composed) == -OV_RTC_ERROR_BUFF_OVERFLOW) { \
            OV_LOG_ERROR("buff overflow ");              \
        }                                                \
    } while (0)

static bool _IsLongQueueBoard(int32_t Platform)
{
    return Platform == RTC_PLATFORM_HUIER_H61 || Platform == RTC_PLATFORM_LIHUA_8865 ||
           Platform == RTC_PLATFORM_LIHUA_8895;
}

int32_t OV_RTCBridgeAdd(const char *BrIfName)
{
    char Command[RTC_COMMAND_SIZE];

    const int32_t Composed = COMPOSE_FOR_BRIDGE(Command, "brctl addbr %s", BrIfName);
    if (Composed != 0) {
        LOG_IF_CUT(Composed);
        return Composed;
    }
    const int32_t Result = OV_RTCSystem(Command);
    rtc_if_up(BrIfName);
    if (_IsLongQueueBoard(OV_RTCBypassPlatFormGet())) {
        OV_RTCIfTxQueueLenSet(BrIfName, BRIDGE_TX_QUEUE_LENGTH);
    }
    return Result;
}

int32_t OV_RTCBridgeDel(const char *BrIfName)
{
    char Command[RTC_COMMAND_SIZE];

    const int32_t Composed = COMPOSE_FOR_BRIDGE(Command, "brctl delbr %s", BrIfName);
    if (Composed != 0) {
        LOG_IF_CUT(Composed);
        return Composed;
    }
    OV_RTCBridgePortFlush(BrIfName);
    rtc_if_down(BrIfName);
    return OV_RTCSystem(Command);
}

int32_t _OV_RTCBridgePortGetAll(const char *BrIfName, char *PortIfStr, size_t PortIfStrSize)
{
    char Command[RTC_COMMAND_SIZE];

    if (PortIfStr == nullptr) {
        return -OV_RTC_ERROR_INVALID_PARAM;
    }
    const int32_t Composed =
        COMPOSE_FOR_BRIDGE(Command,
                           "brctl show %s 2>/dev/null |awk '{if (NR == 2) {printf(\"%%s \", $4)} "
                           "else if (NR > 2) {printf(\"%%s \", $1)}}'",
                           BrIfName);
    if (Composed != 0) {
        LOG_IF_CUT(Composed);
        return Composed;
    }
    if (OV_RTCExecCmd(Command, PortIfStr, PortIfStrSize) < 0) {
        OV_LOG_ERROR("output out size");
        return -OV_RTC_ERROR_BUFF_PARSE;
    }
    return 0;
}

/* The port's address goes first: a port of a bridge has none of its own. */
int32_t OV_RTCBridgePortAdd(const char *BrIfName, const char *PortIfName)
{
    char Strip[RTC_COMMAND_SIZE];
    char Command[RTC_COMMAND_SIZE];

    int32_t Composed = COMPOSE_FOR_BRIDGE(Strip, "ifconfig %s 0.0.0.0", PortIfName);
    if (Composed == 0) {
        Composed = COMPOSE_FOR_BRIDGE(Command, "brctl addif %s %s", BrIfName, PortIfName);
    }
    if (Composed != 0) {
        LOG_IF_CUT(Composed);
        return Composed;
    }
    OV_RTCSystem(Strip);
    return OV_RTCSystem(Command);
}

int32_t OV_RTCBridgePortDel(const char *BrIfName, const char *PortIfName)
{
    char Command[RTC_COMMAND_SIZE];

    const int32_t Composed = COMPOSE_FOR_BRIDGE(Command, "brctl delif %s %s", BrIfName, PortIfName);
    if (Composed != 0) {
        LOG_IF_CUT(Composed);
        return Composed;
    }
    return OV_RTCSystem(Command);
}

int32_t OV_RTCBridgePortFlush(const char *BrIfName)
{
    char List[PORT_LIST_SIZE] = "";
    char Port[PORT_NAME_SIZE];

    if (!_OV_RTCIsGiven(BrIfName)) {
        return -OV_RTC_ERROR_INVALID_PARAM;
    }
    if (_OV_RTCBridgePortGetAll(BrIfName, List, sizeof(List)) < 0) {
        return -OV_RTC_ERROR_BUFF_PARSE;
    }
    for (const char *Next = List; (Next = OV_SafeStrGetStr(Next, Port, sizeof(Port))) != nullptr;) {
        OV_RTCBridgePortDel(BrIfName, Port);
    }
    return 0;
}
