/* Settings of an interface: a command that is another by a blank or a word, one that runs although
 * the setting is in place or is left out although it is not, half a command that runs, a refusal
 * with the wrong code, a file that pppd or the shell reads otherwise, a client that is not killed
 * or a process killed that is none, a text read past its end. */
#include "linuxRtcInterface.h"
#include "linuxRtcInterfaceInternal.h"
#include "testSupport.h"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

/* In front of the real one: a wrong process number must not reach it. */
static std::string s_Kills;

extern "C" int kill(pid_t Process, int Signal) noexcept
{
    const bool IsReal = Process > 1 && Process < 1 << 22; /* no kernel numbers further */

    s_Kills += "\nkill " + (IsReal ? "it" : std::to_string(Process)) + " " + std::to_string(Signal);
    return Process > 1 ? static_cast<int>(syscall(SYS_kill, Process, Signal)) : -1;
}

static void AddAddress(OV_RTC_INTF_CONFIG_STATIC &Static, const std::string &Word)
{
    const std::string Text = Word.substr(0, Word.find('/'));
    const uint8_t Mask = static_cast<uint8_t>(std::stoi(Word.substr(Text.size() + 1)));

    if (Contains(Text, ":")) {
        const uint8_t Index = Static.Ip6Multi.IpCnt++;
        inet_pton(AF_INET6, Text.c_str(), &Static.Ip6Multi.Ip[Index]);
        Static.Ip6Multi.Mask[Index] = Mask;
    } else if (const uint8_t Index = Static.IpMulti.IpCnt++; Index < OV_CONF_IP_MAX) {
        Static.IpMulti.Ip[Index] = STORY_WORD(Text);
        Static.IpMulti.Mask[Index] = Mask;
    }
}

/* "type interface enable value...": the record ends where memory does. */
static std::string Config(STRINGS Words)
{
    OV_RTC_INTF_CONFIG Conf = {};

    if (Words.empty()) {
        return std::to_string(OV_RTCIntfConfig(nullptr));
    }
    Words.resize(std::max<size_t>(Words.size(), 6));
    Conf.Type = STORY_WORD(Words[0]);
    Words[1].copy(Conf.IfName, sizeof(Conf.IfName));
    Conf.Enable = STORY_WORD(Words[2]);
    if (Conf.Type == OV_RTC_INTF_TYPE_PPPOE) {
        Words[3].copy(Conf.Pppoe.PppoeUser, sizeof(Conf.Pppoe.PppoeUser));
        Words[4].copy(Conf.Pppoe.PppoePasswd, sizeof(Conf.Pppoe.PppoePasswd));
    } else if (Conf.Type == OV_RTC_INTF_TYPE_STATIC) {
        for (size_t Index = 3; Index < Words.size() && !Words[Index].empty(); Index++) {
            AddAddress(Conf.Static, Words[Index]);
        }
    } else if (Conf.Type == OV_RTC_INTF_TYPE_LTE) {
        Conf.Lte.Carrier = STORY_WORD(Words[3]);
        Words[4].copy(Conf.Lte.Apn, sizeof(Conf.Lte.Apn));
    } else if (Conf.Type == OV_RTC_INTF_TYPE_MAC) {
        Words[3].copy(Conf.Str, sizeof(Conf.Str));
    } else {
        Conf.Val = STORY_WORD(Words[3]);
    }
    const GUARDED_TEXT Record({reinterpret_cast<const char *>(&Conf), sizeof(Conf)});
    return std::to_string(
        OV_RTCIntfConfig(reinterpret_cast<const OV_RTC_INTF_CONFIG *>(Record.Text())));
}

/* "setting interface size": what was read behind the result; size 0 is no buffer at all. */
static STORY_CALL Reader(int32_t (*Function)(OV_RTC_L2_CONF_TYPE, const char *, char *, size_t))
{
    return [Function](const STRINGS &Words) {
        const size_t Size = STORY_WORD(Words[2]);
        std::vector<char> Text(Size);
        const int32_t Result =
            Function(STORY_WORD(Words[0]), STORY_WORD(Words[1]), Size ? Text.data() : nullptr, Size);
        return std::to_string(Result) + (Result == 0 && Size ? " " + std::string(Text.data()) : "");
    };
}

static std::string Call(const std::string &Line)
{
    static const std::map<std::string, STORY_CALL> Calls = {
        {"config", Config},
        {"path", Reader(_OV_RTCIfGetSysFilePath)},
        {"read", Reader(_OV_RTCIfGetCurConfig)},
        STORY_CALL_OF(rtc_if_set_ip),
        STORY_CALL_OF(OV_RTCIntfDelIP),
        STORY_CALL_OF(rtc_if_flush_ip),
        STORY_CALL_OF(OV_RTCIntfFlushIpv6Addr),
        STORY_CALL_OF(rtc_if_set_method),
        STORY_CALL_OF(rtc_if_pppoe_set),
        STORY_CALL_OF(rtc_if_pppoe_start),
        STORY_CALL_OF(OV_StopPPPDProcess),
        STORY_CALL_OF(rtc_is_inf_pppoe),
        STORY_CALL_OF(rtc_if_dhcpclient_enable),
        STORY_CALL_OF(rtc_if_dhcpclient_disable),
        STORY_CALL_OF(rtc_if_up),
        STORY_CALL_OF(rtc_if_down),
        STORY_CALL_OF(rtc_if_set_mac),
        STORY_CALL_OF(rtc_if_set_mtu),
        STORY_CALL_OF(rtc_if_set_speed),
        STORY_CALL_OF(rtc_if_set_mode),
        STORY_CALL_OF(rtc_if_set_nego),
        STORY_CALL_OF(OV_IntfSetDuplexAndSpeed),
        STORY_CALL_OF(OV_RTCIfTxQueueLenSet),
        STORY_CALL_OF(OV_RTCSetRxCheckSum),
        STORY_CALL_OF(OV_RTCIfFdirRssEnableRssAllInterfaces),
        STORY_CALL_OF(OV_RTCIfFdirRssEnableRssOneInterface),
        STORY_CALL_OF(OV_RTCIfFdirRssEnableFdirOneInterface),
        STORY_CALL_OF(OV_RTCIfFdirRssDisableFdirOneInterface),
        STORY_CALL_OF(OV_RTCIfSepSaEnableOneInterface),
        STORY_CALL_OF(OV_RTCIfSepSaDisableAllInterface),
        STORY_CALL_OF(OV_RTCIfSoftRssDisableAllInterface)    };
    const std::string Result = CallByName(Calls, Line);
    return Result + std::exchange(s_Kills, "");
}

static constexpr char STORY[] = R"(
> config = -22
[ERROR][OV_RTCIntfConfig]input config is null
> config 10 eth1 1 = -22
> config 12 eth1 1 = -22
> config 0 0123456789abcdef 1 = -22
> config 0 eth1 1 = 0
| ifconfig eth1 up
[ERROR][_OV_RTCIfFdirRssCheckScript]IfFdirRss: stat(/bin/corsin/if_fdir_rss/configure_eth_rxq_irq_rss.sh) fails
[ERROR][_OV_RTCIfFdirRssEnableRssOneOrAllInterfaces]IfFdirRss: _OV_RTCIfFdirRssCheckScript(configure_eth_rxq_irq_rss.sh) fails
[WARN][rtc_if_up]Enable RSS on eth1, failed
eth1,up,mtu:1500,txqlen:1000,mac:01,[]
> config 0 eth1 0 = 0
| ifconfig eth1 down
eth1,down,mtu:1500,txqlen:1000,mac:01,[]
> rtc_if_up none = -1
| ifconfig none up, failed
> rtc_if_down none = -1
| ifconfig none down, failed
> rtc_if_up = -1
> rtc_if_down = -1
> config 11 eth1 0 02:00:00:00:00:11 = 0
| ifconfig eth1 hw ether 02:00:00:00:00:11
eth1,down,mtu:1500,txqlen:1000,mac:11,[]
> config 11 eth1 0 = 0
[DEBUG][rtc_if_set_mac]strlen(mac)=0 
> rtc_if_set_mac eth1 x = -1
| ifconfig eth1 hw ether x, failed
> rtc_if_set_mac NULL x = -1
> config 6 eth1 0 1500 = 0
[INFO][_OV_RTCSetIntfMtu]no need to set eth1 mtu 1500
> config 6 eth1 0 1400 = 0
| ifconfig eth1 mtu 1400
eth1,down,mtu:1400,txqlen:1000,mac:11,[]
> config 6 eth1 0 4294967295 = -22
[ERROR][_OV_RTCSetIntfMtu]Config Mtu error, param invalid (ifname:eth1 mtu -1)
> rtc_if_set_mtu 0123456789abcdef 1400 = -22
[ERROR][_OV_RTCSetIntfMtu]Config Mtu error, param invalid (ifname:0123456789abcdef mtu 1400)
> rtc_if_set_mtu 0123456789abcde 1400 = -1
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]open file /sys/class/net//0123456789abcde/mtu error(2: No such file or directory)
| ifconfig 0123456789abcde mtu 1400, failed
> rtc_if_set_mtu NULL 1400 = -22
[ERROR][_OV_RTCSetIntfMtu]Config Mtu error, param invalid (ifname:(null) mtu 1400)
> OV_RTCIfTxQueueLenSet eth1 1000 = 0
|< ifconfig eth1 |grep "txqueuelen" 2>&1
[INFO][OV_RTCIfTxQueueLenSet]no need to set eth1 txqueuelen 1000
> OV_RTCIfTxQueueLenSet eth1 4000 = 0
|< ifconfig eth1 |grep "txqueuelen" 2>&1
| ifconfig eth1 txqueuelen 4000
eth1,down,mtu:1400,txqlen:4000,mac:11,[]
> OV_RTCIfTxQueueLenSet eth1 0 = -1
> OV_RTCIfTxQueueLenSet NULL 9 = -1
> OV_RTCSetRxCheckSum eth1 0 = 0
| ethtool -K eth1 rx-checksum off
$ ethtool -k eth1 | grep rx-checksumming
rx-checksumming: off
> OV_RTCSetRxCheckSum eth1 2 = 0
| ethtool -K eth1 rx-checksum on
$ ethtool -k eth1 | grep rx-checksumming
rx-checksumming: on
> OV_RTCSetRxCheckSum none 1 = -1
| ethtool -K none rx-checksum on, failed
> config 9 eth1 0 0 = 0
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
[INFO][rtc_if_set_nego]no need to set eth1 auto-nego off
> config 9 eth1 0 2 = -1
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
| ethtool -s eth1 autoneg on, failed
> config 7 eth1 0 10000 = 0
[INFO][rtc_if_set_speed]no need to set eth1 speed 10000
> config 7 eth1 0 1000 = -1
| ethtool -s eth1 speed 1000, failed
> config 8 eth1 0 2 = 0
[INFO][rtc_if_set_mode]no need to set eth1 duplex full
> config 8 eth1 0 0 = -1
| ethtool -s eth1  duplex half, failed
> OV_IntfSetDuplexAndSpeed eth1 2 10000 = 0
[INFO][OV_IntfSetDuplexAndSpeed]no need to set eth1 duplex full, speed 10000
> OV_IntfSetDuplexAndSpeed eth1 0 10000 = -1
| ethtool -s eth1 speed 10000 duplex half, failed
> OV_IntfSetDuplexAndSpeed eth1 1 4294967295 = -1
| ethtool -s eth1 speed 4294967295 duplex full, failed
$ mount -t tmpfs odd /sys/class/net && mkdir /sys/class/net/eth1 && fake ethtool 'echo Auto-negotiation: ON'
$ cd /sys/class/net/eth1; echo Full >duplex; echo 1000 >speed; printf '%048d\n' 1500 >mtu
> rtc_if_set_mode eth1 1 = 0
[INFO][rtc_if_set_mode]no need to set eth1 duplex full
> OV_IntfSetDuplexAndSpeed eth1 1 1000 = 0
[INFO][OV_IntfSetDuplexAndSpeed]no need to set eth1 duplex full, speed 1000
> rtc_if_set_nego eth1 1 = 0
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
[INFO][rtc_if_set_nego]no need to set eth1 auto-nego on
> read 0 eth1 128 = 0 00000000000000000000000000000000000000000000150
$ cd /sys/class/net/eth1; echo HALF >duplex; echo fast >speed; printf 15 >mtu; fake ethtool 'echo Auto-negotiation: OFF'
> rtc_if_set_mode eth1 0 = 0
[INFO][rtc_if_set_mode]no need to set eth1 duplex half
> rtc_if_set_nego eth1 0 = 0
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
[INFO][rtc_if_set_nego]no need to set eth1 auto-nego off
> OV_IntfSetDuplexAndSpeed eth1 0 0 = 0
[ERROR][OV_IntfSetDuplexAndSpeed]Get U32 error SourceStr(fast)
| ethtool -s eth1 speed 0 duplex half
> read 0 eth1 128 = 0 15
$ cd /sys/class/net/eth1; echo fullest >duplex; : >speed; : >mtu; fake ethtool 'echo Auto-negotiation: onward'
> rtc_if_set_mode eth1 1 = 0
| ethtool -s eth1  duplex full
> rtc_if_set_nego eth1 1 = 0
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
| ethtool -s eth1 autoneg on
> rtc_if_set_speed eth1 0 = 0
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]read empty string from(/sys/class/net//eth1/speed)
| ethtool -s eth1 speed 0
> read 0 eth1 128 = -9
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]read empty string from(/sys/class/net//eth1/mtu)
$ rm /sys/class/net/eth1/duplex; fake ethtool 'echo Auto-negotiation:'; fake ifconfig 'echo txqueuelen'
> rtc_if_set_mode eth1 0 = 0
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]open file /sys/class/net//eth1/duplex error(2: No such file or directory)
| ethtool -s eth1  duplex half
> OV_IntfSetDuplexAndSpeed eth1 1 0 = 0
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]open file /sys/class/net//eth1/duplex error(2: No such file or directory)
| ethtool -s eth1 speed 0 duplex full
> rtc_if_set_nego eth1 0 = 0
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
| ethtool -s eth1 autoneg off
> read 3 eth1 128 = -11
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
> read 4 eth1 128 = -11
|< ifconfig eth1 |grep "txqueuelen" 2>&1
$ umount /sys/class/net; rm /run/commands/ethtool /run/commands/ifconfig
> read 0 eth1 128 = 0 1400
> read 0 eth1 3 = 0 14
> read 0 eth1 0 = 0
> read 2 eth1 128 = 0 full
> read 3 eth1 3 = 0 of
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
> read 3 none 9 = -11
|< ethtool none |grep "Auto-negotiation:" 2>&1
> read 3 0123456789abc 9 = -3
> read 4 eth1 5 = 0 4000
|< ifconfig eth1 |grep "txqueuelen" 2>&1
> read 4 eth1 4 = -22
|< ifconfig eth1 |grep "txqueuelen" 2>&1
> read 4 eth1 0 = 0
|< ifconfig eth1 |grep "txqueuelen" 2>&1
> read 4 0123456789abcdefghi 9 = -3
> read 5 eth1 9 = -4
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]get sys file path error(type: 5)
> path 0 eth1 25 = -3
> path 0 eth1 26 = 0 /sys/class/net//eth1/mtu
> path 1 eth1 64 = 0 /sys/class/net//eth1/speed
> path 2 eth1 64 = 0 /sys/class/net//eth1/duplex
> path 3 eth1 64 = -4
> config 3 eth1 1 192.168.1.10/24 1.0.0.1/0 fd05::1:2/64 fd05::7/0 = 0
| ip addr replace 192.168.1.10/24 dev eth1 broadcast 192.168.1.255
| ip addr replace 1.0.0.1/32 dev eth1 broadcast 1.0.0.1
| ip -6 addr replace fd05::1:2/64 dev eth1
| ip -6 addr replace fd05::7/128 dev eth1
eth1,down,mtu:1400,txqlen:4000,mac:11,[192.168.1.10/24,broadcast:192.168.1.255,1.0.0.1/32,broadcast:1.0.0.1,fd05::7/128,fd05::1:2/64]
> config 3 eth1 0 = 0
| ip addr flush dev eth1
| ip -6 addr flush dev eth1
eth1,down,mtu:1400,txqlen:4000,mac:11,[]
> config 3 eth1 1 = 0
> config 3 eth1 1 fd05::1/64 fd05::2/64 = 0
| ip -6 addr replace fd05::1/64 dev eth1
| ip -6 addr replace fd05::2/64 dev eth1
eth1,down,mtu:1400,txqlen:4000,mac:11,[fd05::2/64,fd05::1/64]
> config 3 eth1 1 1.1.1.1/30 1.2.0.0/33 1.3.0.0/8 fd05::3/64 = -1
| ip addr replace 1.1.1.1/30 dev eth1 broadcast 1.1.1.3
| ip addr replace 1.2.0.0/33 dev eth1 broadcast 255.255.255.255, failed
[ERROR][_OV_RTCIntfSetIPMul]Set interface eth1 1.2.0.0/33 failed(1:Operation not permitted)
[ERROR][_OV_RTCIntfStatic]Set ipv4 addr failed(1:Operation not permitted)
eth1,down,mtu:1400,txqlen:4000,mac:11,[1.1.1.1/30,broadcast:1.1.1.3,fd05::2/64,fd05::1/64]
> config 3 eth1 1 1.1.1.1/30 fd05::3/200 fd05::4/64 = -1
| ip addr replace 1.1.1.1/30 dev eth1 broadcast 1.1.1.3
| ip -6 addr replace fd05::3/200 dev eth1, failed
[ERROR][_OV_RTCIntfSetIpv6Addr]Set interface eth1 ipv6 addr fd05::3/200 failed
[ERROR][_OV_RTCIntfStatic]Set ipv6 addr failed(1:Operation not permitted)
> config 3 eth1 1 1.1.1.1/1 1.1.1.2/1 1.1.1.3/1 1.1.1.4/1 1.1.1.5/1 1.1.1.6/1 1.1.1.7/1 1.1.1.8/1 1.1.1.9/1 = -22
> OV_RTCIntfDelIP eth1 1.1.1.1 30 = 0
| ip addr del 1.1.1.1/30 dev eth1
eth1,down,mtu:1400,txqlen:4000,mac:11,[fd05::2/64,fd05::1/64]
> OV_RTCIntfDelIP eth1 1.1.1.1 30 = -1
| ip addr del 1.1.1.1/30 dev eth1, failed
> OV_RTCIntfDelIP eth1 0.0.0.0 30 = -1
> OV_RTCIntfDelIP NULL 1.1.1.1 30 = -1
> rtc_if_set_ip NULL 1.1.1.1 30 = -1
> rtc_if_flush_ip = -1
> OV_RTCIntfFlushIpv6Addr = -1
> config 3 none 0 = -1
| ip addr flush dev none, failed
[ERROR][_OV_RTCIntfStatic]Flush ipv4 addr for none failed
$ fake ip '[ $1 != -6 ]'
> config 3 eth1 0 = -1
| ip addr flush dev eth1
| ip -6 addr flush dev eth1, failed
[ERROR][_OV_RTCIntfStatic]Flush ipv6 addr for eth1 failed
$ rm /run/commands/ip
> rtc_if_set_method eth1 = 0
> config 5 eth1 1 = 0
| echo 1 > /proc/sys/net/ipv4/conf/eth1/proxy_arp
$ cat /proc/sys/net/ipv4/conf/eth1/proxy_arp
1
> config 5 eth1 0 = 0
| echo 0 > /proc/sys/net/ipv4/conf/eth1/proxy_arp
$ cat /proc/sys/net/ipv4/conf/eth1/proxy_arp
0
> config 4 eth1 1 4 apn.net = 0
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down
| ECM_DEMO -t up -a apn.net
> config 4 eth1 0 4 apn.net = 0
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down 
$ ran
/run/checkout: /run/commands/ECM_DEMO -t down
/run/checkout: /run/commands/ECM_DEMO -t up -a apn.net
/run/checkout: /run/commands/ECM_DEMO -t down
> config 2 eth1 1 user word = -1
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 1\npassword word\nuser user\neth1\neth1\nnoauth" > /etc/ppp/peers/eth1, failed
[ERROR][_OV_RTCIntfPppoe]pppoe options set failed(1:Operation not permitted)
> rtc_if_pppoe_start eth1 = 0
| ps aux | grep "pppd call eth1" | grep -v grep, failed
[DEBUG][_create_script4ipup]Can't open /etc/ppp//ip-up.local.eth1
| pppd call eth1 &
$ ran && running 1 'pppd call eth1' && mkdir -p /etc/ppp/peers
pppd call eth1
> config 2 eth1 1 user word = 0
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 1\npassword word\nuser user\neth1\neth1\nnoauth" > /etc/ppp/peers/eth1
| ps aux | grep "pppd call eth1" | grep -v grep
| pkill -9 -f "pppd call eth1"
| pppd call eth1 &
$ ran && running 1 'pppd call eth1' && cd /etc/ppp && stat -c %a ip-up.local.eth1 && cat -A peers/eth1 ip-up.local.eth1
pppd call eth1
777
plugin rp-pppoe.so$
persist$
holdoff 5$
usepeerdns$
maxfail 0$
unit 1$
password word$
user user$
eth1$
eth1$
noauth$
#!/bin/sh$
[[ "$2" == "eth1" ]] && {$
          interface=$1$
 ^I    ipaddr=$4$
         gateway=$5$
         type=RouteUpdate$
         empty=0.0.0.0$
         /bin/corsin/msg-fifo.sh $type ${interface} ${gateway} ${ipaddr} 32 pppoe ${DNS1:-$empty} ${DNS2:-$empty}$
         }
$ cd /etc/ppp; for link in eth2 eth1; do DNS1=9.9.9.9 ./ip-up.local.eth1 ppp1 $link 0 10.0.0.2 10.0.0.1 || true; done; ran
/etc/ppp: /bin/corsin/msg-fifo.sh RouteUpdate ppp1 10.0.0.1 10.0.0.2 32 pppoe 9.9.9.9 0.0.0.0
> config 2 eth1 0 = 0
| ps aux | grep "pppd call eth1" | grep -v grep
| pkill -9 -f "pppd call eth1"
$ running 0 'pppd call eth1' && cd /etc/ppp && stat -c %a ip-up.local.eth1 && chmod 777 ip-up.local.eth1
666
> OV_StopPPPDProcess eth1 = 0
| ps aux | grep "pppd call eth1" | grep -v grep, failed
$ stat -c %a /etc/ppp/ip-up.local.eth1; fake ps 'echo pppd call eth1'; fake pkill 'exit 1'
666
> config 2 eth1 0 = -1
| ps aux | grep "pppd call eth1" | grep -v grep
| pkill -9 -f "pppd call eth1", failed
[ERROR][_OV_RTCIntfPppoe]Stop pppd failed(1:Operation not permitted)
$ rm /run/commands/ps /run/commands/pkill
> rtc_if_pppoe_set "x " eth = 0
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 0\nx noauth" > /etc/ppp/peers/eth
> rtc_if_pppoe_set "x " eth258 = 0
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 2\nx noauth" > /etc/ppp/peers/eth258
> rtc_if_pppoe_set "x " e = 0
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 0\nx noauth" > /etc/ppp/peers/e
> rtc_if_pppoe_set NULL eth1 = -1
> rtc_if_pppoe_set x = -1
> rtc_if_pppoe_start = -1
> OV_StopPPPDProcess = -1
> rtc_is_inf_pppoe eth1 = 0
| ip addr show  2>/dev/null
> rtc_is_inf_pppoe eth12 = -1
| ip addr show p 2>/dev/null, failed
> rtc_is_inf_pppoe eth1234567890123 = -1
| ip addr show ppp12345678 2>/dev/null, failed
> rtc_is_inf_pppoe = -1
> config 1 eth1 0 = 0
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
> rtc_if_dhcpclient_enable eth1 = 0
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
| /sbin/dhclient eth1 --no-pid -nw
$ ran && running 1 '/sbin/dhclient eth1' && /sbin/dhclient eth1 && ran && running 2 '/sbin/dhclient eth1'
/sbin/dhclient eth1 --no-pid -nw
/sbin/dhclient eth1
> config 1 eth1 1 = 0
kill it 9
kill it 9
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
| /sbin/dhclient eth1 --no-pid -nw
$ ran && running 1 '/sbin/dhclient eth1'
/sbin/dhclient eth1 --no-pid -nw
> rtc_if_dhcpclient_disable eth1 = 0
kill it 9
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
$ running 0 '/sbin/dhclient eth1'; fake ps 'for p in 99999999 1 0 -1 12x 99999998; do echo root $p /sbin/dhclient eth1; done'
> rtc_if_dhcpclient_disable eth1 = -1
kill 99999999 9
kill 99999998 9
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
$ rm /run/commands/ps
> rtc_if_dhcpclient_enable = -1
> rtc_if_dhcpclient_disable = -1
> OV_RTCIfFdirRssEnableRssAllInterfaces = -2
[ERROR][_OV_RTCIfFdirRssCheckScript]IfFdirRss: stat(/bin/corsin/if_fdir_rss/configure_eth_rxq_irq_rss.sh) fails
[ERROR][_OV_RTCIfFdirRssEnableRssOneOrAllInterfaces]IfFdirRss: _OV_RTCIfFdirRssCheckScript(configure_eth_rxq_irq_rss.sh) fails
> OV_RTCIfFdirRssEnableFdirOneInterface eth1 = -2
[ERROR][_OV_RTCIfFdirRssCheckScript]IfFdirRss: stat(/bin/corsin/if_fdir_rss/configure_eth_fdir.sh) fails
[ERROR][_OV_RTCIfFdirRssEnableOrDisableFdirOneInterface]IfFdirRss: _OV_RTCIfFdirRssCheckScript(configure_eth_fdir.sh) fails
> OV_RTCIfSepSaEnableOneInterface eth1 10.0.0.1 4500 = -2
[WARN][_OV_RTCIfSepSaCheckScriptExist]SEPSA: stat(/bin/corsin/if_fdir_rss/configure_if_sepsa.sh) fails
[WARN][OV_RTCIfSepSaEnableOneInterface]SEPSA: _OV_RTCIfSepSaCheckScriptExist() fails, script may not exist
> OV_RTCIfSepSaDisableAllInterface = -2
[WARN][_OV_RTCIfSepSaCheckScriptExist]SEPSA: stat(/bin/corsin/if_fdir_rss/configure_if_sepsa.sh) fails
[WARN][OV_RTCIfSepSaDisableAllInterface]SEPSA: _OV_RTCIfSepSaCheckScriptExist() fails, script may not exist
> OV_RTCIfSoftRssDisableAllInterface = -2
[WARN][_OV_RTCIfSoftRssCheckScriptExist]SoftRss: stat(/bin/corsin/if_fdir_rss/configure_if_softrss.sh) fails
[WARN][OV_RTCIfSoftRssDisableAllInterface]SoftRss: _OV_RTCIfSoftRssCheckScriptExist() fails, script may not exist
> OV_RTCIfFdirRssEnableRssOneInterface none = -19
[ERROR][_OV_RTCIfFdirRssEnableRssOneOrAllInterfaces]IfFdirRss: no such interface
> OV_RTCIfFdirRssEnableRssOneInterface = -19
[ERROR][_OV_RTCIfFdirRssEnableRssOneOrAllInterfaces]IfFdirRss: no such interface
> OV_RTCIfFdirRssEnableFdirOneInterface none = -19
[ERROR][_OV_RTCIfFdirRssEnableOrDisableFdirOneInterface]IfFdirRss: no such interface
> OV_RTCIfSepSaEnableOneInterface none 10.0.0.1 4500 = -19
[WARN][OV_RTCIfSepSaEnableOneInterface]SEPSA: no such interface
$ for script in eth_rxq_irq_rss eth_fdir if_sepsa if_softrss; do record /bin/corsin/if_fdir_rss/configure_$script.sh; done
> OV_RTCIfFdirRssEnableRssAllInterfaces = 0
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh  
> rtc_if_up eth1 = 0
| ifconfig eth1 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh eth1
eth1,up,mtu:1400,txqlen:4000,mac:11,[]
> OV_RTCIfFdirRssEnableFdirOneInterface eth1 = 0
| cd /bin/corsin/if_fdir_rss && ./configure_eth_fdir.sh eth1 on hw
> OV_RTCIfFdirRssDisableFdirOneInterface eth1 = 0
| cd /bin/corsin/if_fdir_rss && ./configure_eth_fdir.sh eth1 off hw
> OV_RTCIfSepSaEnableOneInterface eth1 10.0.0.1 65535 = 0
[INFO][OV_RTCIfSepSaEnableOneInterface]SEPSA: execute: /bin/corsin/if_fdir_rss/configure_if_sepsa.sh on eth1 10.0.0.1 65535
| /bin/corsin/if_fdir_rss/configure_if_sepsa.sh on eth1 10.0.0.1 65535
> OV_RTCIfSepSaDisableAllInterface = 0
[INFO][OV_RTCIfSepSaDisableAllInterface]SEPSA: execute: /bin/corsin/if_fdir_rss/configure_if_sepsa.sh off
| /bin/corsin/if_fdir_rss/configure_if_sepsa.sh off
> OV_RTCIfSoftRssDisableAllInterface = 0
[INFO][OV_RTCIfSoftRssDisableAllInterface]SoftRss: execute: /bin/corsin/if_fdir_rss/configure_if_softrss.sh off all
| /bin/corsin/if_fdir_rss/configure_if_softrss.sh off all
$ ran
/bin/corsin/if_fdir_rss: ./configure_eth_rxq_irq_rss.sh 
/bin/corsin/if_fdir_rss: ./configure_eth_rxq_irq_rss.sh eth1
/bin/corsin/if_fdir_rss: ./configure_eth_fdir.sh eth1 on hw
/bin/corsin/if_fdir_rss: ./configure_eth_fdir.sh eth1 off hw
/run/checkout: /bin/corsin/if_fdir_rss/configure_if_sepsa.sh on eth1 10.0.0.1 65535
/run/checkout: /bin/corsin/if_fdir_rss/configure_if_sepsa.sh off
/run/checkout: /bin/corsin/if_fdir_rss/configure_if_softrss.sh off all
$ fake /bin/corsin/if_fdir_rss/configure_eth_fdir.sh 'exit 3'
> OV_RTCIfFdirRssEnableFdirOneInterface eth1 = -1
| cd /bin/corsin/if_fdir_rss && ./configure_eth_fdir.sh eth1 on hw, failed
)";
