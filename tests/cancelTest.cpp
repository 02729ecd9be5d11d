/*
 * Cancellation: what may be cancelled owns nothing. A thread whose cancellation is pending makes
 * the calls of a row, and ends in the first that lets it. Behind it, no descriptor, child, lock or
 * accounted memory is left over, and the calls work for the next thread.
 *
 * Each row is a process of its own, which SIGALRM ends when it hangs. Every line of the log, and of
 * the system log, is a place to be cancelled, as in a process whose log goes to a pipe.
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
#include "orvaneThread.h"
#include "testSupport.h"

#include <errno.h>
#include <filesystem>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr const char *LOG_PATH = "/tmp/cancel.log";
static constexpr const char *BOARD_PATH = "/tmp/board";

/* What the calls left half done, which the next round tells. */
static bool s_IsWhole = true;

struct ROW {
    const char *Name;
    bool (*Calls)(); /* the calls, which leave everything as it was; true: they worked */
    void (*Prepare)() = nullptr; /* made once, before */
};

static void PrintTo(const ROW &Row, std::ostream *Stream)
{
    *Stream << Row.Name;
}

/* ---- What the rows share ---- */

static void OV_PRINTF_LIKE(2, 3) LogLine(int, const char *, ...)
{
    pthread_testcancel();
}

static void OV_PRINTF_LIKE(2, 0) LogLineValist(int, const char *, va_list)
{
    pthread_testcancel();
}

/* No place to be cancelled before the calls below the log's. */
static void SilenceLog()
{
    OV_AgentLogOps()->LimitLevel = OV_AGENT_LOG_LEVEL_MAX;
}

/* Both services, and notifications: each sends back what it gets, which all of them understand. */
static void Serve()
{
    for (const int Port : {54321, 54322, 55435}) {
        new LOOPBACK_SERVER(static_cast<uint16_t>(Port), [](int Socket) {
            char Bytes[4096];
            for (ssize_t Size; (Size = recv(Socket, Bytes, sizeof(Bytes), 0)) > 0;) {
                send(Socket, Bytes, static_cast<size_t>(Size), MSG_NOSIGNAL);
            }
        });
    }
}

static void UseBoard()
{
    BoardFileCreate(BOARD_PATH, "Aptio CRB");
    BoardAttach(BOARD_PATH);
    InstallCommand("dmidecode", "echo Aptio CRB");
}

static bool BoardRests()
{
    s_IsWhole &= BoardAttached()->SuperIo.ConfigurationMode == 0;
    return s_IsWhole;
}

static int32_t s_Module;
static OV_FLEXIBLE_MSG *s_Message;

static OV_RTC_INTF_CONFIG Setting(u32 Type, u32 Val)
{
    OV_RTC_INTF_CONFIG Config = {};

    Config.Type = Type;
    Config.Val = Val;
    strcpy(Config.IfName, "lo");
    return Config;
}

static void *Damaged(void *Block)
{
    static_cast<char *>(Block)[8] = 0; /* of 8 bytes */
    return Block;
}

/* ---- The rows ---- */

static const ROW ROWS[] = {
    {"OV_RTCExecCmd",
     [] {
         char Output[8];
         return OV_RTCExecCmd("echo x", Output, sizeof(Output)) == 2 &&
                OV_RTCExecCmd("echo over size", Output, sizeof(Output)) == 0;
     }},
    {"OV_RTCSystem", [] { return OV_RTCSystem("sleep 0.01") == 0; }, SilenceLog},
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
    {"OV_FileLog",
     [] {
         const bool Opened = OV_FileLogInit(LOG_PATH, strlen(LOG_PATH), 100, 2) == 0;
         OV_FileLog("line\n");
         OV_FileLogRelease();
         return Opened;
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
    {"OV_FlexMsgSetFormatData",
     [] {
         OV_FlexMsgResetDataLen(s_Message);
         return OV_FlexMsgReallocData(s_Message, 8) != nullptr &&
                OV_FlexMsgSetFormatData(s_Message, "%16d", 1) == 0;
     },
     [] {
         OV_FlexMsgInit();
         s_Message = OV_FlexMsgAlloc();
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
         return Began && Exchanged;
     },
     Serve},
    {"OV_DispatchClientInitNoNotify",
     [] {
         const bool Began = OV_DispatchClientInitNoNotify() == 0;
         OV_DispatchClientExit();
         return Began;
     },
     Serve},
    {"OV_DispatchClientInit_Refused", [] { return OV_DispatchClientInit() == -ECONNREFUSED; }},
    {"OV_ImcConf",
     [] {
         char Reply[8];
         const bool Began = OV_ImcConfClientInit() == 0;
         const bool Exchanged = OV_ImcConfSet(0, 0, "set", 3) == 0 &&
                                OV_ImcConfGet(0, 0, "get", 3, Reply, sizeof(Reply)) == 0 &&
                                OV_ImcConfGet(0, 0, "cut", 3, Reply, 1) == -ENOBUFS &&
                                OV_ImcConfGetByFunc(
                                    0, 0, "get", 3,
                                    [](const void *, size_t, void *) {
                                        pthread_testcancel();
                                        return 0;
                                    },
                                    nullptr) == 0;
         OV_ImcConfClientRelease();
         return Began && Exchanged;
     },
     Serve},
    {"OV_ImcConfClientInit_Refused",
     [] {
         return OV_ImcConfClientInit() == -ECONNREFUSED && OV_ImcConfSet(0, 0, "", 0) == -EBADF;
     }},
    {"OV_RTCRoute",
     [] {
         OV_RTC_ROUTE_CONF Route = {};
         Route.TargetIp.Ip = 0xC6336400; /* 198.51.100.0/24, on lo */
         Route.TargetIp.Mask = 24;
         Route.NexthopNum = 1;
         strcpy(Route.IfName[0], "lo");
         const bool Made = OV_RTCRouteReplace(&Route) == 0 && OV_RTCRouteAdd(&Route) == -EEXIST;
         return OV_RTCRouteDel(&Route) == 0 && Made;
     }},
    {"OV_RTCRouteGetAll",
     [] {
         return OV_RTCRouteGetAll(
                    [](OV_RTC_MONITOR_NOTIFY *, void *) {
                        pthread_testcancel();
                        return 0;
                    },
                    nullptr) == 0;
     }},
    {"OV_RTCIpRule",
     [] {
         const OV_RTC_IP_RULE_CONF Rule = {OV_IN_ADDR_TYPE_IPV4, 77, 77, {}};
         const bool Made = OV_RTCIpRuleAdd(&Rule) == 0 && OV_IsIpRuleExist(&Rule) &&
                           OV_RTCIpRuleAdd(&Rule) == -EEXIST;
         return OV_RTCIpRuleDel(&Rule) == 0 && Made;
     }},
    {"OV_IsIpRuleExist",
     [] {
         const OV_RTC_IP_RULE_CONF Rule = {OV_IN_ADDR_TYPE_IPV4, 32766, RT_TABLE_MAIN, {}};
         return OV_IsIpRuleExist(&Rule) == TRUE;
     }},
    {"OV_RTCGenlMonitor",
     [] {
         const bool Began = OV_RTCGenlMonitorInit() == 0;
         const int Id = OV_RTCGenlMonitorRegCallback([](OV_RTC_MONITOR_NOTIFY *) { return 0; });
         OV_RTCGenlMonitorUnregCallback(Id);
         return OV_RTCGenlMonitorUninit() == 0 && Began && Id == 0;
     }},
    {"OV_RTCGenlMonitorSendPtxNotify",
     [] {
         OV_CON_STATE_NOTIFY Notify = {};
         return OV_RTCGenlMonitorSendPtxNotify(&Notify) == -1; /* no such family */
     }},
    {"OV_RTCGenlMonitorGetAllRoute",
     [] {
         return OV_RTCGenlMonitorGetAllRoute([](OV_RTC_MONITOR_NOTIFY *) {
                    pthread_testcancel();
                    return 0;
                }) == 0;
     }},
    {"OV_RTCBase",
     [] {
         const bool Began = OV_RTCBaseInit(nullptr) == 0;
         OV_RTCBaseExit();
         return Began;
     },
     Serve},
    {"OV_RTCBaseInit_Refused", [] { return OV_RTCBaseInit(nullptr) == -ECONNREFUSED; }},
    {"OV_RTCInit",
     [] {
         const bool Began = OV_RTCInit(nullptr) == 0;
         OV_RTCExit();
         return Began;
     },
     Serve},
    {"OV_RTCIntfConfig",
     [] {
         const OV_RTC_INTF_CONFIG Small = Setting(OV_RTC_INTF_TYPE_MTU, 1400);
         const OV_RTC_INTF_CONFIG Large = Setting(OV_RTC_INTF_TYPE_MTU, 65536);
         return OV_RTCIntfConfig(&Small) == 0 && OV_RTCIntfConfig(&Large) == 0;
     },
     SilenceLog},
    {"rtc_if_pppoe_start", [] { return rtc_if_pppoe_start("ppp7") == 0; },
     [] {
         InstallCommand("ps", "true");
         InstallCommand("pppd", "true");
         std::filesystem::create_directories("/etc/ppp");
         SilenceLog();
     }},
    {"rtc_net_set_dns",
     [] {
         char Servers[] = "192.0.2.1 192.0.2.2";
         return rtc_net_set_dns(Servers) == 0;
     },
     SilenceLog},
    {"OV_RTC4GmoduleCreateScript",
     [] {
         const OV_RTC_INTF_CONFIG_LTE Lte = {};
         return OV_RTC4GmoduleCreateScript("ppp7", &Lte, 7) == 0;
     },
     [] { std::filesystem::create_directories("/etc/ppp"); }},
    {"OV_RTCBypass", [] { return BoardRests() && OV_RTCBypass(2) == 0; }, UseBoard},
    {"OV_RTCFeedDog",
     [] {
         return BoardRests() && OV_RTCFeedDogInit(RTC_PLATFORM_QIYANG_J1900, 30) == 0 &&
                OV_RTCFeedDog(RTC_PLATFORM_QIYANG_J1900, 0) == 0 &&
                OV_RTCFeedDogUninit(RTC_PLATFORM_QIYANG_J1900) == 0;
     },
     UseBoard},
    {"OV_RTCFeedDogWritePidFile", [] { return OV_RTCFeedDogWritePidFile() == 0; }},
    {"OV_RTCFeedDogCheckRunning", [] { return OV_RTCFeedDogCheckRunning() == getpid(); },
     [] { OV_RTCFeedDogWritePidFile(); }},
    {"OV_RTCBypassMode", [] { return OV_RTCBypassMode(0) == 0; },
     [] { unlink("/run/feeddog.pid"); }},
};

/* ---- The judge ---- */

/* Every memory module with its counters. */
static std::string Memory()
{
    std::string Text;

    for (int32_t Module = 0; Module < OV_MEM_MODULE_COUNT; Module++) {
        OV_USEAGE_INFO Info = {};
        OV_MemGetUsage(Module, &Info);
        if (Info.Name[0] != '\0') {
            Text.append(Info.Name).append(" " + std::to_string(Info.MemUsage));
            Text += "+" + std::to_string(Info.VmemUsage) + " ";
        }
    }
    return Text;
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

static void *CallCancelled(void *Arg)
{
    const RCU_THREAD Registered;

    pthread_cancel(pthread_self());
    static_cast<const ROW *>(Arg)->Calls();
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

[[noreturn]] static void Judge(const ROW &Row)
{
    const RCU_THREAD Registered;

    OV_AgentCustomLogCtor(LogLine, LogLineValist);
    alarm(10);
    if (Row.Prepare != nullptr) {
        Row.Prepare();
    }
    Require(Row.Calls(), "does not work at all");
    const size_t Descriptors = OpenDescriptors();
    const size_t Threads = OpenThreads();
    const std::string Before = Memory();

    OV_THREAD_T Thread;
    void *Result = nullptr;
    errno = 77;
    Require(OV_ThreadRun(&Thread, nullptr, CallCancelled, const_cast<ROW *>(&Row), "cancelled") ==
                    0 &&
                errno == 77,
            "the start of a thread changed errno to " + std::to_string(errno));
    pthread_join(Thread.Tid, &Result);
    Require(Result == PTHREAD_CANCELED, "was not cancelled");
    Require(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD, "a child is left over");
    alarm(2);
    Require(Row.Calls() && s_IsWhole, "does not work any more");
    alarm(10);
    Require(WaitUntil([&] { return OpenThreads() <= Threads; }, 1), "a thread is left over");
    Require(WaitUntil([&] { return OpenDescriptors() <= Descriptors; }, 1),
            std::to_string(OpenDescriptors() - Descriptors) + " descriptors are left over");
    Require(Memory() == Before, "memory: " + Before + "-> " + Memory());
    _exit(0);
}

class Cancel : public testing::TestWithParam<ROW> {};

TEST_P(Cancel, LeavesNothing)
{
    EXPECT_EXIT(Judge(GetParam()), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(, Cancel, testing::ValuesIn(ROWS),
                         [](const auto &Row) { return std::string(Row.param.Name); });
