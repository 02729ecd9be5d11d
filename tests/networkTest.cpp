/* Network helpers and the cellular modem: rules in another order, a resolver file that cannot be
 * read, a neighbour, bond or bridge left as it was, a bridge deleted with ports in it, half a
 * command that runs, a file that pppd or the agent reads otherwise, a tool that is not killed. */
#include "linuxRtc.h"
#include "linuxRtc4Gmodule.h"
#include "linuxRtcInterface.h"
#include "linuxRtcNetwork.h"
#include "linuxRtcNetworkInternal.h"
#include "testSupport.h"

/* "carrier number apn unit|enable", or "NULL" for no record: it ends where memory does. */
template <int (*Function)(const char *, const OV_RTC_INTF_CONFIG_LTE *, int)>
static std::string Lte(STRINGS Words)
{
    OV_RTC_INTF_CONFIG_LTE Conf = {STORY_WORD(Words[0]), {}, {}};

    Words[1].copy(Conf.DialNumber, sizeof(Conf.DialNumber));
    Words[2].copy(Conf.Apn, sizeof(Conf.Apn));
    const GUARDED_TEXT Record({reinterpret_cast<const char *>(&Conf), sizeof(Conf)});
    const auto *Given = reinterpret_cast<const OV_RTC_INTF_CONFIG_LTE *>(Record.Text());
    return std::to_string(
        Function("ppp3", Words[0] == "NULL" ? nullptr : Given, STORY_WORD(Words[3])));
}

/* What they list, up to a dot; the first takes eight bytes whatever the size says. */
static std::string BondPorts(STRINGS Words)
{
    MARKED_BUFFER Out(8);
    Out.Text()[0] = '\0'; /* as a caller's fresh buffer may be */
    const int Result = rtc_net_bonf_get_allports(STORY_WORD(Words[0]), Out.Text(), 64);

    EXPECT_TRUE(Out.EdgesIntact());
    return std::to_string(Result) +
           (Result < 0 ? "" : " " + Lines(Out.Text() + std::string("."))[0]);
}

static std::string BridgePorts(STRINGS Words)
{
    const size_t Size = STORY_WORD(Words[1]);
    MARKED_BUFFER Out(Size);
    const int Result = _OV_RTCBridgePortGetAll(STORY_WORD(Words[0]), Out.Text(), Out.Size);

    EXPECT_TRUE(Out.EdgesIntact());
    return std::to_string(Result) + (Result < 0 ? "" : " " + std::string(Out.Text()) + ".");
}

static const STORY_CALL_MAP CALLS =
    STORY_CALLS(Lte<OV_RTC4GmoduleCreateScript>, Lte<OV_RTCEcm4GConfig>, BondPorts, BridgePorts,
                OV_RTCNetAddIpRule, OV_RTCNetDelIpRule, OV_RTCNetIpRuleOrderInit, rtc_net_set_dns,
                rtc_net_arp_add, rtc_net_arp_del, rtc_net_arpproxy_enable, rtc_net_arpproxy_disable,
                rtc_net_bond_load_module, rtc_net_bond_if_exist, rtc_net_bond_add, rtc_net_bond_del,
                rtc_net_bond_add_port, rtc_net_bond_del_port, rtc_net_bond_port_if_exist,
                rtc_net_bond_alg_set, rtc_net_br_stp_set, rtc_net_arp_get, rtc_net_arpproxy_get,
                rtc_net_bond_set, rtc_net_bond_set_port, rtc_net_br_set, rtc_net_br_set_port,
                rtc_net_bond_del_allport, OV_RTCBridgeAdd, OV_RTCBridgeDel, OV_RTCBridgePortAdd,
                OV_RTCBridgePortDel, OV_RTCBridgePortFlush, OV_RTC4GmoduleCreateOption,
                OV_RTC4GmoduleEnable, OV_RTC4GmoduleDisable, OV_RTCEcmProcessDisable);

static constexpr char STORY[] = R"(
$ ip rule add prio 240 table 7; ip -6 rule add prio 50 table 9; ip rule add prio 100 table 8
> OV_RTCNetIpRuleOrderInit = done
[INFO][_OV_RTCIpRuleConf]ip rule del       50 inet action unspec\n.
[ERROR][_OV_RTCIpRuleConf]rtnl_rule_delete failed(ovRet = -2 nlRet = -12(Object not found)).
[ERROR][_OV_RTCIpRuleProcess]_OV_RTCIntfIpConf failed(ovRet = -2).
[INFO][OV_RTCNetDelIpRule]ip rule del prio 50 failed ret=-2
[INFO][_OV_RTCIpRuleConf]ip rule del       50 inet6 action unspec\n.
[INFO][OV_RTCNetDelIpRule]ip -6 rule del prio 50 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule add       50 inet lookup main action unicast\n.
[INFO][OV_RTCNetAddIpRule]ip rule add prio 50 table 254 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule add       50 inet6 lookup main action unicast\n.
[INFO][OV_RTCNetAddIpRule]ip -6 rule add prio 50 table 254 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule del      240 inet action unspec\n.
[INFO][OV_RTCNetDelIpRule]ip rule del prio 240 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule del      240 inet6 action unspec\n.
[ERROR][_OV_RTCIpRuleConf]rtnl_rule_delete failed(ovRet = -2 nlRet = -12(Object not found)).
[ERROR][_OV_RTCIpRuleProcess]_OV_RTCIntfIpConf failed(ovRet = -2).
[INFO][OV_RTCNetDelIpRule]ip -6 rule del prio 240 failed ret=-2
[INFO][_OV_RTCIpRuleConf]ip rule add      240 inet lookup default action unicast\n.
[INFO][OV_RTCNetAddIpRule]ip rule add prio 240 table 253 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule add      240 inet6 lookup default action unicast\n.
[INFO][OV_RTCNetAddIpRule]ip -6 rule add prio 240 table 253 success ret=0
$ (ip rule; ip -6 rule) | cut -f1,2
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
[INFO][_OV_RTCIpRuleConf]ip rule add        7 inet6 lookup 0x46 action unicast\n.
[INFO][OV_RTCNetAddIpRule]ip -6 rule add prio 7 table 70 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule add        7 inet6 lookup 0x46 action unicast\n.
[ERROR][_OV_RTCIpRuleConf]rtnl_rule_add failed(ovRet = -17 nlRet = -6(Object exists)).
[ERROR][_OV_RTCIpRuleProcess]_OV_RTCIntfIpConf failed(ovRet = -17).
[INFO][OV_RTCNetAddIpRule]ip -6 rule add prio 65543 table 70 failed ret=-17
[INFO][_OV_RTCIpRuleConf]ip rule del        7 inet6 action unspec\n.
[INFO][OV_RTCNetDelIpRule]ip -6 rule del prio 7 success ret=0
[INFO][_OV_RTCIpRuleConf]ip rule del        7 inet6 action unspec\n.
[ERROR][_OV_RTCIpRuleConf]rtnl_rule_delete failed(ovRet = -2 nlRet = -12(Object not found)).
[ERROR][_OV_RTCIpRuleProcess]_OV_RTCIntfIpConf failed(ovRet = -2).
[INFO][OV_RTCNetDelIpRule]ip -6 rule del prio 7 failed ret=-2
> rtc_net_set_dns "8.8.8.8  9.9.9.9" = 0
| echo -e "nameserver 8.8.8.8\nnameserver 9.9.9.9\n" > /etc/resolv.conf
$ paste -sd/ /etc/resolv.conf
nameserver 8.8.8.8/nameserver 9.9.9.9/
> rtc_net_set_dns "" ; rtc_net_set_dns = 0, -1
| echo -e "" > /etc/resolv.conf
$ paste -sd/ /etc/resolv.conf

> rtc_net_arp_add 10.0.0.9 02:00:00:00:00:99 = 0
| arp -s 10.0.0.9 02:00:00:00:00:99
$ ip neigh
10.0.0.9 dev eth1 lladdr 02:00:00:00:00:99 PERMANENT 
> rtc_net_arp_del 10.0.0.9 ; rtc_net_arp_del x ; rtc_net_arp_add x y = 0, -1, -1
| arp -d 10.0.0.9
| arp -d x, failed
| arp -s x y, failed
$ ip neigh
> rtc_net_arpproxy_enable eth1 ; rtc_net_arpproxy_enable eth2 ; rtc_net_arpproxy_disable eth1 ; rtc_net_arpproxy_disable none = 0, 0, 0, -1
| echo 1 > /proc/sys/net/ipv4/conf/eth1/proxy_arp
| echo 1 > /proc/sys/net/ipv4/conf/eth2/proxy_arp
| echo 0 > /proc/sys/net/ipv4/conf/eth1/proxy_arp
| echo 0 > /proc/sys/net/ipv4/conf/none/proxy_arp, failed
$ cat /proc/sys/net/ipv4/conf/eth[12]/proxy_arp | paste -s
0	1
> rtc_net_bond_load_module ; rtc_net_bond_if_exist b = 0, 0
| modprobe bonding max_bonds=0
$ mount -t tmpfs odd /sys/class/net && cd /sys/class/net && mkdir -p b/bonding && echo b10 b >bonding_masters; echo 1234567 >b/bonding/slaves
> rtc_net_bond_load_module ; rtc_net_bond_if_exist b ; rtc_net_bond_if_exist b10 ; rtc_net_bond_if_exist b1 ; rtc_net_bond_port_if_exist b 123 ; rtc_net_bond_port_if_exist b 1234567 ; rtc_net_bond_port_if_exist none x = 0, 1, 1, 0, 0, 1, 0
> BondPorts b ; BondPorts none = 0 ., 0 .
|< cat /sys/class/net/b/bonding/slaves 2>&1
[ERROR][OV_RTCExecCmd]csn_exec_cmd: over size
|< cat /sys/class/net/none/bonding/slaves 2>&1
[ERROR][OV_RTCExecCmd]csn_exec_cmd: over size
> rtc_net_bond_add b2 ; rtc_net_bond_add_port b eth1 ; rtc_net_bond_alg_set b 6 = 0, 0, 0
| echo +b2 > /sys/class/net/bonding_masters
| echo +eth1 > /sys/class/net/b/bonding/slaves
| echo 6 > /sys/class/net/b/bonding/mode
$ cd /sys/class/net; cat bonding_masters b/bonding/slaves b/bonding/mode
+b2
+eth1
6
> BondPorts b ; rtc_net_bond_del b ; rtc_net_bond_del_port b eth1 = 6 +eth1, 0, 0
|< cat /sys/class/net/b/bonding/slaves 2>&1
| echo -b > /sys/class/net/bonding_masters
| echo -eth1 > /sys/class/net/b/bonding/slaves
$ cd /sys/class/net; cat bonding_masters b/bonding/slaves | paste -sd,; cd /; umount /sys/class/net
-b,-eth1
> rtc_net_bond_add b ; rtc_net_bond_del b ; rtc_net_bond_add_port b s ; rtc_net_bond_del_port b s ; rtc_net_bond_alg_set b 1 ; rtc_net_br_stp_set none 1 = -1, -1, -1, -1, -1, -1
| echo +b > /sys/class/net/bonding_masters, failed
| echo -b > /sys/class/net/bonding_masters, failed
| echo +s > /sys/class/net/b/bonding/slaves, failed
| echo -s > /sys/class/net/b/bonding/slaves, failed
| echo 1 > /sys/class/net/b/bonding/mode, failed
| /usr/sbin/brctl stp none on, failed
> rtc_net_arp_get ; rtc_net_arpproxy_get ; rtc_net_bond_set ; rtc_net_bond_set_port ; rtc_net_br_set ; rtc_net_br_set_port ; rtc_net_bond_del_allport eth1 = 0, 0, 0, 0, 0, 0, 0
> rtc_net_arp_add NULL x ; rtc_net_arp_add x ; rtc_net_arp_del ; rtc_net_arpproxy_enable ; rtc_net_arpproxy_disable ; rtc_net_bond_if_exist ; rtc_net_bond_add ; rtc_net_bond_del ; BondPorts NULL ; rtc_net_br_stp_set = -1, -1, -1, -1, -1, 0, -1, -1, -1, -1
> rtc_net_bond_add_port b ; rtc_net_bond_del_port NULL s ; rtc_net_bond_port_if_exist b ; rtc_net_bond_alg_set = -1, -1, 0, -1
> OV_RTCBridgeAdd br0 = 0
| brctl addbr br0
| ifconfig br0 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh br0
|< dmidecode -s baseboard-product-name 2>&1
[WARN][OV_RTCBypassPlatFormGet]unkown hardware platform:  
br0,up,mtu:1500,txqlen:1000,[]
> OV_RTCBridgePortAdd br0 eth1 ; OV_RTCBridgePortAdd br0 eth2 = 0, 0
| ifconfig eth1 0.0.0.0
| brctl addif br0 eth1
| ifconfig eth2 0.0.0.0
| brctl addif br0 eth2
eth2,up,mtu:1500,master:br0,txqlen:1000,mac:02,[]
eth1,up,mtu:1500,master:br0,txqlen:1000,mac:01,[]
br0,up,mtu:1500,txqlen:1000,mac:01,[]
> BridgePorts br0 11 ; BridgePorts br0 10 ; BridgePorts none 64 = 0 eth1 eth2 ., 0 ., 0 .
|< brctl show br0 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
|< brctl show br0 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
[ERROR][OV_RTCExecCmd]csn_exec_cmd: over size
|< brctl show none 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
> rtc_net_br_stp_set br0 2 = 0
| /usr/sbin/brctl stp br0 on
$ cat /sys/class/net/br0/bridge/stp_state
1
> rtc_net_br_stp_set br0 0 = 0
| /usr/sbin/brctl stp br0 off
$ cat /sys/class/net/br0/bridge/stp_state
0
> OV_RTCBridgePortDel br0 eth2 ; OV_RTCBridgePortDel br0 eth2 = 0, -1
| brctl delif br0 eth2
| brctl delif br0 eth2, failed
eth2,up,mtu:1500,txqlen:1000,mac:02,[]
> OV_RTCBridgePortAdd br0 eth2 ; OV_RTCBridgePortFlush br0 = 0, 0
| ifconfig eth2 0.0.0.0
| brctl addif br0 eth2
|< brctl show br0 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
| brctl delif br0 eth1
| brctl delif br0 eth2
eth1,up,mtu:1500,txqlen:1000,mac:01,[]
br0,up,mtu:1500,txqlen:1000,[]
> OV_RTCBridgePortAdd br0 eth1 ; OV_RTCBridgePortAdd br0 eth2 ; OV_RTCBridgeDel br0 = 0, 0, 0
| ifconfig eth1 0.0.0.0
| brctl addif br0 eth1
| ifconfig eth2 0.0.0.0
| brctl addif br0 eth2
|< brctl show br0 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
| brctl delif br0 eth1
| brctl delif br0 eth2
| ifconfig br0 down
| brctl delbr br0
> OV_RTCBridgePortFlush br0 ; OV_RTCBridgeDel br0 ; OV_RTCBridgePortAdd br0 eth1 ; OV_RTCBridgePortDel br0 eth1 = 0, -1, -1, -1
|< brctl show br0 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
|< brctl show br0 2>/dev/null |awk '{if (NR == 2) {printf("%s ", $4)} else if (NR > 2) {printf("%s ", $1)}}' 2>&1
| ifconfig br0 down, failed
| brctl delbr br0, failed
| ifconfig eth1 0.0.0.0
| brctl addif br0 eth1, failed
| brctl delif br0 eth1, failed
$ fake dmidecode 'echo >>/run/asked; sed -n "$(wc -l </run/asked)p" /run/boards'; printf '%s\n' CARLOW CARLOW IEC-810N4SC MB-8895 B1904 >/run/boards
> OV_RTCBridgeAdd br1 ; OV_RTCBridgeAdd br1 ; OV_RTCBridgeAdd br2 ; OV_RTCBridgeAdd br3 ; OV_RTCBridgeAdd br4 = 0, -1, 0, 0, 0
| brctl addbr br1
| ifconfig br1 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh br1
|< dmidecode -s baseboard-product-name 2>&1
[INFO][OV_RTCBypassPlatFormGet]hardware platform: LiHua-8865
|< ifconfig br1 |grep "txqueuelen" 2>&1
| ifconfig br1 txqueuelen 4000
| brctl addbr br1, failed
| ifconfig br1 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh br1
|< dmidecode -s baseboard-product-name 2>&1
[INFO][OV_RTCBypassPlatFormGet]hardware platform: LiHua-8865
|< ifconfig br1 |grep "txqueuelen" 2>&1
[INFO][OV_RTCIfTxQueueLenSet]no need to set br1 txqueuelen 4000
| brctl addbr br2
| ifconfig br2 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh br2
|< dmidecode -s baseboard-product-name 2>&1
[INFO][OV_RTCBypassPlatFormGet]hardware platform: Huier-H61
|< ifconfig br2 |grep "txqueuelen" 2>&1
| ifconfig br2 txqueuelen 4000
| brctl addbr br3
| ifconfig br3 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh br3
|< dmidecode -s baseboard-product-name 2>&1
[INFO][OV_RTCBypassPlatFormGet]hardware platform: LiHua-8895
|< ifconfig br3 |grep "txqueuelen" 2>&1
| ifconfig br3 txqueuelen 4000
| brctl addbr br4
| ifconfig br4 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh br4
|< dmidecode -s baseboard-product-name 2>&1
[INFO][OV_RTCBypassPlatFormGet]hardware platform: Huier-J1900
br1,up,mtu:1500,txqlen:4000,[]
br2,up,mtu:1500,txqlen:4000,[]
br3,up,mtu:1500,txqlen:4000,[]
br4,up,mtu:1500,txqlen:1000,[]
> OV_RTCBridgeAdd ; OV_RTCBridgeDel ; OV_RTCBridgePortAdd NULL eth1 ; OV_RTCBridgePortAdd br0 ; OV_RTCBridgePortDel NULL eth1 ; OV_RTCBridgePortDel br0 ; OV_RTCBridgePortFlush ; BridgePorts NULL 9 = -1, -1, -1, -1, -1, -1, -1, -1
> Lte<OV_RTC4GmoduleCreateScript> 1 7 x 3 ; OV_RTC4GmoduleCreateOption ppp3 3 ; OV_RTC4GmoduleEnable 3 = -1, -1, 0
[DEBUG][OV_RTC4GmoduleCreateScript]Can't open /etc/ppp//chat_4g_unit_3
| echo "user pluma\npassword pluma\n/dev/ttyUSB0\n115200\npersist\nnoipdefault\nusepeerdns\nnodetach\ncrtscts\ndebug\nholdoff 5\nmaxfail 0\nunit 3\nnoauth" > /etc/ppp/peers/4g_3, failed
| echo > /etc/corsin/4g_report_file, failed
| pppd connect 'chat -v -r /etc/corsin/4g_report_file -f /etc/ppp/chat_4g_unit_3' file /etc/ppp/peers/4g_3 &
$ mkdir -p /etc/ppp/peers /etc/corsin; mkdir /etc/ppp/ip-up.local.4g9; echo old >/etc/corsin/4g_report_file; ran | paste -sd,; running 1 pppd
/run/checkout: /run/commands/modprobe bonding max_bonds=0,pppd,connect,chat -v -r /etc/corsin/4g_report_file -f /etc/ppp/chat_4g_unit_3,file,/etc/ppp/peers/4g_3,
> Lte<OV_RTC4GmoduleCreateScript> 1 7 x 9 ; Lte<OV_RTC4GmoduleCreateScript> 1 7 x 3 ; OV_RTC4GmoduleCreateOption ppp3 3 ; OV_RTC4GmoduleDisable 3 ; OV_RTC4GmoduleEnable 3 = -1, 0, 0, 0, 0
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit9 type1 apn cmnet
[DEBUG][OV_RTC4GmoduleCreateScript]Can't open /etc/ppp//ip-up.local.4g9
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit3 type1 apn cmnet
| echo "user pluma\npassword pluma\n/dev/ttyUSB0\n115200\npersist\nnoipdefault\nusepeerdns\nnodetach\ncrtscts\ndebug\nholdoff 5\nmaxfail 0\nunit 3\nnoauth" > /etc/ppp/peers/4g_3
| ps aux | grep "4g_3" | grep -v grep
| kill -9 `ps aux | grep "4g_3" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1
| echo > /etc/corsin/4g_report_file
| pppd connect 'chat -v -r /etc/corsin/4g_report_file -f /etc/ppp/chat_4g_unit_3' file /etc/ppp/peers/4g_3 &
$ ran; running 1 pppd; cat -A /etc/corsin/4g_report_file; cd /etc/ppp; stat -c %a ip-up.local.4g3; cat -A peers/4g_3 chat_4g_unit_3 ip-up.local.4g3
pppd,connect,chat -v -r /etc/corsin/4g_report_file -f /etc/ppp/chat_4g_unit_3,file,/etc/ppp/peers/4g_3,$
666
user pluma$
password pluma$
/dev/ttyUSB0$
115200$
persist$
noipdefault$
usepeerdns$
nodetach$
crtscts$
debug$
holdoff 5$
maxfail 0$
unit 3$
noauth$
TIMEOUT 10$
ABORT "BUSY"$
          ABORT "ERROR"$
          ABORT "NO CARRIER"$
          '' ^MAT$
          OK 'AT+CGDCONT=1,"IP","cmnet"'$
         OK 'ATDT*99#'$
          CONNECT ''$
#!/bin/bash$
[[ "$1" == "ppp3" ]] && {$
  ^I    echo "`date "+%Y-%m-%d %H:%M:%S"` $4/32 $5 csn-pppoe-issue" >> /var/log/cpeagent.log$
          interface=$1$
 ^I    ipaddr=$4$
         gateway=$5$
         type=RouteUpdate$
         empty=0.0.0.0$
         mes_to_agent="$type":"$interface,$gateway,$ipaddr/32,lte,${DNS1:-$empty},${DNS2:-$empty}"$
         len=$(echo $mes_to_agent | wc -L) $
         echo "$len"$'\n'"$mes_to_agent" > /var/run/agent_debug.fifo $
         $
}
> Lte<OV_RTC4GmoduleCreateScript> 0 7 x 6 ; Lte<OV_RTC4GmoduleCreateScript> 2 7 x 7 ; Lte<OV_RTC4GmoduleCreateScript> 3 7 x 3 = 0, 0, 0
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit6 type0 apn 
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit7 type2 apn 3gnet
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit3 type3 apn ctnet
> Lte<OV_RTC4GmoduleCreateScript> 4 0123456789012345678901234567890 abcdefghijabcdefghijabcdefghijab 4 ; Lte<OV_RTC4GmoduleCreateScript> 4 01234567890123456789012345678901 abcdefghijabcdefghijabcdefghija 5 = 0, 0
[ERROR][OV_RTC4GmoduleCreateScript]apn is over flow
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit4 type4 apn abcdefghijabcdefghijabcdefghija
[ERROR][OV_RTC4GmoduleCreateScript]dialNumber is over flow
[DEBUG][OV_RTC4GmoduleCreateScript]OV_RTC4GmoduleCreateScript LINE: ppp3 unit5 type4 apn abcdefghijabcdefghijabcdefghija
$ cd /etc/ppp; stat -c %a ip-up.local.4g3; for n in 6 7 3 4 5; do grep -E 'CGDCONT|ATDT' chat_4g_unit_$n | paste -s; done
777
          OK 'AT+CGDCONT=1,"IP",""'	         OK 'ATDT*99#'
          OK 'AT+CGDCONT=1,"IP","3gnet"'	         OK 'ATDT*99#'
          OK 'AT+CGDCONT=1,"IP","ctnet"'	         OK 'ATDT*99#'
          OK 'AT+CGDCONT=1,"IP","abcdefghijabcdefghijabcdefghija"'	         OK 'ATDT0123456789012345678901234567890'
          OK 'AT+CGDCONT=1,"IP","abcdefghijabcdefghijabcdefghija"'	         OK 'ATDT0123456789012345678901234567890'
$ mkfifo /run/agent_debug.fifo; timeout 9 cat /run/agent_debug.fifo >/run/got & cd /etc/ppp; ./ip-up.local.4g3 ppp4 || DNS2=9.9.9.9 ./ip-up.local.4g3 ppp3 ttyUSB0 115200 10.0.0.2 10.0.0.1; wait; cat /run/got; sed 's/[0-9][-0-9]* [0-9:]*/NOW/' /var/log/cpeagent.log
57
RouteUpdate:ppp3,10.0.0.1,10.0.0.2/32,lte,0.0.0.0,9.9.9.9
NOW 10.0.0.2/32 10.0.0.1 csn-pppoe-issue
> OV_RTC4GmoduleDisable 3 ; OV_RTC4GmoduleDisable 3 = 0, 0
| ps aux | grep "4g_3" | grep -v grep
| kill -9 `ps aux | grep "4g_3" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1
| ps aux | grep "4g_3" | grep -v grep, failed
$ running 0 pppd; fake dmidecode true; fake ps 'echo root 99999999 ECM_DEMO 4g_3'
> OV_RTC4GmoduleDisable 3 ; OV_RTCEcmProcessDisable ; Lte<OV_RTCEcm4GConfig> 1 7 x 1 = -1, -1, -1
| ps aux | grep "4g_3" | grep -v grep
| kill -9 `ps aux | grep "4g_3" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1, failed
| ps aux | grep "ECM_DEMO" | grep -v grep
| kill -9 `ps aux | grep "ECM_DEMO" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1, failed
| ps aux | grep "ECM_DEMO" | grep -v grep
| ps aux | grep "ECM_DEMO" | grep -v grep
| kill -9 `ps aux | grep "ECM_DEMO" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1, failed
| ps aux | grep "ECM_DEMO" | grep -v grep
[ERROR][OV_RTCEcm4GConfig]ECM Disable failed
$ fake ps 'echo >>/run/looks; [ $(wc -l </run/looks) -lt 3 ] && echo root 99999999 ECM_DEMO'
> OV_RTCEcmProcessDisable = 0
| ps aux | grep "ECM_DEMO" | grep -v grep
| kill -9 `ps aux | grep "ECM_DEMO" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1, failed
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
$ rm /run/commands/ps; (exec -a ECM_DEMO sleep 99) & running 1 'ECM_DEMO 99'
> Lte<OV_RTCEcm4GConfig> 1 7 x 1 = 0
| ps aux | grep "ECM_DEMO" | grep -v grep
| kill -9 `ps aux | grep "ECM_DEMO" | grep -v grep | awk '{print $2}' `>/dev/null 2>&1
| ECM_DEMO -t down
| ECM_DEMO -t up -a cmnet
$ running 0 'ECM_DEMO 99'; ran
/run/checkout: /run/commands/ECM_DEMO -t down
/run/checkout: /run/commands/ECM_DEMO -t up -a cmnet
> Lte<OV_RTCEcm4GConfig> 0 7 x 1 ; Lte<OV_RTCEcm4GConfig> 4 7 apn 1 ; Lte<OV_RTCEcm4GConfig> 9 7 x 0 ; Lte<OV_RTCEcm4GConfig> NULL 7 x 0 ; Lte<OV_RTCEcm4GConfig> NULL 7 x 1 ; Lte<OV_RTC4GmoduleCreateScript> NULL 7 x 1 = 0, 0, 0, 0, -22, -1
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down
| ECM_DEMO -t up
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down
| ECM_DEMO -t up -a apn
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down 
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down 
$ ran | paste -sd, | sed 's,/run/[a-z]*,,g'
: /ECM_DEMO -t down,: /ECM_DEMO -t up,: /ECM_DEMO -t down,: /ECM_DEMO -t up -a apn,: /ECM_DEMO -t down,: /ECM_DEMO -t down
$ fake ECM_DEMO '[ $2 = down ]'
> Lte<OV_RTCEcm4GConfig> 3 7 x 1 ; Lte<OV_RTCEcm4GConfig> 3 7 x 0 = -1, 0
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down
| ECM_DEMO -t up -a ctnet, failed
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down 
)";

TEST(Network, TheStory)
{
    RecordLog();
    InstallStoryCommands();
    Shell("echo 1 >/proc/sys/net/ipv6/conf/default/addr_gen_mode &&"
          "ip link add eth1 address 02:00:00:00:00:01 type veth peer name eth2 address "
          "02:00:00:00:00:02 &&"
          "ip link set eth1 up && ip link set eth2 up && ip addr add 10.0.0.1/24 dev eth1 &&"
          "record ECM_DEMO modprobe; fake dmidecode true;"
          "fake /bin/corsin/if_fdir_rss/configure_eth_rxq_irq_rss.sh true &&"
          "fake pppd 'printf \"%s,\" pppd \"$@\" >>/run/ran; exec -a \"pppd $*\" sleep 99'");
    EXPECT_EQ(RetellCalls(STORY + 1, CALLS), STORY + 1);
}

TEST(Network, HalfACommandIsNotRun)
{
    RecordLog();
    for (const char *Line :
         {"rtc_net_arp_add NAME x", "rtc_net_arp_del NAME", "rtc_net_arpproxy_enable NAME",
          "rtc_net_arpproxy_disable NAME", "rtc_net_bond_add NAME", "rtc_net_bond_del NAME",
          "rtc_net_bond_add_port b NAME", "rtc_net_bond_del_port NAME s",
          "rtc_net_bond_alg_set NAME 1", "rtc_net_br_stp_set NAME 1", "rtc_net_set_dns NAME"}) {
        ExpectLimit(CALLS, Line, 510);
    }
    for (const char *Line : {"OV_RTCBridgeAdd NAME", "OV_RTCBridgePortAdd br0 NAME",
                             "OV_RTCBridgePortAdd NAME p", "OV_RTCBridgePortDel br0 NAME"}) {
        ExpectLimit(CALLS, Line, 510, std::to_string(-OV_RTC_ERROR_BUFF_OVERFLOW));
    }
}
