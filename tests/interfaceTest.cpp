/* Settings of an interface: a command that is another by a blank or a word, one that runs although
 * the setting is in place or is left out although it is not, half a command that runs, a refusal
 * with the wrong code, a file that pppd or the shell reads otherwise, a client that is not killed
 * or a process killed that is none, a text read past its end. */
#include "linuxRtcInterface.h"
#include "linuxRtcInterfaceInternal.h"
#include "orvaneLibrtcLog.h"
#include "testSupport.h"

#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

/* In front of the real one, which a wrong number must not reach. None is past four million. */
extern "C" int kill(pid_t Process, int Signal) noexcept
{
    const bool IsReal = Process > 1 && Process < 1 << 22;

    OV_LOG_INFO("%s %d", IsReal ? "it" : std::to_string(Process).c_str(), Signal);
    return Process > 1 ? static_cast<int>(syscall(SYS_kill, Process, Signal)) : -1;
}

/* "type interface enable value...": the record ends where memory does. */
static std::string Config(STRINGS Words)
{
    OV_RTC_INTF_CONFIG Conf = {};
    const auto Put = [](const std::string &Word, auto &Field) { Word.copy(Field, sizeof(Field)); };
    const bool IsNull = Words.empty();

    Words.resize(std::max<size_t>(Words.size(), 5));
    Conf.Type = STORY_WORD(Words[0]);
    Put(Words[1], Conf.IfName);
    Conf.Enable = STORY_WORD(Words[2]);
    if (Conf.Type == OV_RTC_INTF_TYPE_PPPOE) {
        Put(Words[3], Conf.Pppoe.PppoeUser);
        Put(Words[4], Conf.Pppoe.PppoePasswd);
    } else if (Conf.Type == OV_RTC_INTF_TYPE_LTE) {
        Conf.Lte.Carrier = STORY_WORD(Words[3]);
        Put(Words[4], Conf.Lte.Apn);
    } else if (Conf.Type == OV_RTC_INTF_TYPE_MAC) {
        Put(Words[3], Conf.Str);
    } else if (Conf.Type != OV_RTC_INTF_TYPE_STATIC) {
        Conf.Val = STORY_WORD(Words[3]);
    }
    for (size_t At = 3; Conf.Type == OV_RTC_INTF_TYPE_STATIC && !Words[At].empty(); At++) {
        auto &[Ip4, Ip6] = Conf.Static;
        const size_t Slash = Words[At].find('/');
        STORY_WORD Mask(Words[At].substr(Slash + 1));
        const std::string Text = Words[At].substr(0, Slash);
        OV_IN6_ADDR Address;
        const bool IsIp6 = inet_pton(AF_INET6, Text.c_str(), &Address) == 1;
        const uint8_t Index = IsIp6 ? Ip6.IpCnt++ : Ip4.IpCnt++;
        if (IsIp6 && Index < OV_CONF_IP_MAX) {
            Ip6.Ip[Index] = Address;
            Ip6.Mask[Index] = Mask;
        } else if (Index < OV_CONF_IP_MAX) {
            Ip4.Ip[Index] = STORY_WORD(Text);
            Ip4.Mask[Index] = Mask;
        }
        Words.emplace_back();
    }
    const GUARDED_TEXT Record({reinterpret_cast<const char *>(&Conf), sizeof(Conf)});
    const auto *Request = reinterpret_cast<const OV_RTC_INTF_CONFIG *>(Record.Text());
    return std::to_string(OV_RTCIntfConfig(IsNull ? nullptr : Request));
}

/* "setting interface size": what was read behind the result; size 0 is no buffer at all. */
template <int32_t (*Reader)(OV_RTC_L2_CONF_TYPE, const char *, char *, size_t)>
static std::string Read(STRINGS Words)
{
    const size_t Size = STORY_WORD(Words[2]);
    std::vector<char> Text(Size);
    const int32_t Result =
        Reader(STORY_WORD(Words[0]), STORY_WORD(Words[1]), Size ? Text.data() : nullptr, Size);

    return std::to_string(Result) + (Result == 0 && Size ? " " + std::string(Text.data()) : "");
}

static std::string Ip6(STRINGS Words)
{
    const OV_IN6_ADDR Address = {};

    return std::to_string(_OV_RTCIntfSetIpv6Addr(Words[0].c_str(), &Address, 64));
}

static const STORY_CALL_MAP CALLS = STORY_CALLS(
    Config, Ip6, Read<_OV_RTCIfGetCurConfig>, Read<_OV_RTCIfGetSysFilePath>, rtc_if_set_ip,
    OV_RTCIntfDelIP, rtc_if_flush_ip, OV_RTCIntfFlushIpv6Addr, rtc_if_set_method, rtc_if_pppoe_set,
    rtc_if_pppoe_start, OV_StopPPPDProcess, rtc_is_inf_pppoe, rtc_if_dhcpclient_enable,
    rtc_if_dhcpclient_disable, rtc_if_up, rtc_if_down, rtc_if_set_mac, rtc_if_set_mtu,
    rtc_if_set_speed, rtc_if_set_mode, rtc_if_set_nego, OV_IntfSetDuplexAndSpeed,
    OV_RTCIfTxQueueLenSet, OV_RTCSetRxCheckSum, OV_RTCIfFdirRssEnableRssAllInterfaces,
    OV_RTCIfFdirRssEnableRssOneInterface, OV_RTCIfFdirRssEnableFdirOneInterface,
    OV_RTCIfFdirRssDisableFdirOneInterface, OV_RTCIfSepSaEnableOneInterface,
    OV_RTCIfSepSaDisableAllInterface, OV_RTCIfSoftRssDisableAllInterface);

static constexpr char STORY[] = R"(
> Config ; Config 10 eth1 1 ; Config 12 eth1 1 ; Config 0 0123456789abcdef 1 = -22, -22, -22, -22
[ERROR][OV_RTCIntfConfig]input config is null
[ERROR][OV_RTCIntfConfig]input interface name has no end
> Config 0 eth1 0 ; rtc_if_down none ; rtc_if_down = 0, -1, -1
| ifconfig eth1 down
| ifconfig none down, failed
eth1,down,mtu:1500,txqlen:1000,mac:01,[]
> Config 7 eth1 0 1000 = -1
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]read empty string from(/sys/class/net//eth1/speed)
| ethtool -s eth1 speed 1000, failed
> Config 0 eth1 1 ; rtc_if_up none ; rtc_if_up = 0, -1, -1
| ifconfig eth1 up
[ERROR][_OV_RTCIfFdirRssCheckScript]IfFdirRss: stat(/bin/corsin/if_fdir_rss/configure_eth_rxq_irq_rss.sh) fails
[ERROR][_RunInFolder]IfFdirRss: _OV_RTCIfFdirRssCheckScript(configure_eth_rxq_irq_rss.sh) fails
[WARN][rtc_if_up]Enable RSS on eth1, failed
| ifconfig none up, failed
eth1,up,mtu:1500,txqlen:1000,mac:01,[]
> Config 11 eth1 0 02:00:00:00:00:11 = 0
| ifconfig eth1 hw ether 02:00:00:00:00:11
eth1,up,mtu:1500,txqlen:1000,mac:11,[]
> Config 11 eth1 ; rtc_if_set_mac eth1 ; rtc_if_set_mac eth1 x ; rtc_if_set_mac NULL x = 0, -1, -1, -1
[DEBUG][rtc_if_set_mac]strlen(mac)=0 
| ifconfig eth1 hw ether x, failed
> Config 6 eth1 0 1500 ; Config 6 eth1 0 1400 = 0, 0
[INFO][_OV_RTCSetIntfMtu]no need to set eth1 mtu 1500
| ifconfig eth1 mtu 1400
eth1,up,mtu:1400,txqlen:1000,mac:11,[]
> Config 6 eth1 0 4294967295 ; rtc_if_set_mtu 0123456789abcdef 1400 ; rtc_if_set_mtu 0123456789abcde 1400 = -22, -22, -1
[ERROR][_OV_RTCSetIntfMtu]Config Mtu error, param invalid (ifname:eth1 mtu -1)
[ERROR][_OV_RTCSetIntfMtu]Config Mtu error, param invalid (ifname:0123456789abcdef mtu 1400)
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]open file /sys/class/net//0123456789abcde/mtu error(2: No such file or directory)
| ifconfig 0123456789abcde mtu 1400, failed
> OV_RTCIfTxQueueLenSet eth1 1000 ; OV_RTCIfTxQueueLenSet eth1 4000 = 0, 0
|< ifconfig eth1 |grep "txqueuelen" 2>&1
[INFO][OV_RTCIfTxQueueLenSet]no need to set eth1 txqueuelen 1000
|< ifconfig eth1 |grep "txqueuelen" 2>&1
| ifconfig eth1 txqueuelen 4000
eth1,up,mtu:1400,txqlen:4000,mac:11,[]
> OV_RTCIfTxQueueLenSet eth1 0 ; OV_RTCIfTxQueueLenSet NULL 9 = -1, -1
> OV_RTCSetRxCheckSum eth1 0 = 0
| ethtool -K eth1 rx-checksum off
$ ethtool -k eth1 | grep rx-checksumming
rx-checksumming: off
> OV_RTCSetRxCheckSum eth1 2 ; OV_RTCSetRxCheckSum none 1 = 0, -1
| ethtool -K eth1 rx-checksum on
| ethtool -K none rx-checksum on, failed
$ ethtool -k eth1 | grep rx-checksumming
rx-checksumming: on
> Config 9 eth1 0 0 ; Config 9 eth1 0 2 = 0, -1
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
[INFO][rtc_if_set_nego]no need to set eth1 auto-nego off
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
| ethtool -s eth1 autoneg on, failed
> Config 7 eth1 0 10000 ; Config 7 eth1 0 1000 = 0, -1
[INFO][rtc_if_set_speed]no need to set eth1 speed 10000
| ethtool -s eth1 speed 1000, failed
> Config 8 eth1 0 2 ; Config 8 eth1 0 0 = 0, -1
[INFO][rtc_if_set_mode]no need to set eth1 duplex full
| ethtool -s eth1  duplex half, failed
> OV_IntfSetDuplexAndSpeed eth1 2 10000 ; OV_IntfSetDuplexAndSpeed eth1 0 10000 ; OV_IntfSetDuplexAndSpeed eth1 1 4294967295 = 0, -1, -1
[INFO][OV_IntfSetDuplexAndSpeed]no need to set eth1 duplex full, speed 10000
| ethtool -s eth1 speed 10000 duplex half, failed
| ethtool -s eth1 speed 4294967295 duplex full, failed
$ mount -t tmpfs odd /sys/class/net && mkdir /sys/class/net/eth1 && fake ethtool 'echo Auto-negotiation: ON'; cd /sys/class/net/eth1; echo Full >duplex; echo 1000 >speed; printf '%048d\n' 1500 >mtu
> rtc_if_set_mode eth1 1 ; OV_IntfSetDuplexAndSpeed eth1 1 1000 ; rtc_if_set_nego eth1 1 ; Read<_OV_RTCIfGetCurConfig> 0 eth1 128 = 0, 0, 0, 0 00000000000000000000000000000000000000000000150
[INFO][rtc_if_set_mode]no need to set eth1 duplex full
[INFO][OV_IntfSetDuplexAndSpeed]no need to set eth1 duplex full, speed 1000
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
[INFO][rtc_if_set_nego]no need to set eth1 auto-nego on
$ cd /sys/class/net/eth1; echo HALF >duplex; echo fast >speed; printf 15 >mtu; fake ethtool 'echo Auto-negotiation: OFF'
> rtc_if_set_mode eth1 0 ; rtc_if_set_nego eth1 0 ; OV_IntfSetDuplexAndSpeed eth1 0 0 ; rtc_if_set_speed eth1 0 ; Read<_OV_RTCIfGetCurConfig> 0 eth1 128 = 0, 0, 0, 0, 0 15
[INFO][rtc_if_set_mode]no need to set eth1 duplex half
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
[INFO][rtc_if_set_nego]no need to set eth1 auto-nego off
[ERROR][OV_IntfSetDuplexAndSpeed]Get U32 error SourceStr(fast)
| ethtool -s eth1 speed 0 duplex half
[INFO][rtc_if_set_speed]no need to set eth1 speed 0
$ cd /sys/class/net/eth1; echo fullest >duplex; echo 100 >speed; : >mtu; fake ethtool 'echo Auto-negotiation: onward'
> rtc_if_set_mode eth1 1 ; rtc_if_set_nego eth1 1 ; OV_IntfSetDuplexAndSpeed eth1 1 100 ; Read<_OV_RTCIfGetCurConfig> 0 eth1 128 = 0, 0, 0, -9
| ethtool -s eth1  duplex full
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
| ethtool -s eth1 autoneg on
| ethtool -s eth1 speed 100 duplex full
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]read empty string from(/sys/class/net//eth1/mtu)
$ rm /sys/class/net/eth1/duplex; fake ethtool 'echo Auto-negotiation:'; fake ifconfig 'echo txqueuelen'
> OV_IntfSetDuplexAndSpeed eth1 1 100 ; rtc_if_set_nego eth1 0 ; OV_RTCIfTxQueueLenSet eth1 9 = 0, 0, 0
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]open file /sys/class/net//eth1/duplex error(2: No such file or directory)
| ethtool -s eth1 speed 100 duplex full
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
| ethtool -s eth1 autoneg off
|< ifconfig eth1 |grep "txqueuelen" 2>&1
| ifconfig eth1 txqueuelen 9
> Read<_OV_RTCIfGetCurConfig> 3 eth1 128 ; Read<_OV_RTCIfGetCurConfig> 4 eth1 128 = -11, -11
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
|< ifconfig eth1 |grep "txqueuelen" 2>&1
$ umount /sys/class/net; rm /run/commands/ethtool /run/commands/ifconfig
> Read<_OV_RTCIfGetCurConfig> 0 eth1 128 ; Read<_OV_RTCIfGetCurConfig> 0 eth1 3 ; Read<_OV_RTCIfGetCurConfig> 0 eth1 0 ; Read<_OV_RTCIfGetCurConfig> 2 eth1 128 = 0 1400, 0 14, 0, 0 full
> Read<_OV_RTCIfGetCurConfig> 3 eth1 3 ; Read<_OV_RTCIfGetCurConfig> 3 none 9 ; Read<_OV_RTCIfGetCurConfig> 3 0123456789abc 9 = 0 of, -11, -3
|< ethtool eth1 |grep "Auto-negotiation:" 2>&1
|< ethtool none |grep "Auto-negotiation:" 2>&1
> Read<_OV_RTCIfGetCurConfig> 4 eth1 5 ; Read<_OV_RTCIfGetCurConfig> 4 eth1 4 ; Read<_OV_RTCIfGetCurConfig> 4 0123456789abcdefghi 9 = 0 4000, -22, -3
|< ifconfig eth1 |grep "txqueuelen" 2>&1
|< ifconfig eth1 |grep "txqueuelen" 2>&1
> Read<_OV_RTCIfGetCurConfig> 5 eth1 9 ; Read<_OV_RTCIfGetCurConfig> 0 NULL 9 ; Read<_OV_RTCIfGetCurConfig> 3 NULL 9 ; Read<_OV_RTCIfGetCurConfig> 4 NULL 9 = -4, -3, -3, -3
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]get sys file path error(type: 5)
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]get sys file path error(type: 0)
> Read<_OV_RTCIfGetSysFilePath> 0 eth1 25 ; Read<_OV_RTCIfGetSysFilePath> 0 eth1 26 ; Read<_OV_RTCIfGetSysFilePath> 1 e 64 ; Read<_OV_RTCIfGetSysFilePath> 2 e 64 ; Read<_OV_RTCIfGetSysFilePath> 3 e 64 = -3, 0 /sys/class/net//eth1/mtu, 0 /sys/class/net//e/speed, 0 /sys/class/net//e/duplex, -4
> Config 3 eth1 1 192.168.1.10/24 1.0.0.1/0 fd05::1:2/64 fd05::7/0 = 0
| ip addr replace 192.168.1.10/24 dev eth1 broadcast 192.168.1.255
| ip addr replace 1.0.0.1/32 dev eth1 broadcast 1.0.0.1
| ip -6 addr replace fd05::1:2/64 dev eth1
| ip -6 addr replace fd05::7/128 dev eth1
eth1,up,mtu:1400,txqlen:4000,mac:11,[192.168.1.10/24,broadcast:192.168.1.255,1.0.0.1/32,broadcast:1.0.0.1,fd05::7/128,fd05::1:2/64]
> Config 3 eth1 0 ; Config 3 eth1 1 = 0, 0
| ip addr flush dev eth1
| ip -6 addr flush dev eth1
eth1,up,mtu:1400,txqlen:4000,mac:11,[]
> Config 3 eth1 1 fd05::1/64 fd05::2/64 = 0
| ip -6 addr replace fd05::1/64 dev eth1
| ip -6 addr replace fd05::2/64 dev eth1
eth1,up,mtu:1400,txqlen:4000,mac:11,[fd05::2/64,fd05::1/64]
> Config 3 eth1 1 1.1.1.1/30 1.2.0.0/33 1.3.0.0/8 fd05::3/64 = -1
| ip addr replace 1.1.1.1/30 dev eth1 broadcast 1.1.1.3
| ip addr replace 1.2.0.0/33 dev eth1 broadcast 255.255.255.255, failed
[ERROR][_OV_RTCIntfSetIPMul]Set interface eth1 1.2.0.0/33 failed(1:Operation not permitted)
[ERROR][_SetStatic]Set ipv4 addr failed(1:Operation not permitted)
eth1,up,mtu:1400,txqlen:4000,mac:11,[1.1.1.1/30,broadcast:1.1.1.3,fd05::2/64,fd05::1/64]
> Config 3 eth1 1 1.1.1.1/30 fd05::3/200 fd05::4/64 = -1
| ip addr replace 1.1.1.1/30 dev eth1 broadcast 1.1.1.3
| ip -6 addr replace fd05::3/200 dev eth1, failed
[ERROR][_OV_RTCIntfSetIpv6Addr]Set interface eth1 ipv6 addr fd05::3/200 failed
[ERROR][_SetStatic]Set ipv6 addr failed(1:Operation not permitted)
> Config 3 eth1 1 1.1.1.1/1 1.1.1.2/1 1.1.1.3/1 1.1.1.4/1 1.1.1.5/1 1.1.1.6/1 1.1.1.7/1 1.1.1.8/1 1.1.1.9/1 = -22
[ERROR][_SetStatic]too many addresses(IpCnt = 9 and 0)
> Config 3 eth1 1 1.1.1.1/1 fd::1/1 fd::2/1 fd::3/1 fd::4/1 fd::5/1 fd::6/1 fd::7/1 fd::8/1 fd::9/1 = -22
[ERROR][_SetStatic]too many addresses(IpCnt = 1 and 9)
> OV_RTCIntfDelIP eth1 1.1.1.1 30 ; OV_RTCIntfDelIP eth1 1.1.1.1 30 ; OV_RTCIntfDelIP eth1 0.0.0.0 30 = 0, -1, -1
| ip addr del 1.1.1.1/30 dev eth1
| ip addr del 1.1.1.1/30 dev eth1, failed
eth1,up,mtu:1400,txqlen:4000,mac:11,[fd05::2/64,fd05::1/64]
> Config 3 none 0 ; rtc_if_set_ip eth1 1.1.1.1 0 ; rtc_if_set_method eth1 = -1, 0, 0
| ip addr flush dev none, failed
[ERROR][_FlushStatic]Flush ipv4 addr for none failed
| ip addr replace 1.1.1.1/0 dev eth1 broadcast 255.255.255.255
eth1,up,mtu:1400,txqlen:4000,mac:11,[1.1.1.1/0,broadcast:255.255.255.255,fd05::2/64,fd05::1/64]
$ fake ip '[ $1 != -6 ] && exec /sbin/ip "$@"'
> Config 3 eth1 0 = -1
| ip addr flush dev eth1
| ip -6 addr flush dev eth1, failed
[ERROR][_FlushStatic]Flush ipv6 addr for eth1 failed
eth1,up,mtu:1400,txqlen:4000,mac:11,[]
> Config 5 eth1 1 ; Config 5 eth1 0 ; Config 5 none 1 = 0, 0, -1
| echo 1 > /proc/sys/net/ipv4/conf/eth1/proxy_arp
| echo 0 > /proc/sys/net/ipv4/conf/eth1/proxy_arp
| echo 1 > /proc/sys/net/ipv4/conf/none/proxy_arp, failed
> Config 4 eth1 1 4 apn.net ; Config 4 eth1 = 0, 0
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down
| ECM_DEMO -t up -a apn.net
| ps aux | grep "ECM_DEMO" | grep -v grep, failed
| ECM_DEMO -t down 
> Config 2 eth1 1 user word = -1
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 1\npassword word\nuser user\neth1\neth1\nnoauth" > /etc/ppp/peers/eth1, failed
[ERROR][_StartPppoe]pppoe options set failed(1:Operation not permitted)
> rtc_if_pppoe_start eth1 = 0
| ps aux | grep "pppd call eth1" | grep -v grep, failed
[DEBUG][_create_script4ipup]Can't open /etc/ppp//ip-up.local.eth1
| pppd call eth1 &
$ rm /run/commands/ip; mkdir -p /etc/ppp/peers && ran && running 1 'pppd call eth1'
pppd call eth1
> Config 2 eth1 1 user word = 0
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
> Config 2 eth1 ; OV_StopPPPDProcess eth1 = 0, 0
| ps aux | grep "pppd call eth1" | grep -v grep
| pkill -9 -f "pppd call eth1"
| ps aux | grep "pppd call eth1" | grep -v grep, failed
$ running 0 'pppd call eth1'; cd /etc/ppp; stat -c %a ip-up.local.eth1; chmod 777 ip-up.local.eth1
666
> OV_StopPPPDProcess eth1 = 0
| ps aux | grep "pppd call eth1" | grep -v grep, failed
$ stat -c %a /etc/ppp/ip-up.local.eth1; fake ps 'echo pppd call eth1'; fake pkill 'exit 1'
666
> Config 2 eth1 = -1
| ps aux | grep "pppd call eth1" | grep -v grep
| pkill -9 -f "pppd call eth1", failed
[ERROR][_StopPppoe]Stop pppd failed(1:Operation not permitted)
$ rm /run/commands/ps /run/commands/pkill
> rtc_if_pppoe_set "" e ; rtc_if_pppoe_set "" eth ; rtc_if_pppoe_set "" eth258 ; rtc_if_pppoe_set "" eth7.5 = 0, 0, 0, 0
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 0\nnoauth" > /etc/ppp/peers/e
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 0\nnoauth" > /etc/ppp/peers/eth
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 2\nnoauth" > /etc/ppp/peers/eth258
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 7\nnoauth" > /etc/ppp/peers/eth7.5
> Config 2 eth2 1 0123456789012345678901234567890123456789012345678901234567890123 abcdefghijabcdefghijabcdefghij0123456 ; Config 2 eth2 1 0123456789012345678901234567890123456789012345678901234567890123 abcdefghijabcdefghijabcdefghij01234567 ; Config 2 eth2 = 0, -75, 0
| echo "plugin rp-pppoe.so\npersist\nholdoff 5\nusepeerdns\nmaxfail 0\nunit 2\npassword abcdefghijabcdefghijabcdefghij0123456\nuser 0123456789012345678901234567890123456789012345678901234567890123\neth2\neth2\nnoauth" > /etc/ppp/peers/eth2
| ps aux | grep "pppd call eth2" | grep -v grep, failed
| pppd call eth2 &
[ERROR][_ComposePppoeOptions]pppoe options is overflow
| ps aux | grep "pppd call eth2" | grep -v grep
| pkill -9 -f "pppd call eth2"
$ running 0 'pppd call eth2' && rm -f /run/ran
> rtc_is_inf_pppoe eth1 ; rtc_is_inf_pppoe eth ; rtc_is_inf_pppoe eth12 ; rtc_is_inf_pppoe eth1234567890123 = 0, -1, -1, -1
| ip addr show  2>/dev/null
| ip addr show ppp 2>/dev/null, failed
| ip addr show p 2>/dev/null, failed
| ip addr show ppp123456789 2>/dev/null, failed
> Config 1 eth1 = 0
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
> Config 1 eth1 1 = 0
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
| /sbin/dhclient eth1 --no-pid -nw
$ ran && /sbin/dhclient eth1 && ran && running 2 '/sbin/dhclient eth1'
/sbin/dhclient eth1 --no-pid -nw
/sbin/dhclient eth1
> rtc_if_dhcpclient_enable eth1 = 0
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
[INFO][kill]it 9
[INFO][kill]it 9
| /sbin/dhclient eth1 --no-pid -nw
$ ran && running 1 '/sbin/dhclient eth1'
/sbin/dhclient eth1 --no-pid -nw
> rtc_if_dhcpclient_disable eth1 = 0
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
[INFO][kill]it 9
$ running 0 '/sbin/dhclient eth1'; fake ps 'for p in 99999999 1 0 -1 12x 99999998; do echo root $p /sbin/dhclient eth1; done'
> rtc_if_dhcpclient_disable eth1 = -1
|< ps aux |grep "/sbin/dhclient eth1" |                 grep -v grep |awk '{printf "%s ", $2}' 2>&1
[INFO][kill]99999999 9
[INFO][kill]99999998 9
> rtc_if_dhcpclient_enable ; rtc_if_dhcpclient_disable ; rtc_is_inf_pppoe ; rtc_if_pppoe_set "" ; rtc_if_pppoe_set NULL eth1 ; rtc_if_pppoe_start ; OV_StopPPPDProcess = -1, -1, -1, -1, -1, -1, -1
> rtc_if_flush_ip "" ; OV_RTCIntfFlushIpv6Addr "" ; rtc_if_up "" ; OV_StopPPPDProcess "" ; rtc_if_dhcpclient_disable "" = -1, -1, -1, -1, -1
> OV_RTCIntfDelIP NULL 1.1.1.1 30 ; rtc_if_set_ip NULL 1.1.1.1 30 ; rtc_if_flush_ip ; OV_RTCIntfFlushIpv6Addr ; OV_RTCSetRxCheckSum ; OV_IntfSetDuplexAndSpeed = -1, -1, -1, -1, -1, -1
[ERROR][_OV_RTCIfGetCurConfigFromSysFile]get sys file path error(type: 2)
> OV_RTCIfFdirRssEnableRssAllInterfaces ; OV_RTCIfFdirRssEnableFdirOneInterface eth1 ; OV_RTCIfSepSaEnableOneInterface eth1 10.0.0.1 4500 ; OV_RTCIfSepSaDisableAllInterface ; OV_RTCIfSoftRssDisableAllInterface = -2, -2, -2, -2, -2
[ERROR][_OV_RTCIfFdirRssCheckScript]IfFdirRss: stat(/bin/corsin/if_fdir_rss/configure_eth_rxq_irq_rss.sh) fails
[ERROR][_RunInFolder]IfFdirRss: _OV_RTCIfFdirRssCheckScript(configure_eth_rxq_irq_rss.sh) fails
[ERROR][_OV_RTCIfFdirRssCheckScript]IfFdirRss: stat(/bin/corsin/if_fdir_rss/configure_eth_fdir.sh) fails
[ERROR][_RunInFolder]IfFdirRss: _OV_RTCIfFdirRssCheckScript(configure_eth_fdir.sh) fails
[WARN][_CheckScriptExist]SEPSA: stat(/bin/corsin/if_fdir_rss/configure_if_sepsa.sh) fails
[WARN][_RunByPath]SEPSA: _OV_RTCIfSepSaCheckScriptExist() fails, script may not exist
[WARN][_CheckScriptExist]SEPSA: stat(/bin/corsin/if_fdir_rss/configure_if_sepsa.sh) fails
[WARN][_RunByPath]SEPSA: _OV_RTCIfSepSaCheckScriptExist() fails, script may not exist
[WARN][_CheckScriptExist]SoftRss: stat(/bin/corsin/if_fdir_rss/configure_if_softrss.sh) fails
[WARN][_RunByPath]SoftRss: _OV_RTCIfSoftRssCheckScriptExist() fails, script may not exist
> OV_RTCIfFdirRssEnableRssOneInterface none ; OV_RTCIfFdirRssEnableRssOneInterface ; OV_RTCIfFdirRssEnableFdirOneInterface none ; OV_RTCIfSepSaEnableOneInterface none 10.0.0.1 4500 = -19, -19, -19, -19
[ERROR][_OV_RTCIfFdirRssEnableRssOneOrAllInterfaces]IfFdirRss: no such interface
[ERROR][_OV_RTCIfFdirRssEnableRssOneOrAllInterfaces]IfFdirRss: no such interface
[ERROR][_OV_RTCIfFdirRssEnableOrDisableFdirOneInterface]IfFdirRss: no such interface
[WARN][OV_RTCIfSepSaEnableOneInterface]SEPSA: no such interface
$ rm /run/commands/ps; for script in eth_rxq_irq_rss eth_fdir if_sepsa if_softrss; do record /bin/corsin/if_fdir_rss/configure_$script.sh; done
> OV_RTCIfFdirRssEnableRssAllInterfaces ; rtc_if_up eth1 = 0, 0
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh  
| ifconfig eth1 up
| cd /bin/corsin/if_fdir_rss && ./configure_eth_rxq_irq_rss.sh eth1
> OV_RTCIfFdirRssEnableFdirOneInterface eth1 ; OV_RTCIfFdirRssDisableFdirOneInterface eth1 = 0, 0
| cd /bin/corsin/if_fdir_rss && ./configure_eth_fdir.sh eth1 on hw
| cd /bin/corsin/if_fdir_rss && ./configure_eth_fdir.sh eth1 off hw
> OV_RTCIfSepSaEnableOneInterface eth1 10.0.0.1 65535 ; OV_RTCIfSepSaDisableAllInterface ; OV_RTCIfSoftRssDisableAllInterface = 0, 0, 0
[INFO][_RunByPath]SEPSA: execute: /bin/corsin/if_fdir_rss/configure_if_sepsa.sh on eth1 10.0.0.1 65535
| /bin/corsin/if_fdir_rss/configure_if_sepsa.sh on eth1 10.0.0.1 65535
[INFO][_RunByPath]SEPSA: execute: /bin/corsin/if_fdir_rss/configure_if_sepsa.sh off
| /bin/corsin/if_fdir_rss/configure_if_sepsa.sh off
[INFO][_RunByPath]SoftRss: execute: /bin/corsin/if_fdir_rss/configure_if_softrss.sh off all
| /bin/corsin/if_fdir_rss/configure_if_softrss.sh off all
$ ran | sed 's/.*: //'
./configure_eth_rxq_irq_rss.sh 
./configure_eth_rxq_irq_rss.sh eth1
./configure_eth_fdir.sh eth1 on hw
./configure_eth_fdir.sh eth1 off hw
/bin/corsin/if_fdir_rss/configure_if_sepsa.sh on eth1 10.0.0.1 65535
/bin/corsin/if_fdir_rss/configure_if_sepsa.sh off
/bin/corsin/if_fdir_rss/configure_if_softrss.sh off all
$ fake /bin/corsin/if_fdir_rss/configure_eth_fdir.sh 'exit 3'
> OV_RTCIfFdirRssEnableFdirOneInterface eth1 = -1
| cd /bin/corsin/if_fdir_rss && ./configure_eth_fdir.sh eth1 on hw, failed
)";

TEST(Interface, TheStory)
{
    RecordLog();
    InstallStoryCommands();
    Shell("cd /proc/sys/net/ipv6/conf/default && echo 1 >addr_gen_mode && echo 0 >accept_dad &&"
          "ip link add eth1 address 02:00:00:00:00:01 type veth peer name eth2 &&"
          "ip link set eth1 up && ip link set eth2 up &&"
          "fake ECM_DEMO true && record /bin/corsin/msg-fifo.sh &&"
          "fake pppd 'echo pppd $* >>/run/ran; exec -a \"pppd $*\" sleep 99' &&"
          "fake /sbin/dhclient 'echo $0 $* >>/run/ran; (exec -a \"$0 $*\" sleep 99) &'");
    EXPECT_EQ(RetellCalls(STORY + 1, CALLS), STORY + 1);
}

TEST(Interface, HalfACommandIsNotRun)
{
    RecordLog();
    for (const char *Line :
         {"rtc_if_set_ip NAME 1.1.1.1 24", "OV_RTCIntfDelIP NAME 1.1.1.1 24", "rtc_if_up NAME",
          "rtc_if_flush_ip NAME", "OV_RTCIntfFlushIpv6Addr NAME", "rtc_if_down NAME",
          "rtc_if_pppoe_set \"\" NAME", "rtc_if_pppoe_set NAME eth1", "rtc_if_set_mac NAME x",
          "rtc_if_set_speed NAME 1", "rtc_if_set_mode NAME 1", "rtc_if_set_nego NAME 1",
          "OV_RTCIfTxQueueLenSet NAME 1"}) {
        ExpectLimit(CALLS, Line, 511);
    }
    ExpectLimit(CALLS, "OV_RTCSetRxCheckSum NAME 1", 511, std::to_string(-EOVERFLOW));
    ExpectLimit(CALLS, "Ip6 NAME", 511, std::to_string(-EOVERFLOW));
    ExpectLimit(CALLS, "OV_IntfSetDuplexAndSpeed NAME 1 10", 62, std::to_string(-EFAULT));
    ExpectLimit(CALLS, "OV_StopPPPDProcess NAME", 255);
}
