/*
 * agent: a whole small agent, to begin your own with. It starts the library, listens to events,
 * talks to both services, makes settings, waits, and takes away what it added.
 *
 *   agent INTERFACE [SECONDS]
 *
 * INTERFACE gets another MTU, and table 100 a route through it and a rule that leads there. It ends
 * after SECONDS, and by SIGTERM or SIGINT. It prints what it does and what happens; the library's
 * log is /tmp/agent.log. The exit status is 0, 1 when something failed, or 2 for a wrong command
 * line. Like every start of the library this switches the board's bypass off.
 *
 * Addresses and the services' numbers are made up: put in your own.
 */
#include "orvaneLibrtc.h"

#include <errno.h>
#include <net/if.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static constexpr const char *LOG_PATH = "/tmp/agent.log";
static constexpr uint32_t MTU = 1400;
static constexpr uint32_t TABLE = 100;
static constexpr uint16_t PRIORITY = 100; /* the library's own rules are 50 and 240 */
static constexpr const char *DESTINATION = "198.51.100.0/24";
static constexpr const char *SOURCE = "192.0.2.0/24";
static constexpr uint8_t DISPATCH_MODULE = OV_DISPATCH_MOD_OVCONN;
static constexpr uint16_t DISPATCH_TYPE = 1;
static constexpr uint8_t ITEM_MODULE = 1;
static constexpr uint16_t ITEM_OPERATION = 1;

static constexpr int ENDING_SIGNALS[] = {SIGTERM, SIGINT, SIGALRM};

static sem_t s_End; /* posted by a signal */
static bool s_HasFailed;

/* A negative result is an errno value, or -1 where a command failed, which the log shows. */
static bool Report(const char *What, OV_ERR_T Result)
{
    if (Result >= 0) {
        printf("agent: %s: done\n", What);
        return true;
    }
    printf("agent: %s: %s (%d)\n", What, Result == -1 ? "see the log" : strerror(-Result), Result);
    s_HasFailed = true;
    return false;
}

/* A link's event tells only that something changed. State has room for any word of the kernel's. */
static const char *LinkState(const char *Name, char (&State)[32])
{
    char Path[64];

    snprintf(Path, sizeof(Path), "/sys/class/net/%s/operstate", Name);
    FILE *File = fopen(Path, "re");
    if (File == nullptr || fscanf(File, "%31s", State) != 1) {
        OV_SafeStrCopy(State, sizeof(State), "gone");
    }
    if (File != nullptr) {
        fclose(File);
    }
    return State;
}

/* Comes on two threads, the kernel's events on one and the services' on the other, and no exception
 * may leave it. The record is gone when this returns, and the next event waits until then: an agent
 * with more to do copies it for a thread of its own. */
static int OnEvent(OV_RTC_MONITOR_NOTIFY *Notify) noexcept
{
    const OV_KERNEL_ROUTE_NOTIFY &Route = Notify->RouteNotify;
    const OV_NETIO_STATE_NOTIFY &Netio = Notify->NetioNotify;
    const OV_PEER_HOST_NOTIFY &Peer = Notify->PeerHostReachableNotify;
    char State[32];

    switch (Notify->Type) {
    case MONITOR_LINK:
        printf("agent: event: link %s %s\n", Notify->LinkNotify.IfName,
               LinkState(Notify->LinkNotify.IfName, State));
        break;
    case MONITOR_ROUTE:
        printf("agent: event: route %s %s/%u dev %s table %u\n",
               Route.Event == 1 ? "added" : "deleted", Route.Dst, Route.DstMask, Route.ifName,
               Route.TableId);
        break;
    case MONITOR_NETIO: /* the name may fill its field, without a NUL */
        printf("agent: event: interface %.16s %s\n", Netio.IfName,
               Netio.Type == OV_NETIO_NOTIFY_TYPE_IFADDR ? "addresses"
               : Netio.IfState == 0                      ? "up"
                                                         : "down");
        break;
    case MONITOR_PEER_HOST_REACHABLE:
        printf("agent: event: peer %u %s\n", Peer.PopId,
               Peer.NotifyType == 1 ? "reachable" : "unreachable");
        break;
    default:
        printf("agent: event: type %u\n", Notify->Type);
    }
    return 0;
}

/* Prefix must be clear: also what the address leaves unused is read. A text that is none must not
 * go on as 0.0.0.0, which is everything. */
static bool ReadIp4Prefix(const char *Text, OV_CONF_IP_MASK *Prefix)
{
    Prefix->IpType = OV_IN_ADDR_TYPE_IPV4;
    return OV_SafeStrGetIp4AddrMask(Text, strlen(Text), &Prefix->Ip, &Prefix->Mask) != nullptr &&
           Prefix->Ip != 0;
}

static OV_ERR_T SetMtu(const char *Interface)
{
    OV_RTC_INTF_CONFIG Request = {};

    Request.Type = OV_RTC_INTF_TYPE_MTU;
    Request.Val = MTU;
    OV_SafeStrCopy(Request.IfName, sizeof(Request.IfName), Interface);
    return OV_RTCIntfConfig(&Request);
}

/* One request, and its reply in the same descriptor: the service's code, then its text. */
static OV_ERR_T AskDispatch()
{
    OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0); /* 2 KiB, and grows */

    if (Desc == nullptr) {
        return -ENOMEM;
    }
    OV_DispatchInitHdr(Desc, DISPATCH_MODULE, DISPATCH_TYPE);
    OV_DispatchPrintf(Desc, "hello from process %d", getpid());
    OV_ERR_T Result = OV_DispatchConfigure(Desc);
    if (Result == 0) {
        Result = OV_DispatchGetRetCode(Desc);
    }
    if (Result >= 0) {
        printf("agent: dispatch replied \"%s\"\n", /* a NUL is always behind the payload */
               static_cast<const char *>(OV_DispatchPayload(Desc)) + sizeof(Result));
    }
    OV_DispatchFreeDesc(Desc);
    return Result;
}

/* How long an item is, is between agent and service: here a text, and room for its NUL. */
static OV_ERR_T KeepItem(const char *Interface)
{
    char Item[64];
    char Read[64] = {};

    snprintf(Item, sizeof(Item), "%s mtu %u", Interface, MTU);
    OV_ERR_T Result = OV_ImcConfSet(ITEM_MODULE, ITEM_OPERATION, Item, strlen(Item));
    if (Result >= 0) {
        Result = OV_ImcConfGet(ITEM_MODULE, ITEM_OPERATION, nullptr, 0, Read, sizeof(Read) - 1);
    }
    if (Result >= 0) {
        printf("agent: the configuration service keeps \"%s\"\n", Read);
    }
    return Result;
}

/* Handlers, and no blocked or ignored signals: the programs that the library starts would inherit
 * those. Output that nobody reads any more must not end the agent before it has taken its own away.
 */
static void CatchSignals()
{
    struct sigaction Action = {};

    sem_init(&s_End, 0, 0);
    Action.sa_handler = [](int) { sem_post(&s_End); };
    for (const int Signal : ENDING_SIGNALS) {
        sigaction(Signal, &Action, nullptr);
    }
    Action.sa_handler = [](int) {};
    sigaction(SIGPIPE, &Action, nullptr);
}

/* The dispatch service went, and was not back at once: nothing that it reports would arrive any
 * more, and no call fails. Callbacks, routes and rules stay; requests of other threads fail
 * meanwhile.
 */
static void KeepListening()
{
    static bool s_IsStarted = true;

    if (OV_DispatchClientIsListening()) {
        return;
    }
    if (s_IsStarted) {
        puts("agent: the dispatch service is gone");
        OV_RTCBaseExit();
    }
    s_IsStarted = OV_RTCBaseInit(nullptr) == 0;
    if (s_IsStarted) {
        puts("agent: the dispatch service is back");
    }
}

static bool IsEndedWithinASecond()
{
    struct timespec Next;

    clock_gettime(CLOCK_MONOTONIC, &Next);
    Next.tv_sec++;
    return sem_clockwait(&s_End, CLOCK_MONOTONIC, &Next) == 0;
}

static void Work(const char *Interface, unsigned Seconds)
{
    OV_RTC_ROUTE_CONF Route = {};
    OV_RTC_IP_RULE_CONF Rule = {OV_IN_ADDR_TYPE_IPV4, PRIORITY, TABLE, {}};

    Route.TableId = TABLE;
    Route.NexthopNum = 1;
    OV_SafeStrCopy(Route.IfName[0], sizeof(Route.IfName[0]), Interface);
    if (!ReadIp4Prefix(DESTINATION, &Route.TargetIp) || !ReadIp4Prefix(SOURCE, &Rule.SrcPrefix)) {
        Report("addresses", -EINVAL);
        return;
    }
    const int CallbackId = OV_RTCMonitorRegCallback(OnEvent);
    Report("callback", CallbackId < 0 ? -EAGAIN : CallbackId);
    Report("request to the dispatch service", AskDispatch());
    Report("item of the configuration service", KeepItem(Interface));
    Report("MTU", SetMtu(Interface));
    /* An agent that was killed left its own behind: the route is replaced, the rule is as good. */
    Report("route", OV_RTCRouteReplace(&Route));
    OV_ERR_T Result = OV_RTCIpRuleAdd(&Rule);
    Report("rule", Result == -EEXIST ? 0 : Result);
    puts("agent: running");
    alarm(Seconds); /* none for 0 */
    while (!IsEndedWithinASecond()) {
        KeepListening();
    }
    Report("rule taken away", OV_RTCIpRuleDel(&Rule));
    Result = OV_RTCRouteDel(&Route); /* the kernel takes a route away with its interface */
    Report("route taken away", Result == -ENOENT ? 0 : Result);
    OV_RTCMonitorUnregCallback(CallbackId);
}

int main(int argc, char *argv[])
{
    uint32_t Seconds = 0;
    const char *End = "";

    if (argc == 3) {
        End = OV_SafeStrGetU32(argv[2], 10, &Seconds);
    }
    if (argc < 2 || argc > 3 || End == nullptr || *End != '\0') {
        fputs("usage: agent INTERFACE [SECONDS]\n", stderr);
        return 2;
    }
    /* Names go into command lines: take none that is not an interface's. */
    if (if_nametoindex(argv[1]) == 0) {
        fprintf(stderr, "agent: no interface %s\n", argv[1]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!Report("log", OV_AgentFileLogCtor(LOG_PATH))) {
        return 1;
    }
    CatchSignals();
    if (Report("start", OV_RTCInit(nullptr))) {
        Work(argv[1], Seconds);
    }
    OV_RTCExit(); /* also after a start that failed: the steps before it stay */
    puts("agent: stopped");
    OV_AgentLogDtor();
    return s_HasFailed ? 1 : 0;
}
