/*
 * rtcMonitor: prints what happens on the appliance, a line an event, until it is interrupted. The
 * tool to start first when something is wrong.
 *
 *   rtcMonitor [-h] [-r] [-v]
 *
 * -r lists the routes that there are before it waits for changes; -v shows the library's log from
 * debug level, not its warnings and errors alone. The log goes to standard error. Without a
 * dispatch service the kernel's events are all that there is. The first SIGINT or SIGTERM waits for
 * an event that is being written, the second does not.
 */
#include "linuxRtcMonitor.h"
#include "orvaneDispatchClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLibrtcMem.h"
#include "orvaneSafeStr.h"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

/* The kernel's names for the states of a bridge port and the origins of a route. */
static constexpr const char *STP_STATES[] = {"disabled", "listening", "learning", "forwarding",
                                             "blocking"};
static constexpr const char *ROUTE_PROTOCOLS[] = {"unspecified", "redirect", "kernel", "boot",
                                                  "static"};

template <size_t COUNT>
static std::string NameOf(const char *const (&Names)[COUNT], unsigned Value)
{
    return Value < COUNT ? Names[Value] : std::to_string(Value);
}

/* A number in host byte order. */
static std::string Ip4Text(uint32_t Ip)
{
    char Text[16];

    snprintf(Text, sizeof(Text), "%u.%u.%u.%u", Ip >> 24, Ip >> 16 & 255, Ip >> 8 & 255, Ip & 255);
    return Text;
}

static std::string Ip6Text(const void *Bytes)
{
    OV_IN6_ADDR Ip;
    char Text[46];

    memcpy(&Ip, Bytes, sizeof(Ip));
    OV_SafeStrFormatIp6Addr(Text, sizeof(Text), &Ip);
    return Text;
}

/* For the main thread: a signal came, or the output is gone. */
static sem_t s_End;
static std::atomic<bool> s_IsOutputLost;

/* Events come on two threads; a line is whole all the same. URLs are other people's text. */
static void Print(std::string Text)
{
    struct timeval Now;
    struct tm Date;
    char Stamp[16];

    gettimeofday(&Now, nullptr);
    localtime_r(&Now.tv_sec, &Date);
    strftime(Stamp, sizeof(Stamp), "%H:%M:%S", &Date);
    std::replace_if(
        Text.begin(), Text.end(),
        [](unsigned char Letter) { return Letter < ' ' || Letter == 127; }, '?');
    flockfile(stdout);
    printf("%s.%03ld %s\n", Stamp, static_cast<long>(Now.tv_usec / 1000), Text.c_str());
    if (fflush(stdout) != 0 && !s_IsOutputLost.exchange(true)) {
        perror("rtcMonitor: standard output");
        sem_post(&s_End);
    }
    funlockfile(stdout);
}

static std::string LinkText(const OV_KERNEL_LINK_NOTIFY &Link)
{
    const std::string Name = Link.IfName;

    return Link.Type == OV_NETIO_NOTIFY_TYPE_STPSTATE
               ? "bridge port " + Name + " " + NameOf(STP_STATES, Link.StpState)
               : "link " + Name + " mtu " + std::to_string(Link.Mtu);
}

static std::string RouteText(const OV_KERNEL_ROUTE_NOTIFY &Route)
{
    std::string Text = Route.Event == 1 ? "route added " : "route deleted ";

    Text += std::string(Route.Dst) + "/" + std::to_string(Route.DstMask);
    if (Route.Gateway[0] != '\0') {
        Text += std::string(" via ") + Route.Gateway;
    }
    if (Route.ifName[0] != '\0') {
        Text += std::string(" dev ") + Route.ifName;
    }
    return Text + " table " + std::to_string(Route.TableId) + " proto " +
           NameOf(ROUTE_PROTOCOLS, Route.Protocol) + " metric " + std::to_string(Route.Priority);
}

static std::string EndText(bool IsIp6, uint32_t Ip, const void *Ip6, uint16_t Port)
{
    return (IsIp6 ? "[" + Ip6Text(Ip6) + "]" : Ip4Text(Ip)) + ":" + std::to_string(Port);
}

static std::string ConnectionText(const OV_CON_STATE_NOTIFY &State)
{
    const bool IsIp6 = State.IsIpv6Ptx != 0;

    return "connection " + std::to_string(State.Id) + " type " + std::to_string(State.Type) + "/" +
           std::to_string(State.SubType) + " value " + std::to_string(State.Value) + " mode " +
           std::to_string(State.ConnMode) + " session " + std::to_string(State.SessionId) + " " +
           EndText(IsIp6, State.SrcIp.V4, State.SrcIp.V6, State.SrcPort) + " to " +
           EndText(IsIp6, State.DstIp.V4, State.DstIp.V6, State.DstPort) + " policy " +
           std::to_string(State.PolicyId) + " buddy " + std::to_string(State.BuddyId);
}

static std::string FlowText(const OV_FLOW_URL_NOTIFY_INFO &Flow)
{
    const bool IsIp6 = Flow.IpType == OV_IN_ADDR_TYPE_IPV6;

    return "flow " + EndText(IsIp6, Flow.SrcIp, &Flow.SrcIp6, Flow.SrcPort) + " to " +
           EndText(IsIp6, Flow.DstIp, &Flow.DstIp6, Flow.DstPort) + " protocol " +
           std::to_string(Flow.Protocol) + " sent " + std::to_string(Flow.TxBytes) + " received " +
           std::to_string(Flow.RxBytes) + " url " + Flow.Url;
}

static std::string NetioText(const OV_NETIO_STATE_NOTIFY &Netio)
{
    std::string Text = "interface " + std::string(Netio.IfName, strnlen(Netio.IfName, 16)) +
                       " wan " + std::to_string(Netio.WanId) + " lan " +
                       std::to_string(Netio.LanId);

    if (Netio.Type == OV_NETIO_NOTIFY_TYPE_IFSTATE) {
        return Text + (Netio.IfState == 0 ? " up" : " down");
    }
    const OV_CONF_IPMULTI &Ip = Netio.IfAddr.IpMul;
    const OV_CONF_IP6MULTI &Ip6 = Netio.IfAddr.Ip6Mul;
    for (unsigned Index = 0; Index < Ip.IpCnt; Index++) {
        Text += " " + Ip4Text(Ip.Ip[Index]) + "/" + std::to_string(Ip.Mask[Index]);
    }
    for (unsigned Index = 0; Index < Ip6.IpCnt; Index++) {
        Text += " " + Ip6Text(&Ip6.Ip[Index]) + "/" + std::to_string(Ip6.Mask[Index]);
    }
    return Text + (Ip.IpCnt + Ip6.IpCnt == 0 ? " no addresses" : "");
}

static std::string RateLimitText(const OV_RATE_LIMIT_STATE_NOTIFY &RateLimit)
{
    const unsigned Count =
        std::min<unsigned>(RateLimit.Head.NotifyMsgRateLimitNum, OV_RATE_LIMIT_REPORT_MAX);
    std::string Text = "rate limits, round " + std::to_string(RateLimit.Head.Rounds) + ":";

    for (unsigned Index = 0; Index < Count; Index++) {
        const OV_RATE_LIMIT_REPORT_STATE &State = RateLimit.Info[Index];
        Text += " " + std::to_string(State.RateLimitId) + " surplus " +
                std::to_string(State.BucketSurplus) + " rate " + std::to_string(State.SmoothedRate);
    }
    return Text;
}

static std::string PeerText(const OV_PEER_HOST_NOTIFY &Peer)
{
    const std::string Host = Peer.CustomerId == 0 ? "PoP " : "CPE ";

    return "peer " + Host + std::to_string(Peer.PopId) + " of customer " +
           std::to_string(Peer.CustomerId) + (Peer.NotifyType == 1 ? " reachable" : " unreachable");
}

static std::string EventText(const OV_RTC_MONITOR_NOTIFY &Notify)
{
    const OV_DP_NOTIFY_INFO &Report = Notify.DpNotify;
    const OV_SA_CLUSTER_MSG &Cluster = Notify.SAClusterMsg;

    switch (Notify.Type) {
    case MONITOR_LINK:
        return LinkText(Notify.LinkNotify);
    case MONITOR_ROUTE:
        return RouteText(Notify.RouteNotify);
    case MONITOR_CONN:
        return ConnectionText(Notify.ConnNotify);
    case MONITOR_URL_FLOW:
        return FlowText(Notify.UrlFlowNotify);
    case MONITOR_NETIO:
        return NetioText(Notify.NetioNotify);
    case MONITOR_DATAPATH:
        return "data-path report type " + std::to_string(Report.DataType) + " of " +
               std::to_string(Report.DataNum) + " entries, " + std::to_string(Report.DataLen) +
               " bytes";
    case MONITOR_RATELIMIT:
        return RateLimitText(Notify.RatelimitNotify);
    case MONITOR_SA_CLUSTER_MSG:
        return "cluster message type " + std::to_string(Cluster.SAMsgType) + " master " +
               std::to_string(Cluster.SAMasterCpeId) + " slave " +
               std::to_string(Cluster.SASlaverCpeId);
    case MONITOR_PEER_HOST_REACHABLE:
        return PeerText(Notify.PeerHostReachableNotify);
    default:
        return "event of type " + std::to_string(Notify.Type);
    }
}

static int PrintEvent(OV_RTC_MONITOR_NOTIFY *Notify)
{
    Print(EventText(*Notify));
    return 0;
}

static void LogListToStderr(int Level, const char *Format, va_list Arguments) OV_PRINTF_LIKE(2, 0);
static void LogToStderr(int Level, const char *Format, ...) OV_PRINTF_LIKE(2, 3);

static void LogListToStderr(int /*Level*/, const char *Format, va_list Arguments)
{
    vfprintf(stderr, Format, Arguments);
}

static void LogToStderr(int Level, const char *Format, ...)
{
    va_list Arguments;

    va_start(Arguments, Format);
    LogListToStderr(Level, Format, Arguments);
    va_end(Arguments);
}

static void OnSignal(int /*Signal*/)
{
    sem_post(&s_End);
}

static int Usage(FILE *Stream)
{
    fputs("usage: rtcMonitor [-h] [-r] [-v]\n"
          "  -h  show this\n"
          "  -r  list the routes first\n"
          "  -v  show the library's log from debug level\n",
          Stream);
    return Stream == stdout ? 0 : 2;
}

/* A socket that took the place of a missing standard stream would be written to. */
static void FillStandardStreams()
{
    for (int Fd = STDIN_FILENO; Fd <= STDERR_FILENO; Fd++) {
        if (fcntl(Fd, F_GETFD) == -1 && open("/dev/null", O_RDWR) != Fd) {
            abort(); /* the lowest that is free is the one that is missing */
        }
    }
}

/* Everything that is started here is stopped by Stop, also when only part of it could be. */
static int Start(bool IsRouteListWanted)
{
    OV_ERR_T Error = OV_LibrtcMemModuleRegister();
    if (Error < 0) {
        fprintf(stderr, "rtcMonitor: no memory module: %s\n", strerror(-Error));
        return 1;
    }
    Error = OV_DispatchClientInit();
    if (Error < 0) {
        fprintf(stderr, "rtcMonitor: no dispatch service (%s): the kernel's events only\n",
                strerror(-Error));
    }
    if (IsRouteListWanted) {
        OV_RTCMonitorGetAllRoute(PrintEvent);
    }
    Error = OV_RTCMonitorInit();
    if (Error < 0) {
        fprintf(stderr, "rtcMonitor: the monitors cannot be started: %s\n", strerror(-Error));
        return 1;
    }
    return OV_RTCMonitorRegCallback(PrintEvent) < 0 ? 1 : 0;
}

static void Stop()
{
    OV_RTCMonitorUninit();
    OV_DispatchClientExit();
    OV_LibrtcMemModuleUnregister();
}

int main(int argc, char *argv[])
{
    bool IsRouteListWanted = false;
    bool IsLogWanted = false;
    struct sigaction Action = {};
    int Option;

    FillStandardStreams();
    while ((Option = getopt(argc, argv, "hrv")) != -1) {
        if (Option != 'r' && Option != 'v') {
            return Usage(Option == 'h' ? stdout : stderr);
        }
        IsRouteListWanted |= Option == 'r';
        IsLogWanted |= Option == 'v';
    }
    if (optind != argc) {
        return Usage(stderr);
    }
    OV_AgentLogOps()->LimitLevel = IsLogWanted ? OV_AGENT_LOG_LEVEL_DEBUG : OV_AGENT_LOG_LEVEL_WARN;
    OV_AgentCustomLogCtor(LogToStderr, LogListToStderr);
    sem_init(&s_End, 0, 0);

    int Status = Start(IsRouteListWanted);
    if (Status == 0) {
        /* Not before: until then there is nothing to stop. The second signal ends it at once. */
        Action.sa_handler = OnSignal;
        Action.sa_flags = static_cast<int>(SA_RESETHAND);
        sigaction(SIGINT, &Action, nullptr);
        sigaction(SIGTERM, &Action, nullptr);
        while (sem_wait(&s_End) != 0) {}
    }
    Stop();
    return s_IsOutputLost ? 1 : Status;
}
