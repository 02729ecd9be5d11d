/* Forks of a process whose threads are in the library: a child that hangs at its first use of a
 * module, that exchanges on its parent's connection, that finds its parent's callbacks or
 * descriptors, a line in a log that is not whole. A row has threads in one module and a child that
 * uses it; the last test has all of them. Both services are threads of this process. */
#include "linuxRtc.h"
#include "linuxRtcGenlMonitor.h"
#include "linuxRtcInit.h"
#include "linuxRtcMonitor.h"
#include "loopbackServer.h"
#include "orvaneDispatchClient.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLogFile.h"
#include "orvaneMemPool.h"
#include "orvaneRtcIpRule.h"
#include "orvaneRtcRoute.h"
#include "testSupport.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <errno.h>
#include <filesystem>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static const char *const AGENT_LOG = "/tmp/fork.log";
static const std::string ROTATING_LOG = "/tmp/fork.rotating";
static const std::string TEXT(600, 'x'); /* ends far behind a line's stamp */

static uint32_t s_LogId;
static int32_t s_PoolId;
static std::atomic<bool> s_IsOver;

/* What a row's threads do again and again, and what a child does once: an empty text, or what went
 * wrong. */
struct ROW {
    const char *Name;
    void (*Use)();
    std::string (*UseInChild)();
};

static std::string Unless(bool IsGood, const std::string &Fault)
{
    return IsGood ? "" : Fault;
}

static void LogAgent()
{
    OV_LOG_INFO("%s", TEXT.c_str());
}

static std::string LogAgentInChild()
{
    LogAgent();
    return "";
}

static void LogRotating()
{
    OV_Log2File(s_LogId, "%s\n", TEXT.c_str());
}

static void OpenRotating()
{
    static std::atomic<int> s_Number;
    const std::string Path = "/tmp/fork.other." + std::to_string(s_Number++ % 4);

    OV_LogFileRelease(static_cast<uint32_t>(OV_LogFileInit(Path.c_str(), Path.size())));
}

static std::string LogRotatingInChild()
{
    LogRotating();
    OpenRotating();
    return "";
}

static void AskForTheTime()
{
    _OV_SYSTIME_T Now;

    OV_GetSystime(&Now);
}

/* In libc's own way, too. */
static std::string AskForTheTimeInChild()
{
    const time_t Now = time(nullptr);
    struct tm Date;

    AskForTheTime();
    tzset();
    return Unless(localtime_r(&Now, &Date) != nullptr, "no time");
}

static void UseMemory()
{
    const int32_t Id = OV_MemModRegister("fork", 4);

    OV_MemFree(Id, OV_MemAlloc(Id, 100, 0));
    OV_MemModUnRegister(Id);
}

static std::string UseMemoryInChild()
{
    const int32_t Id = OV_MemModRegister("child", 5);
    void *Block = OV_MemAlloc(Id, 100, 0);
    OV_USEAGE_INFO Info = {};

    OV_MemGetUsage(Id, &Info);
    OV_MemFree(Id, Block);
    OV_MemModUnRegister(Id);
    return Unless(Block != nullptr && Info.MemCounter == 1 && Info.MemUsage == 112,
                  "memory: module " + std::to_string(Id) + ", blocks " +
                      std::to_string(Info.MemCounter) + ", bytes " + std::to_string(Info.MemUsage));
}

static void UsePools()
{
    OV_MemPoolDestroy(OV_MemPoolCreate("fork", 4, 64, 0, 0));
}

static std::string UsePoolsInChild()
{
    UsePools();
    const int32_t Id = OV_MemPoolCreate("child", 5, 64, 0, 0);
    OV_MemPoolFree(Id, OV_MemPoolAlloc(Id));
    OV_MemPoolDestroy(Id);
    return "";
}

static void UseMessages()
{
    OV_FlexMsgInit();
    OV_FlexMsgFree(OV_FlexMsgAlloc());
    OV_FlexMsgRelease();
}

static std::string UseMessagesInChild()
{
    UseMessages();
    return "";
}

static void UseRoutes()
{
    OV_RTC_ROUTE_CONF Route = {};

    Route.TargetIp.Ip = 0x0A000000 + static_cast<uint32_t>(gettid());
    Route.TargetIp.Mask = 32;
    Route.NexthopNum = 1;
    strcpy(Route.IfName[0], "lo");
    OV_RTCRouteAdd(&Route);
    OV_RTCRouteDel(&Route);
}

static void UseRules()
{
    OV_RTC_IP_RULE_CONF Rule = {};

    Rule.Priority = static_cast<uint16_t>(1000 + gettid() % 1000);
    Rule.TableId = 100;
    OV_RTCIpRuleAdd(&Rule);
    OV_IsIpRuleExist(&Rule);
    OV_RTCIpRuleDel(&Rule);
}

/* How many descriptors there are of that kind: netlink sockets, or connections to the port. */
static int Descriptors(int Family, uint16_t Port = 0)
{
    int Number = 0;

    for (int Fd = 0; Fd < 256; Fd++) {
        struct sockaddr_storage Address = {};
        socklen_t Length = sizeof(Address);
        auto *Any = reinterpret_cast<struct sockaddr *>(&Address);

        if (Family == AF_NETLINK) {
            Number += getsockname(Fd, Any, &Length) == 0 && Any->sa_family == AF_NETLINK;
        } else if (getpeername(Fd, Any, &Length) == 0 && Any->sa_family == AF_INET) {
            Number += ntohs(reinterpret_cast<struct sockaddr_in *>(Any)->sin_port) == Port;
        }
    }
    return Number;
}

static std::string UseNetlinkInChild()
{
    const int Inherited = Descriptors(AF_NETLINK);

    UseRoutes();
    UseRules();
    return Unless(Inherited == 0, std::to_string(Inherited) + " netlink sockets of the parent's");
}

static int Ignore(OV_RTC_MONITOR_NOTIFY *)
{
    return 0;
}

static void RestartMonitor()
{
    OV_RTCGenlMonitorInit();
    OV_RTCGenlMonitorRegCallback(Ignore);
    OV_RTCGenlMonitorUninit();
}

static std::string RestartMonitorInChild()
{
    const int Inherited = Descriptors(AF_NETLINK);
    const int Stopped = OV_RTCGenlMonitorUninit();
    const int Started = OV_RTCGenlMonitorInit();
    const int Slot = OV_RTCGenlMonitorRegCallback(Ignore);
    OV_RTCMonitorSendAddrRequest();
    OV_RTCGenlMonitorUninit();
    return Unless(Inherited == 0 && Stopped == 0 && Started == 0 && Slot == 0,
                  "monitor: " + std::to_string(Inherited) + " sockets of the parent's, stop " +
                      std::to_string(Stopped) + ", start " + std::to_string(Started) + ", slot " +
                      std::to_string(Slot));
}

static void AskConfiguration()
{
    char Item[4];

    OV_ImcConfGet(1, 2, "ask", 3, Item, sizeof(Item));
}

static std::string AskConfigurationInChild()
{
    const int Inherited = Descriptors(AF_INET, 55435);
    char Item[8] = "";
    const std::string Own = std::to_string(getpid());
    const OV_ERR_T Outside = OV_ImcConfGet(1, 2, "ask", 3, Item, sizeof(Item));
    const OV_ERR_T Started = OV_ImcConfClientInit();
    const OV_ERR_T Got = OV_ImcConfGet(1, 2, Own.c_str(), Own.size(), Item, sizeof(Item) - 1);
    OV_ImcConfClientRelease();
    return Unless(Inherited == 0 && Outside == -EBADF && Started == 0 && Got == 0 && Item == Own,
                  "configuration: " + std::to_string(Inherited) + " connections of the parent's, " +
                      std::to_string(Outside) + " outside, start " + std::to_string(Started) +
                      ", item " + Item + " for " + Own);
}

/* The reply is the request behind a return code. */
static bool IsAnswered(const std::string &Request)
{
    OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(64);
    bool IsGood = Desc != nullptr;

    if (IsGood) {
        OV_DispatchInitHdr(Desc, 1, 1);
        OV_DispatchPut(Desc, Request.c_str(), static_cast<int32_t>(Request.size() + 1));
        IsGood = OV_DispatchConfigure(Desc) == 0 &&
                 Request == static_cast<const char *>(OV_DispatchPayload(Desc)) + sizeof(int32_t);
    }
    OV_DispatchFreeDesc(Desc);
    return IsGood;
}

static void AskDispatch()
{
    IsAnswered("parent");
    OV_DispatchNotifyReply(1, 1, TEXT.c_str(), 100);
}

static void RestartDispatch()
{
    OV_DispatchClientExit();
    OV_DispatchClientInit();
    usleep(1000);
}

static std::string AskDispatchInChild()
{
    const int Inherited = Descriptors(AF_INET, 54321) + Descriptors(AF_INET, 54322);
    const OV_ERR_T Started = OV_DispatchClientInit();
    const bool IsGood = IsAnswered(std::to_string(getpid()));
    OV_MemPoolDestroy(OV_MemPoolCreate("child", 5, 64, 0, 0));
    OV_DispatchClientExit();
    return Unless(Inherited == 0 && Started == 0 && IsGood,
                  "dispatch: " + std::to_string(Inherited) +
                      " connections of the parent's, start " + std::to_string(Started) +
                      (IsGood ? "" : ", no answer"));
}

static void RunCommands()
{
    char Output[16];

    OV_RTCExecCmd("echo here", Output, sizeof(Output));
    OV_RTCSystem("true");
}

static std::string RunCommandsInChild()
{
    char Output[16];

    return Unless(OV_RTCExecCmd("echo here", Output, sizeof(Output)) == 5 &&
                      OV_RTCSystem("true") == 0,
                  "commands");
}

static std::string RestartAllInChild()
{
    OV_RTCExit();
    const OV_ERR_T Started = OV_RTCInit(nullptr);
    const bool IsGood = IsAnswered(std::to_string(getpid()));
    OV_RTCExit();
    return Unless(Started == 0 && IsGood,
                  "library: start " + std::to_string(Started) + (IsGood ? "" : ", no answer"));
}

static void Nothing() {}

static const ROW ROWS[] = {
    {"AgentLog", LogAgent, LogAgentInChild},
    {"RotatingLog", LogRotating, LogRotatingInChild},
    {"LogFiles", OpenRotating, LogRotatingInChild},
    {"Time", AskForTheTime, AskForTheTimeInChild},
    {"Memory", UseMemory, UseMemoryInChild},
    {"Pools", UsePools, UsePoolsInChild},
    {"Messages", UseMessages, UseMessagesInChild},
    {"Routes", UseRoutes, UseNetlinkInChild},
    {"Rules", UseRules, UseNetlinkInChild},
    {"Monitor", RestartMonitor, RestartMonitorInChild},
    {"Configuration", AskConfiguration, AskConfigurationInChild},
    {"Dispatch", AskDispatch, AskDispatchInChild},
    {"DispatchRestarts", RestartDispatch, AskDispatchInChild},
    {"Commands", RunCommands, RunCommandsInChild},
    {"Library", Nothing, RestartAllInChild},
};

static OV_DISPATCH_DESC *UsePoolInHandler(OV_DISPATCH_DESC *Desc)
{
    OV_MemPoolFree(s_PoolId, OV_MemPoolAlloc(s_PoolId));
    return Desc;
}

static std::string ReceiveFrame(int Socket)
{
    OV_DISPATCH_HDR Header;
    const std::string Head = ReceiveBytes(Socket, sizeof(Header));

    if (Head.size() != sizeof(Header)) {
        return "";
    }
    memcpy(&Header, Head.data(), sizeof(Header));
    return ReceiveBytes(Socket, Header.Length - sizeof(Header));
}

static std::string Frame(const std::string &Payload)
{
    return BytesOf(OV_DISPATCH_HDR{0, 1, 1, static_cast<uint32_t>(8 + Payload.size())}) + Payload;
}

static void AnswerRequests(int Socket)
{
    for (std::string Request; !(Request = ReceiveFrame(Socket)).empty();) {
        if (!SendBytes(Socket, Frame(BytesOf(int32_t{0}) + Request))) {
            return;
        }
    }
}

/* And takes what is pushed: a push waits for who does not. */
static void FloodNotifications(int Socket)
{
    char Pushed[65536];

    while (SendBytes(Socket, Frame("note"))) {
        recv(Socket, Pushed, sizeof(Pushed), MSG_DONTWAIT);
        usleep(100);
    }
}

static void AnswerItems(int Socket)
{
    for (std::string Head; (Head = ReceiveBytes(Socket, 16)).size() == 16;) {
        OV_IMC_REQ_HDR Request;
        memcpy(&Request, Head.data(), sizeof(Request));
        const std::string Item = ReceiveBytes(Socket, Request.PayloadBytes);
        if (!SendBytes(Socket, BytesOf(OV_IMC_REPLY_HDR{0, {}, Item.size()}) + Item)) {
            return;
        }
    }
}

/* The program's own, registered before the library's. */
static std::atomic<bool> s_AreHandlersInUse;
static void Handler()
{
    if (s_AreHandlersInUse) {
        UseMemory();
        LogAgent();
        LogRotating();
        AskForTheTime();
    }
}
static const int s_IsHandled = pthread_atfork(Handler, Handler, Handler);

class Fork : public testing::TestWithParam<ROW> {
  protected:
    static void SetUpTestSuite()
    {
        Shell("ip link set lo up");
        InstallCommand("dmidecode", "printf none");
    }
    void SetUp() override
    {
        WriteFile(AGENT_LOG, "");
        ASSERT_EQ(OV_AgentFileLogCtor(AGENT_LOG), 0);
        s_LogId = static_cast<uint32_t>(OV_LogFileInit(ROTATING_LOG.c_str(), ROTATING_LOG.size()));
        OV_LogFileSetMaxFileSize(s_LogId, 100000);
        OV_LogFileSetFileNum(s_LogId, 100);
        s_PoolId = OV_MemPoolCreate("handler", 7, 64, 0, 0);
        OV_DispatchClientAddModuleFunc(1, UsePoolInHandler);
        ASSERT_EQ(OV_RTCBaseInit(nullptr), 0);
    }
    void TearDown() override
    {
        OV_RTCBaseExit();
        OV_DispatchClientDelModuleFunc(1, UsePoolInHandler);
        OV_MemPoolDestroy(s_PoolId);
        OV_LogFileRelease(s_LogId);
        OV_AgentLogDtor();
        ExpectWholeLines(AGENT_LOG);
        for (const auto &Entry : std::filesystem::directory_iterator("/tmp")) {
            if (Entry.path().string().starts_with(ROTATING_LOG)) {
                ExpectWholeLines(Entry.path());
                std::filesystem::remove(Entry.path());
            }
        }
        TakeSystemLog();
    }

    /* A stamp, and either our text or none that could be a piece of it. */
    static void ExpectWholeLines(const std::string &Path)
    {
        int Broken = 0;
        std::string Last;

        for (const std::string &Line : Lines(ReadFile(Path))) {
            const bool IsOurs = Line.size() > TEXT.size();
            if (Line.empty() || Line == ".") {
                continue; /* behind "log start...", and behind a route's own newline */
            }
            if (Line[0] != '[' || Contains(Line.substr(1), "[20") ||
                (IsOurs ? !Line.ends_with(TEXT) : Contains(Line, "xx"))) {
                Broken++;
                Last = Line;
            }
        }
        EXPECT_EQ(Broken, 0) << Path << ": " << Last;
    }

    /* The child's own fault, or where it was when its second was over. */
    static std::string RunChild(const std::vector<ROW> &Rows, char *Place)
    {
        const pid_t Child = fork();

        if (Child == 0) {
            alarm(Rows.size() == 1 ? 1 : 3); /* two threads share a processor with the parent's */
            for (const ROW &Row : Rows) {
                strcpy(Place, Row.Name);
                const std::string Fault = Row.UseInChild();
                if (!Fault.empty()) {
                    strcpy(Place, Fault.c_str());
                    _exit(1);
                }
            }
            _exit(0);
        }
        const int Status = WaitForProcess(Child);
        return Status == 0 ? "" : std::to_string(Status) + " at " + Place;
    }

    void ExpectGoodChildren(const std::vector<ROW> &Rows, int Forks)
    {
        char *Place = static_cast<char *>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        std::vector<std::thread> Threads;
        std::map<std::string, int> Faults;

        s_IsOver = false;
        for (const ROW &Row : Rows) {
            Threads.emplace_back([&Row] {
                while (!s_IsOver) {
                    Row.Use();
                    if (Row.Use == Nothing) {
                        return;
                    }
                }
            });
        }
        for (int Count = 0; Count < Forks; Count++) {
            TakeSystemLog(); /* or it grows, and with it the time of a fork */
            const std::string Fault = RunChild(Rows, Place);
            if (!Fault.empty()) {
                Faults[Fault]++;
            }
        }
        s_IsOver = true;
        for (std::thread &Thread : Threads) {
            Thread.join();
        }
        EXPECT_TRUE(IsAnswered("parent")) << "a child broke its parent's connection";
        for (const auto &[Fault, Count] : Faults) {
            ADD_FAILURE() << Count << " of " << Forks << " children: " << Fault;
        }
        munmap(Place, 4096);
    }

    LOOPBACK_SERVER Requests{54321, AnswerRequests};
    LOOPBACK_SERVER Listeners{54322, FloodNotifications};
    LOOPBACK_SERVER Items{55435, AnswerItems};
};

#if !defined(__SANITIZE_ADDRESS__) && \
    !defined(__SANITIZE_THREAD__) /* which lose their way in a fork */
TEST_P(Fork, AChildUsesTheModule)
{
    ExpectGoodChildren({GetParam()}, 20);
}

INSTANTIATE_TEST_SUITE_P(Rows, Fork, testing::ValuesIn(ROWS),
                         [](const auto &Info) { return std::string(Info.param.Name); });

TEST_F(Fork, AChildUsesTheWholeLibrary)
{
    ExpectGoodChildren({std::begin(ROWS), std::end(ROWS)}, 60);
}

/* The pipe of a command that is read has no other end in a child, which may live for months. */
TEST_F(Fork, AChildThatLivesHoldsUpNoCommand)
{
    std::atomic<int> Late = 0;
    s_IsOver = false;
    std::thread Reader([&] {
        while (!s_IsOver) {
            const auto Before = std::chrono::steady_clock::now();
            RunCommands();
            Late += std::chrono::steady_clock::now() - Before > std::chrono::milliseconds(700);
        }
    });
    std::vector<pid_t> Children;
    for (int Count = 0; Count < 60; Count++) {
        Children.push_back(fork());
        if (Children.back() == 0) {
            usleep(1000000);
            _exit(0);
        }
        usleep(5000);
    }
    for (const pid_t Child : Children) {
        WaitForProcess(Child);
    }
    s_IsOver = true;
    Reader.join();
    EXPECT_EQ(Late, 0);
}

/* Its handlers run between the library's, while the fork sits on the locks. */
TEST_F(Fork, AProgramsOwnHandlersMayLogAndAllocate)
{
    s_AreHandlersInUse = true;
    for (int Count = 0; Count < 20; Count++) {
        alarm(5);
        const pid_t Child = fork();
        if (Child == 0) {
            _exit(0);
        }
        EXPECT_EQ(WaitForProcess(Child), 0);
    }
    alarm(0);
    s_AreHandlersInUse = false;
}

/* It goes on with its copy of the call, behind the gate that its parent's threads are still in. */
TEST_F(Fork, AChildOfAReplyHandlerLeavesTheCall)
{
    static pid_t s_Child;
    const auto Handler = [](const void *, size_t, void *) -> OV_ERR_T {
        s_Child = fork();
        alarm(s_Child == 0 ? 1 : 0);
        return 7;
    };
    const OV_ERR_T Result = OV_ImcConfGetByFunc(1, 2, "ask", 3, Handler, nullptr);
    if (s_Child == 0) {
        OV_ImcConfClientRelease();
        const bool IsGood = Result == 7 && OV_ImcConfClientInit() == 0;
        OV_ImcConfClientRelease();
        _exit(IsGood ? 0 : 1);
    }
    EXPECT_EQ(WaitForProcess(s_Child), 0);
    char Item[4];
    EXPECT_EQ(OV_ImcConfGet(1, 2, "ask", 3, Item, sizeof(Item)), 0);
}
#endif
