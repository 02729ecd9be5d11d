/* Network helpers and the cellular modem: rules in another order, a resolver file that cannot be
 * read, a neighbour, bond or bridge left as it was, a bridge deleted with ports in it, half a
 * command that runs, a file that pppd or the agent reads otherwise, a tool that is not killed. */
#include "linuxRtc4Gmodule.h"
#include "linuxRtcInterface.h"
#include "linuxRtcNetwork.h"
#include "linuxRtcNetworkInternal.h"
#include "testSupport.h"

/* "carrier number apn [interface] unit|enable" */
static std::string LteBy(int (*Function)(const char *, const OV_RTC_INTF_CONFIG_LTE *, int),
                         STRINGS Words)
{
    OV_RTC_INTF_CONFIG_LTE Conf = {STORY_WORD(Words[0]), {}, {}};

    Words[1].copy(Conf.DialNumber, sizeof(Conf.DialNumber));
    Words[2].copy(Conf.Apn, sizeof(Conf.Apn));
    const GUARDED_TEXT Record({reinterpret_cast<const char *>(&Conf), sizeof(Conf)});
    return std::to_string(Function("ppp3",
                                   reinterpret_cast<const OV_RTC_INTF_CONFIG_LTE *>(Record.Text()),
                                   STORY_WORD(Words[3])));
}

static std::string Script(STRINGS Words)
{
    return LteBy(OV_RTC4GmoduleCreateScript, Words);
}

static std::string Ecm(STRINGS Words)
{
    return LteBy(OV_RTCEcm4GConfig, Words);
}

/* Names into eight bytes, whatever the size says, and into that many. */
static std::string BondPorts(STRINGS Words)
{
    MARKED_BUFFER Out(8);
    const int Result = rtc_net_bonf_get_allports(STORY_WORD(Words[0]), Out.Text(), 64);

    EXPECT_TRUE(Out.EdgesIntact());
    return std::to_string(Result) + " " + Out.Text();
}

static std::string BridgePorts(STRINGS Words)
{
    MARKED_BUFFER Out{STORY_WORD(Words[1])};
    const int Result = _OV_RTCBridgePortGetAll(STORY_WORD(Words[0]), Out.Text(), Out.Size);

    EXPECT_TRUE(Out.EdgesIntact());
    return std::to_string(Result) + " " + Out.Text() + ".";
}

static std::string Call(const std::string &Line)
{
    static const STORY_CALL_MAP Calls =
        STORY_CALLS(Script, Ecm, BondPorts, BridgePorts, OV_RTCNetAddIpRule, OV_RTCNetDelIpRule,
                    OV_RTCNetIpRuleOrderInit, rtc_net_set_dns, rtc_net_arp_add, rtc_net_arp_del,
                    rtc_net_arpproxy_enable, rtc_net_arpproxy_disable, rtc_net_bond_load_module,
                    rtc_net_bond_if_exist, rtc_net_bond_add, rtc_net_bond_del,
                    rtc_net_bond_add_port, rtc_net_bond_del_port, rtc_net_bond_port_if_exist,
                    rtc_net_bond_alg_set, rtc_net_br_stp_set, rtc_net_arp_get, rtc_net_arpproxy_get,
                    rtc_net_bond_set, rtc_net_bond_set_port, rtc_net_br_set, rtc_net_br_set_port,
                    rtc_net_bond_del_allport, OV_RTCBridgeAdd, OV_RTCBridgeDel, OV_RTCBridgePortAdd,
                    OV_RTCBridgePortDel, OV_RTCBridgePortFlush, OV_RTC4GmoduleCreateOption,
                    OV_RTC4GmoduleEnable, OV_RTC4GmoduleDisable, OV_RTCEcmProcessDisable);
    return CallByName(Calls, Line);
}

static constexpr char STORY[] = R"(
$ ip rule add prio 240 table 7; ip -6 rule add prio 50 table 9; ip rule add prio 100 table 8
> OV_RTCNetIpRuleOrderInit = done
$ ip rule; ip -6 rule
0:	from all lookup local
50:	from all lookup main
100:	from all lookup 8
240:	from all lookup default
32766:	from all lookup main
32767:	from all lookup default
0:	from all lookup local
50:	from all lookup main
240:	from all lookup default
32766:	from all lookup main
> OV_RTCNetAddIpRule 7 70 1 ; OV_RTCNetAddIpRule 65543 70 1 ; OV_RTCNetDelIpRule 7 1 ; OV_RTCNetDelIpRule 7 1 = 0, -17, 0, -2
> rtc_net_set_dns "8.8.8.8  9.9.9.9" = 0 | echo -e "nameserver 8.8.8.8\nnameserver 9.9.9.9\n" > /etc/resolv.conf
$ cat -A /etc/resolv.conf
nameserver 8.8.8.8$
nameserver 9.9.9.9$
$
> rtc_net_set_dns "" ; rtc_net_set_dns = 0, -1 | echo -e "" > /etc/resolv.conf
$ cat -A /etc/resolv.conf
$
> rtc_net_arp_add 10.0.0.9 02:00:00:00:00:99 = 0 | arp -s 10.0.0.9 02:00:00:00:00:99
$ ip neigh
10.0.0.9 dev eth1 lladdr 02:00:00:00:00:99 PERMANENT 
> rtc_net_arp_del 10.0.0.9 ; rtc_net_arp_del x ; rtc_net_arp_add x y = 0, -1, -1 | arp -d 10.0.0.9 | arp -d x, failed | arp -s x y, failed
$ ip neigh
> rtc_net_arpproxy_enable eth1 ; rtc_net_arpproxy_enable eth2 ; rtc_net_arpproxy_disable eth1 ; rtc_net_arpproxy_disable none = 0, 0, 0, -1 | echo 1 > /proc/sys/net/ipv4/conf/eth1/proxy_arp | echo 1 > /proc/sys/net/ipv4/conf/eth2/proxy_arp | echo 0 > /proc/sys/net/ipv4/conf/eth1/proxy_arp | echo 0 > /proc/sys/net/ipv4/conf/none/proxy_arp, failed
$ cat /proc/sys/net/ipv4/conf/eth[12]/proxy_arp
0
1
> rtc_net_bond_load_module ; rtc_net_bond_if_exist b = 0, 0 | modprobe bonding max_bonds=0
$ mount -t tmpfs odd /sys/class/net && cd /sys/class/net && mkdir -p b/bonding && echo b1 b >bonding_masters; echo 1234567 >b/bonding/slaves
> rtc_net_bond_load_module ; rtc_net_bond_if_exist b ; rtc_net_bond_if_exist b1 ; rtc_net_bond_if_exist b2 ; rtc_net_bond_port_if_exist b 123 ; rtc_net_bond_port_if_exist b 1234567 ; rtc_net_bond_port_if_exist none x = 0, 1, 1, 0, 0, 1, 0
> BondPorts b ; BondPorts none = 0 , 0 .
> rtc_net_bond_add b2 ; rtc_net_bond_add_port b eth1 ; rtc_net_bond_alg_set b 6 = 0, 0, 0 | echo +b2 > /sys/class/net/bonding_masters | echo +eth1 > /sys/class/net/b/bonding/slaves | echo 6 > /sys/class/net/b/bonding/mode
$ cd /sys/class/net; cat bonding_masters b/bonding/slaves b/bonding/mode
+b2
+eth1
6
> BondPorts b ; rtc_net_bond_del b ; rtc_net_bond_del_port b eth1 = 6 +eth1
$ cd /sys/class/net; cat bonding_masters b/bonding/slaves; cd /; umount /sys/class/net
-b
-eth1
> rtc_net_bond_add b ; rtc_net_bond_del b ; rtc_net_bond_add_port b s ; rtc_net_bond_del_port b s ; rtc_net_bond_alg_set b 1 ; rtc_net_br_stp_set none 1 = -1, -1, -1, -1, -1, -1
> rtc_net_arp_get ; rtc_net_arpproxy_get ; rtc_net_bond_set ; rtc_net_bond_set_port ; rtc_net_br_set ; rtc_net_br_set_port ; rtc_net_bond_del_allport eth1 = 0, 0, 0, 0, 0, 0, 0
> rtc_net_arp_add NULL x ; rtc_net_arp_add x ; rtc_net_arp_del ; rtc_net_arpproxy_enable ; rtc_net_arpproxy_disable ; rtc_net_bond_if_exist ; rtc_net_bond_add ; rtc_net_bond_del ; BondPorts NULL ; rtc_net_br_stp_set = -1, -1, -1, -1, -1, 0, -1, -1, -1, -1
> rtc_net_bond_add_port b ; rtc_net_bond_del_port NULL s ; rtc_net_bond_port_if_exist b ; rtc_net_bond_alg_set = -1, -1, 0, -1
> OV_RTCBridgeAdd br0 = 0
> OV_RTCBridgePortAdd br0 eth1 ; OV_RTCBridgePortAdd br0 eth2 = 0, 0
> BridgePorts br0 11 ; BridgePorts br0 10 ; BridgePorts none 64 = 
> rtc_net_br_stp_set br0 2 = 0
$ cat /sys/class/net/br0/bridge/stp_state
1
> rtc_net_br_stp_set br0 0 = 0
$ cat /sys/class/net/br0/bridge/stp_state
0
> OV_RTCBridgePortDel br0 eth2 ; OV_RTCBridgePortDel br0 eth2 = 0, -1
> OV_RTCBridgePortAdd br0 eth2 ; OV_RTCBridgePortFlush br0 = 0, 0
> OV_RTCBridgePortAdd br0 eth1 ; OV_RTCBridgePortAdd br0 eth2 ; OV_RTCBridgeDel br0 = 0, 0, 0
> OV_RTCBridgePortFlush br0 ; OV_RTCBridgeDel br0 ; OV_RTCBridgePortAdd br0 eth1 ; OV_RTCBridgePortDel br0 eth1 = 
$ fake dmidecode 'echo CARLOW'
> OV_RTCBridgeAdd br1 ; OV_RTCBridgeAdd br1 = 0, -1
> OV_RTCBridgeAdd ; OV_RTCBridgeDel ; OV_RTCBridgePortAdd NULL eth1 ; OV_RTCBridgePortAdd br0 ; OV_RTCBridgePortDel NULL eth1 ; OV_RTCBridgePortDel br0 ; OV_RTCBridgePortFlush ; BridgePorts NULL 9 = -1, -1, -1, -1, -1, -1, -1, -1
> Script 1 7 x 3 ; OV_RTC4GmoduleCreateOption ppp3 3 ; OV_RTC4GmoduleEnable 3 = -1
$ mkdir -p /etc/ppp/peers /etc/corsin; mkdir /etc/ppp/ip-up.local.4g9; echo old >/etc/corsin/4g_report_file; ran; running 1 pppd
> Script 1 7 x 9 ; Script 1 7 x 3 ; OV_RTC4GmoduleCreateOption ppp3 3 ; OV_RTC4GmoduleDisable 3 ; OV_RTC4GmoduleEnable 3 = -1, 0, 0, 0, 0
$ ran; running 1 pppd; cat -A /etc/corsin/4g_report_file; cd /etc/ppp; stat -c %a ip-up.local.4g3; paste -sd/ peers/4g_3; cat -A chat_4g_unit_3 ip-up.local.4g3
> Script 3 7 x 3 = 0
$ grep -E 'CGDCONT|ATDT' /etc/ppp/chat_4g_unit_3; stat -c %a /etc/ppp/ip-up.local.4g3
> Script 0 7 x 2 ; Script 2 7 x 3 = 0
$ grep -hE 'CGDCONT|ATDT' /etc/ppp/chat_4g_unit_[23]
> Script 4 0123456789012345678901234567890 abcdefghijabcdefghijabcdefghijab 4 ; Script 4 01234567890123456789012345678901 abcdefghijabcdefghijabcdefghija 5 = 0, 0
$ grep -hE 'CGDCONT|ATDT' /etc/ppp/chat_4g_unit_[45]
$ mkfifo /run/agent_debug.fifo; cat /run/agent_debug.fifo >/run/got & cd /etc/ppp; ./ip-up.local.4g3 ppp4 || DNS2=9.9.9.9 ./ip-up.local.4g3 ppp3 ttyUSB0 115200 10.0.0.2 10.0.0.1; wait; cat /run/got; sed 's/[0-9][-0-9]* [0-9:]*/NOW/' /var/log/cpeagent.log
> OV_RTC4GmoduleDisable 3 ; OV_RTC4GmoduleDisable 3 = 0, 0
$ running 0 pppd
$ fake ps 'echo root 99999999 ECM_DEMO 4g_3'
> OV_RTC4GmoduleDisable 3 ; OV_RTCEcmProcessDisable ; Ecm 1 7 x 1 = -1, -1, -1
$ fake ps '[ -e /run/looked ] && rm /run/looked || { [ "$1" = ...'
$ rm /run/commands/ps; (exec -a ECM_DEMO sleep 99) & running 1 'ECM_DEMO 99'
> Ecm 1 7 x 1 = 0
$ running 0 'ECM_DEMO 99'; ran
> Ecm 0 7 x 1 ; Ecm 4 7 apn 1 ; Ecm 9 7 x 0 ; 
$ ran
$ fake ECM_DEMO '[ $2 = down ]'
> Ecm 3 7 x 1 ; Ecm 3 7 x 0 = -1
)";

TEST(Network, TheStory)
{
    RecordLog();
    InstallStoryCommands();
    Shell("echo 1 >/proc/sys/net/ipv6/conf/default/addr_gen_mode &&"
          "ip link add eth1 address 02:00:00:00:00:01 type veth peer name eth2 address "
          "02:00:00:00:00:02 &&"
          "ip link set eth1 up && ip link set eth2 up && ip addr add 10.0.0.1/24 dev eth1 &&"
          "record ECM_DEMO modprobe; fake dmidecode true &&"
          "fake pppd 'printf \"%s,\" pppd \"$@\" >>/run/ran; exec -a \"pppd $*\" sleep 99'");
    EXPECT_EQ(Retell(STORY + 1, Call, Links), STORY + 1);
}
