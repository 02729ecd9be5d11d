/*
 * Cancellation: what may be cancelled owns nothing. A thread that is cancelled makes the calls of a
 * row, and ends where they let it. Behind it, no descriptor, child, lock or accounted memory is
 * left over, and the calls work for the next thread.
 *
 * Where it is cancelled moves from round to round: before the calls, then at each place of theirs
 * that may be a cancellation point, so that a harmless one does not hide those behind it. These are
 * the lines of the log (a program's own back end may wait) and the system's functions below, which
 * the linker has go through here.
 *
 * Each row is a process of its own, which SIGALRM ends when it hangs.
 */
#include "boardModel.h"
#include "boardTrap.h"
#include "linuxRtc.h"
#include "linuxRtcBypass.h"
#include "linuxRtcBypassInternal.h"
#include "linuxRtcGenlMonitor.h"
#include "linuxRtcInit.h"
#include "linuxRtcInterface.h"
#include "linuxRtcNetwork.h"
#include "loopbackServer.h"
#include "orvaneDispatchClient.h"
#include "orvaneFlexMsg.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLogFile.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "orvanePlatformRcu.h"
#include "orvaneRtcIpRule.h"
#include "orvaneRtcRoute.h"
#include "orvaneScope.h"
#include "orvaneThread.h"
#include "testSupport.h"

#include <algorithm>
#include <errno.h>
#include <filesystem>
#include <memory>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static constexpr const char *LOG_PATH = "/tmp/cancel.log";
static constexpr const char *BOARD_PATH = "/tmp/board";

struct ROW {
    const char *Name;
    bool (*Calls)(); /* the calls, which leave everything as it was; true: they worked */
    void (*Prepare)() = nullptr; /* made once, before */
};

static void PrintTo(const ROW &Row, std::ostream *Stream)
{
    *Stream << Row.Name;
}

/* ---- Places to be cancelled ---- */

static thread_local int s_Places;        /* that this thread has passed */
static thread_local int s_CancelAt = -1; /* the one at which it is cancelled */

static void Place()
{
    if (++s_Places == s_CancelAt) {
        pthread_cancel(pthread_self());
    }
    pthread_testcancel();
}

static void OV_PRINTF_LIKE(2, 3) LogLine(int, const char *, ...)
{
    Place();
}

static void OV_PRINTF_LIKE(2, 0) LogLineValist(int, const char *, va_list)
{
    Place();
}

#define PLACE(Result, Function, Parameters, Arguments) \
    extern "C" Result __real_##Function Parameters;    \
    extern "C" Result __wrap_##Function Parameters;    \
    Result __wrap_##Function Parameters                \
    {                                                  \
        Place();                                       \
        return __real_##Function Arguments;            \
    }
PLACE(FILE *, fopen, (const char *Path, const char *Mode), (Path, Mode))
PLACE(int, fclose, (FILE * Stream), (Stream))
PLACE(int, fflush, (FILE * Stream), (Stream))
PLACE(int, fputs, (const char *Text, FILE *Stream), (Text, Stream))
PLACE(FILE *, popen, (const char *Command, const char *Mode), (Command, Mode))
PLACE(int, pclose, (FILE * Stream), (Stream))
PLACE(int, system, (const char *Command), (Command))
PLACE(int, open, (const char *Path, int Flags, mode_t Mode), (Path, Flags, Mode))
PLACE(ssize_t, write, (int File, const void *Data, size_t Size), (File, Data, Size))
PLACE(int, close, (int File), (File))
PLACE(int, connect, (int Socket, const sockaddr *Peer, socklen_t Size), (Socket, Peer, Size))
PLACE(ssize_t, send, (int Socket, const void *Data, size_t Size, int Flags),
      (Socket, Data, Size, Flags))
PLACE(ssize_t, recv, (int Socket, void *Data, size_t Size, int Flags), (Socket, Data, Size, Flags))
PLACE(int, usleep, (useconds_t MicroSeconds), (std::min(MicroSeconds, 1000U)))

/* ---- What the rows share ---- */

static std::vector<std::unique_ptr<LOOPBACK_SERVER>> s_Servers;

/* Both services, and notifications: each sends back what it gets, which all of them understand. */
static void Serve()
{
    for (const int Port : {54321, 54322, 55435}) {
        const auto Echo = [](int Socket) {
            char Bytes[4096];
            for (ssize_t Size; (Size = recv(Socket, Bytes, sizeof(Bytes), 0)) > 0;) {
                send(Socket, Bytes, static_cast<size_t>(Size), MSG_NOSIGNAL);
            }
        };
        s_Servers.push_back(std::make_unique<LOOPBACK_SERVER>(static_cast<uint16_t>(Port), Echo));
    }
}

/* The monitor's check thread makes it once, and it stays. */
static void OpenCheckSocket()
{
    const size_t Before = OpenDescriptors();

    OV_RTCGenlMonitorInit();
    WaitUntil([=] { return OpenDescriptors() == Before + 3; }); /* epoll, routing, check */
    OV_RTCGenlMonitorUninit();
}

static void UseBoard()
{
    BoardFileCreate(BOARD_PATH, "Aptio CRB");
    BoardAttach(BOARD_PATH);
    InstallCommand("dmidecode", "echo Aptio CRB");
}

static bool BoardRests()
{
    return BoardAttached()->SuperIo.ConfigurationMode == 0 && BoardAttached()->Coil.PulseStart < 0;
}

static int32_t s_Module;
static OV_FLEXIBLE_MSG *s_Message;

static void MakeMessage()
{
    OV_FlexMsgInit();
    s_Message = OV_FlexMsgAlloc();
}

static void *Damaged(void *Block)
{
    static_cast<char *>(Block)[8] = 0; /* of 8 bytes */
    return Block;
}

static int Listed(OV_RTC_MONITOR_NOTIFY *, void *)
{
    Place();
    return 0;
}

/* ---- The rows ---- */

static const ROW ROWS[] = {
    {"OV_RTCExecCmd",
     [] {
         char Output[8];
         return OV_RTCExecCmd("echo x", Output, sizeof(Output)) == 2 &&
                OV_RTCExecCmd("echo over size", Output, sizeof(Output)) == 0;
     }},
    {"OV_RTCSystem", [] { return OV_RTCSystem("sleep 0.01") == 0; }},
    {"OV_RTCWriteFile",
     [] {
         return OV_RTCWriteFileSync("1", 1, "/tmp/control") == 0 &&
                OV_RTCWriteFile("1", 1, "/tmp/control") == 0 &&
                OV_RTCWriteFile("1", 1, "/dev/full") == -EIO;
     }},
    {"OV_AgentFileLog",
     [] {
         const bool Opened = OV_AgentFileLogCtor(LOG_PATH) == 0;
         OV_COMMInfo("line\n");
         unlink(LOG_PATH);
         OV_AgentLogFileCheck();
         OV_COMMInfo("line\n");
         OV_AgentLogDtor();
         return Opened && access(LOG_PATH, F_OK) == 0;
     },
     [] { WriteFile("/var/log/messages", ""); }},
    {"OV_AgentMavoLog",
     [] {
         const bool Opened = OV_AgentMavoLogCtor(LOG_PATH) == 0 && OV_AgentLogFileSetNum(2) == 0 &&
                             OV_AgentLogFileSetMaxSize(1) == 0;
         OV_COMMInfo("rotated\n");
         OV_AgentLogDtor();
         return Opened;
     }},
    {"OV_LogFile",
     [] {
         const auto Id = static_cast<uint32_t>(OV_LogFileInit(LOG_PATH, strlen(LOG_PATH)));
         OV_LogFileSetFileNum(Id, 2);
         OV_LogFileSetMaxFileSize(Id, 1);
         const bool Written = OV_Log2File(Id, "rotated\n") > 8;
         OV_LogFileRelease(Id);
         return Written;
     }},
    {"OV_MemModUnRegister",
     [] {
         const int32_t Module = OV_MemModRegister("leaky", 5);
         const bool Had = OV_MemAlloc(Module, 8, 0) != nullptr;
         OV_MemModUnRegister(Module);
         return Had;
     }},
    {"OV_MemFree",
     [] {
         OV_MemFree(s_Module, Damaged(OV_MemAlloc(s_Module, 8, 0)));
         OV_VmemFree(s_Module, Damaged(OV_VmemAlloc(s_Module, 8)));
         OV_MemFree(s_Module, OV_MemRealloc(s_Module, Damaged(OV_MemAlloc(s_Module, 8, 0)), 9, 0));
         OV_VmemFree(s_Module, OV_VmemRealloc(s_Module, Damaged(OV_VmemAlloc(s_Module, 8)), 9, 8));
         return true;
     },
     [] { s_Module = OV_MemModRegister("damaged", 7); }},
    {"OV_MemPool",
     [] {
         const int32_t Id = OV_MemPoolCreate("pool", 4, 8, 0, 0);
         void *Block = OV_MemPoolAlloc(Id);
         const bool Had = Block != nullptr;
         OV_MemPoolFree(Id, Damaged(Block));
         OV_MemPoolDestroy(Id);
         return Had;
     }},
    {"OV_FlexMsg",
     [] {
         OV_FlexMsgInit();
         OV_FLEXIBLE_MSG *Message = OV_FlexMsgAlloc();
         const bool Had = Message != nullptr;
         OV_FlexMsgFree(Message);
         OV_FlexMsgRelease();
         return Had;
     }},
    {"OV_DispatchClient",
     [] {
         const bool Began = OV_DispatchClientInit() == 0;
         OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(8);
         OV_DispatchInitHdr(Desc, 1, 1);
         const bool Exchanged = OV_DispatchConfigure(Desc) == 0;
         OV_DispatchFreeDesc(Desc);
         OV_DispatchNotifyReply(1, 1, "push", 4);
         OV_DispatchClientExit();
         const bool BeganAgain = OV_DispatchClientInitNoNotify() == 0;
         OV_DispatchClientExit();
         return Began && Exchanged && BeganAgain;
     },
     Serve},
    {"OV_ImcConnect",
     [] {
         OV_SOCKET Socket = -1;
         const bool Connected = OV_ImcConnect(INADDR_LOOPBACK, 55435, &Socket) == 0;
         const CANCEL_SCOPE Ours;
         OV_SocketClose(Socket);
         return Connected;
     },
     Serve},
    {"OV_ImcConf",
     [] {
         char Reply[8];
         const bool Began = OV_ImcConfClientInit() == 0;
         OV_ImcRequstInitHdr(s_Message, 0, 0);
         const bool Exchanged = OV_ImcConfigure(s_Message) == 0 &&
                                OV_ImcConfSet(0, 0, "set", 3) == 0 &&
                                OV_ImcConfGet(0, 0, "get", 3, Reply, sizeof(Reply)) == 0 &&
                                OV_ImcConfGet(0, 0, "cut", 3, Reply, 1) == -ENOBUFS &&
                                OV_ImcConfGetByFunc(0, 0, "get", 3, nullptr, nullptr) == 0;
         OV_ImcConfClientRelease();
         return Began && Exchanged;
     },
     [] {
         Serve();
         MakeMessage();
     }},
    {"StartsThatAreRefused",
     [] {
         return OV_DispatchClientInit() == -ECONNREFUSED &&
                OV_ImcConfClientInit() == -ECONNREFUSED && OV_ImcConfSet(0, 0, "", 0) == -EBADF &&
                OV_RTCBaseInit(nullptr) == -ECONNREFUSED;
     }},
    {"OV_RTCRoute",
     [] {
         OV_RTC_ROUTE_CONF Route = {};
         Route.TargetIp.Ip = 0xC6336400; /* 198.51.100.0/24, on lo */
         Route.TargetIp.Mask = 24;
         Route.NexthopNum = 1;
         strcpy(Route.IfName[0], "lo");
         const bool Made = OV_RTCRouteReplace(&Route) == 0 && OV_RTCRouteAdd(&Route) == -EEXIST;
         return OV_RTCRouteDel(&Route) == 0 && Made && OV_RTCRouteGetAll(Listed, nullptr) == 0;
     }},
    {"OV_RTCIpRule",
     [] {
         const OV_RTC_IP_RULE_CONF Rule = {OV_IN_ADDR_TYPE_IPV4, 77, 77, {}};
         const bool Made = OV_RTCIpRuleAdd(&Rule) == 0 && OV_IsIpRuleExist(&Rule) &&
                           OV_RTCIpRuleAdd(&Rule) == -EEXIST;
         return OV_RTCIpRuleDel(&Rule) == 0 && Made;
     }},
    {"OV_RTCGenlMonitor",
     [] {
         const bool Began = OV_RTCGenlMonitorInit() == 0;
         const int Id = OV_RTCGenlMonitorRegCallback([](OV_RTC_MONITOR_NOTIFY *) { return 0; });
         OV_RTCGenlMonitorUnregCallback(Id);
         return OV_RTCGenlMonitorUninit() == 0 && Began && Id == 0;
     },
     OpenCheckSocket},
    {"OV_RTCMonitorSendAddrRequest",
     [] {
         OV_RTCMonitorSendAddrRequest();
         return true;
     },
     [] {
         OpenCheckSocket();
         OV_RTCGenlMonitorInit();
     }},
    {"OV_RTCGenlMonitorSendPtxNotify",
     [] {
         OV_CON_STATE_NOTIFY Notify = {};
         return OV_RTCGenlMonitorSendPtxNotify(&Notify) == -1; /* no such family */
     }},
    {"OV_RTCGenlMonitorGetAllRoute",
     [] {
         return OV_RTCGenlMonitorGetAllRoute([](auto *Notify) { return Listed(Notify, {}); }) == 0;
     }},
    {"OV_RTCBase",
     [] {
         const bool Began = OV_RTCBaseInit(nullptr) == 0;
         OV_RTCBaseExit();
         return Began;
     },
     Serve},
    {"OV_RTCInit",
     [] {
         const bool Began = OV_RTCInit(nullptr) == 0;
         OV_RTCExit();
         return Began;
     },
     [] {
         Serve();
         OpenCheckSocket();
     }},
    {"OV_RTCIntfConfig",
     [] {
         OV_RTC_INTF_CONFIG Config = {OV_RTC_INTF_TYPE_MTU, "lo", 0, {}};
         Config.Val = 1400;
         const bool Set = OV_RTCIntfConfig(&Config) == 0;
         Config.Val = 65536;
         return OV_RTCIntfConfig(&Config) == 0 && Set;
     }},
    {"rtc_if_pppoe_start", [] { return rtc_if_pppoe_start("ppp7") == 0; },
     [] {
         InstallCommand("ps", "true");
         InstallCommand("pppd", "true");
         std::filesystem::create_directories("/etc/ppp");
     }},
    {"rtc_net_set_dns",
     [] {
         char Servers[] = "192.0.2.1 192.0.2.2";
         return rtc_net_set_dns(Servers) == 0;
     }},
    {"OV_RTC4GmoduleCreateScript",
     [] {
         const OV_RTC_INTF_CONFIG_LTE Lte = {};
         return OV_RTC4GmoduleCreateScript("ppp7", &Lte, 7) == 0;
     },
     [] { std::filesystem::create_directories("/etc/ppp"); }},
    {"OV_RTCBypass", [] { return BoardRests() && OV_RTCBypass(1) == 0; }, UseBoard},
    {"OV_RTCFeedDog",
     [] {
         return BoardRests() && OV_RTCFeedDogInit(RTC_PLATFORM_QIYANG_J1900, 30) == 0 &&
                OV_RTCFeedDog(RTC_PLATFORM_QIYANG_J1900, 0) == 0 &&
                OV_RTCFeedDogUninit(RTC_PLATFORM_QIYANG_J1900) == 0;
     },
     UseBoard},
    {"TheDaemonsFiles",
     [] {
         return OV_RTCFeedDogWritePidFile() == 0 && OV_RTCFeedDogCheckRunning() == getpid() &&
                OV_RTCBypassMode(0) == 0;
     },
     [] { signal(SIGUSR2, SIG_IGN); }},
};

/* ---- The judge ---- */

/* Every memory module and pool with its counters. */
static std::string Memory()
{
    std::ostringstream Text;

    for (int32_t Module = 0; Module < OV_MEM_MODULE_COUNT; Module++) {
        OV_USEAGE_INFO Info = {};
        OV_MemGetUsage(Module, &Info);
        if (Info.Name[0] != '\0') {
            Text << Info.Name << " " << Info.MemCounter << "+" << Info.VmemCounter << " ";
        }
    }
    for (int32_t Pool = 0; Pool < OV_MEMPOOL_COUNT; Pool++) {
        MEMPOOL_INFO Info = {};
        OV_MemPoolUsageById(Pool, &Info);
        Text << Info.Name;
    }
    return Text.str();
}

struct RCU_THREAD {
    RCU_THREAD()
    {
        OV_RcuRegisterThread();
    }
    ~RCU_THREAD()
    {
        OV_RcuUnregisterThread();
    }
    RCU_THREAD(const RCU_THREAD &) = delete;
    RCU_THREAD &operator=(const RCU_THREAD &) = delete;
};

static const ROW *s_Row;

/* Not sanitized: the frames that a cancelled thread leaves keep their marks on its stack. */
static void *__attribute__((no_sanitize_address)) CallCancelled(void *Round)
{
    const RCU_THREAD Registered;

    s_CancelAt = *static_cast<int *>(Round);
    if (s_CancelAt == 0) {
        pthread_cancel(pthread_self());
    }
    s_Row->Calls();
    pthread_cancel(pthread_self());
    pthread_testcancel();
    return nullptr;
}

static void Require(bool Holds, const std::string &Otherwise)
{
    if (!Holds) {
        fprintf(stderr, "%s\n", Otherwise.c_str());
        _exit(1);
    }
}

/* What a process holds, when nothing is under way. */
struct HOLDINGS {
    const size_t Descriptors = OpenDescriptors();
    const size_t Threads = OpenThreads();
    const std::string Kept = Memory();

    /* Servers and detached threads end a moment later. */
    void RequireNoMore(const std::string &Where) const
    {
        Require(WaitUntil([this] { return OpenThreads() <= Threads; }, 1), Where + "left a thread");
        Require(WaitUntil([this] { return OpenDescriptors() <= Descriptors; }, 1),
                Where + "left descriptors");
        Require(Memory() == Kept, Where + "memory " + Kept + "-> " + Memory());
        Require(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD, Where + "left a child");
    }
};

static void JudgeRound(int Round, const HOLDINGS &Before)
{
    const std::string Where = "cancelled at " + std::to_string(Round) + ": ";
    OV_THREAD_T Thread;
    void *Result = nullptr;

    alarm(5);
    errno = 77;
    const OV_ERR_T Started = OV_ThreadRun(&Thread, nullptr, CallCancelled, &Round, "cancelled");
    Require(Started == 0 && errno == 77, "a thread's start changes errno");
    pthread_join(Thread.Tid, &Result);
    Require(Result == PTHREAD_CANCELED, Where + "was not cancelled");
    Before.RequireNoMore(Where);
    Require(s_Row->Calls(), Where + "does not work any more");
    Before.RequireNoMore(Where + "called again, ");
}

[[noreturn]] static void Judge(const ROW &Row)
{
    const RCU_THREAD Registered;

    s_Row = &Row;
    std::thread([] {}).join(); /* with the first one a sanitizer starts its own */
    OV_AgentCustomLogCtor(LogLine, LogLineValist);
    alarm(5);
    if (Row.Prepare != nullptr) {
        Row.Prepare();
    }
    Require(Row.Calls(), "does not work at all");
    s_Places = 0;
    Require(Row.Calls(), "does not work twice");
    const int Places = s_Places;
    const HOLDINGS Before;
    for (int Round = 0; Round <= Places; Round++) {
        JudgeRound(Round, Before);
    }
    s_Servers.clear();
    _exit(0);
}

class Cancel : public testing::TestWithParam<ROW> {};

TEST_P(Cancel, LeavesNothing)
{
    EXPECT_EXIT(Judge(GetParam()), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(, Cancel, testing::ValuesIn(ROWS),
                         [](const auto &Row) { return std::string(Row.param.Name); });
