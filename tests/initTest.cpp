/* Start and stop of the library: a step out of its order, a count that lies, a failed start that
 * leaves something open or counted, a stop that loses its way in the middle of events. Both
 * services are threads of this process; the machine has no supported board. */
#include "linuxRtcInit.h"
#include "linuxRtcMonitor.h"
#include "loopbackServer.h"
#include "orvaneDispatchClient.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLibrtcMem.h"
#include "orvaneMem.h"
#include "orvaneRtcVersion.h"
#include "testSupport.h"

#include <atomic>
#include <errno.h>
#include <memory>
#include <regex>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

static constexpr uint16_t REQUEST_PORT = 54321;
static constexpr uint16_t NOTIFY_PORT = 54322;
static constexpr uint16_t CONF_PORT = 55435;

static const std::string VERSION = "OV Librtc version: 5.0.0.64\n";
static const std::string FIRST_START = VERSION + "INFO librtc init(1)\n";
static const std::string LAST_STOP = "INFO librtc exit(1)\n";
static const std::string LISTENS = "WARN add netlink-route socket() to epoll()\n";

/* Of a full start, on a machine without rules of its own at these priorities. */
static const std::string RULES_ORDERED = "INFO ip rule del prio 50 failed ret=-2\n"
                                         "INFO ip -6 rule del prio 50 failed ret=-2\n"
                                         "INFO ip rule add prio 50 table 254 success ret=0\n"
                                         "INFO ip -6 rule add prio 50 table 254 success ret=0\n"
                                         "INFO ip rule del prio 240 failed ret=-2\n"
                                         "INFO ip -6 rule del prio 240 failed ret=-2\n"
                                         "INFO ip rule add prio 240 table 253 success ret=0\n"
                                         "INFO ip -6 rule add prio 240 table 253 success ret=0\n";

static std::atomic<int> s_Events; /* relayed by the dispatch service */
static std::atomic<int> s_Routes; /* told by the kernel */

static int Count(OV_RTC_MONITOR_NOTIFY *Notify)
{
    s_Events += Notify->Type == MONITOR_DATAPATH ? 1 : 0;
    s_Routes += Notify->Type == MONITOR_ROUTE ? 1 : 0;
    return 0;
}

/* What start, stop and rule order said, a line each, without levels and line numbers; of the
 * version what is the same in every build. */
static std::string Told()
{
    static const std::regex Ours(R"(\d \[(\w+)\]\[(_StartBase|OV_RTCBaseInit|OV_RTCBaseExit|)"
                                 R"(OV_RTCInit|OV_RTCNet\w+|_RTCMonitorEpollAdd)-\d+\](.*)\n)");
    static const std::regex Version(R"(\d (OV Librtc version: 5\.0\.0\.64), git: )"
                                    R"(([0-9a-f]{7,}|unknown), build: \w{3} [ \d]\d \d{4} )"
                                    R"(\d\d:\d\d:\d\d\n)");
    std::string Result;
    std::smatch Match;

    for (const std::string &Line : TakeLog()) {
        if (std::regex_match(Line, Match, Ours)) {
            Result += std::regex_replace(Match.str(1) + " " + Match.str(3) + "\n",
                                         std::regex(R"((socket|epoll)\(\d+\))"), "$1()");
        } else if (std::regex_match(Line, Match, Version)) {
            Result += Match.str(1) + "\n";
        }
    }
    return Result;
}

/* Of the family "-4" or "-6"; what ip calls table 253 differs. */
static std::string RulesOf(const std::string &Family)
{
    WaitForProcess(StartProcess({"ip", Family, "rule"}, {}, "/tmp/output"));
    return std::regex_replace(ReadFile("/tmp/output"), std::regex("lookup 253"), "lookup default");
}

static int Modules()
{
    int Number = 0;

    for (int32_t Id = 0; Id < OV_MEM_MODULE_COUNT; Id++) {
        Number += OV_MemIsModRegistered(Id) ? 1 : 0;
    }
    return Number;
}

/* Takes all places in the table of memory modules but those that are taken. */
class FULL_TABLE {
  public:
    FULL_TABLE()
    {
        for (int Number = Modules(); Number < OV_MEM_MODULE_COUNT; Number++) {
            const std::string Name = "place " + std::to_string(Number);
            Ids.push_back(OV_MemModRegister(Name.c_str(), Name.size()));
        }
    }
    ~FULL_TABLE()
    {
        for (const int32_t Id : Ids) {
            OV_MemModUnRegister(Id);
        }
    }

  private:
    std::vector<int32_t> Ids;
};

/* The services answer a request with itself; the notifying one floods while told to. */
class Init : public testing::Test {
  protected:
    static inline size_t Threads; /* of this process before the first start, and descriptors */
    static inline size_t Descriptors;
    std::atomic<bool> IsFlooding = false;
    std::unique_ptr<LOOPBACK_SERVER> Requests;
    std::unique_ptr<LOOPBACK_SERVER> Notifications;
    std::unique_ptr<LOOPBACK_SERVER> Conf;
    static void SetUpTestSuite()
    {
        std::thread([] {}).join(); /* a sanitizer's own begins with the first */
        OV_RTCBaseExit();          /* the memory table's lock lives from its first use on */
        Threads = OpenThreads();
        RecordLog();
        Descriptors = OpenDescriptors();
    }
    static void Echo(int Socket)
    {
        OV_DISPATCH_HDR Header;
        while (recv(Socket, &Header, sizeof(Header), MSG_WAITALL) == sizeof(Header)) {
            SendBytes(Socket, BytesOf(Header) + ReceiveBytes(Socket, Header.Length - 8));
        }
    }
    void Notify(int Socket)
    {
        /* A report of the data path, whose event is a block of the library's. */
        const std::string Frame = BytesOf(OV_DISPATCH_HDR{0, 3, 30, 20}) +
                                  BytesOf(OV_DP_REPORT_HEADER{7, 8, 12}) + "data";
        char Byte = 0;
        do {
            while (IsFlooding && SendBytes(Socket, Frame)) {}
            usleep(1000);
        } while (recv(Socket, &Byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0);
    }
    void SetUp() override
    {
        InstallCommand("dmidecode", "echo no such board");
        TakeLog();
    }
    void StartServices()
    {
        Requests = std::make_unique<LOOPBACK_SERVER>(REQUEST_PORT, Echo);
        Notifications =
            std::make_unique<LOOPBACK_SERVER>(NOTIFY_PORT, [this](int Socket) { Notify(Socket); });
        Conf = std::make_unique<LOOPBACK_SERVER>(CONF_PORT,
                                                 [](int Socket) { ReceiveBytes(Socket, 1); });
    }
    void TearDown() override
    {
        IsFlooding = false;
        OV_RTCMonitorUnregCallback(0); /* the relayed events' outlives the stop */
        Requests.reset();
        Notifications.reset();
        Conf.reset();
        WaitForProcess(StartProcess(
            {"sh", "-c",
             "for f in -4 -6; do ip $f rule del prio 50; ip $f rule del prio 240; done"},
            {}, "/tmp/output"));
        ExpectNothingOpen();
    }
    static void ExpectExchange()
    {
        OV_DISPATCH_DESC *Desc = OV_DispatchAllocDesc(0);
        OV_DispatchInitHdr(Desc, 1, 1);
        EXPECT_EQ(OV_DispatchConfigure(Desc), 0);
        OV_DispatchFreeDesc(Desc);
    }
    void ExpectNothingOpen() const
    {
        EXPECT_EQ(Modules(), 0);
        EXPECT_TRUE(WaitUntil([&] { return OpenThreads() == Threads + ServiceThreads(); }));
        /* The monitor keeps one socket from its first start on. */
        EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= Descriptors + Listeners() + 1; }));
    }
    size_t Listeners() const
    {
        return (Requests ? 1U : 0) + (Notifications ? 1U : 0) + (Conf ? 1U : 0);
    }
    size_t ServiceThreads() const
    {
        return Listeners(); /* each accepts; those of connections end with these */
    }
};

TEST_F(Init, TheBaseIsCounted)
{
    OV_RTCBaseExit();
    EXPECT_EQ(Told(), "WARN librtc already exit(0)\n");
    StartServices();
    EXPECT_EQ(OV_RTCBaseInit("not used"), 0);
    EXPECT_EQ(Told(), FIRST_START);
    EXPECT_EQ(OV_RTCBaseInit(nullptr), 0);
    EXPECT_EQ(Told(), "WARN librtc already init(2)\n");
    OV_RTCBaseExit();
    EXPECT_EQ(Told(), "INFO librtc exit(1)\n");
    EXPECT_EQ(Modules(), 3);
    ExpectExchange(); /* still connected */
    OV_RTCBaseExit();
    EXPECT_EQ(Told(), LAST_STOP);
    ExpectNothingOpen();
    OV_RTCBaseExit();
    EXPECT_EQ(Told(), "WARN librtc already exit(0)\n");
}

TEST_F(Init, AFailedStartIsUndone)
{
    const std::string NoDispatch = VERSION + "WARN failed to init dispatch client\n";

    EXPECT_EQ(OV_RTCBaseInit(nullptr), -ECONNREFUSED);
    EXPECT_EQ(Told(), NoDispatch);
    ExpectNothingOpen();

    StartServices();
    Conf.reset();
    EXPECT_EQ(OV_RTCBaseInit(nullptr), -ECONNREFUSED);
    EXPECT_EQ(Told(), VERSION + "WARN failed to OV_ImcConfClientInit: Connection refused\n");
    EXPECT_TRUE(WaitUntil([&] { return Requests->Connections() == 1; }));
    ExpectNothingOpen();
    Requests.reset();
    Notifications.reset();

    StartServices();
    {
        const FULL_TABLE Full;
        EXPECT_EQ(OV_RTCBaseInit(nullptr), -EINVAL);
        EXPECT_EQ(Told(), VERSION + "WARN register memory failed.\n");
        EXPECT_EQ(OV_RTCInit(nullptr), -ENOMEM);
        EXPECT_EQ(Told(), "ERROR OV_FlexMsgInit(err: -12)\n");
        EXPECT_EQ(Requests->Connections() + Conf->Connections(), 0U);
    }
    ExpectNothingOpen();
    OV_RTCBaseExit();
    EXPECT_EQ(Told(), "WARN librtc already exit(0)\n");
    EXPECT_EQ(OV_RTCBaseInit(nullptr), 0);
    OV_RTCBaseExit();
}

/* Only the base is undone: the messages stay, for OV_RTCExit to end. */
TEST_F(Init, AFailedFullStartIsNot)
{
    EXPECT_EQ(OV_RTCInit(nullptr), -ECONNREFUSED);
    EXPECT_EQ(Told(), VERSION + "WARN failed to init dispatch client\n");
    EXPECT_EQ(Modules(), 1);
    EXPECT_FALSE(Contains(RulesOf("-4"), "50:"));
    OV_RTCExit();
    EXPECT_EQ(Told(), "WARN librtc already exit(0)\n");
}

TEST_F(Init, FullStartAndStop)
{
    /* The bypass is switched off between the services and the rules. */
    InstallCommand("dmidecode", "ip rule >/tmp/rules; ss -tn >/tmp/sockets; echo no such board");
    StartServices();
    ASSERT_EQ(OV_RTCInit("not used"), 0);
    EXPECT_EQ(Told(), FIRST_START + RULES_ORDERED + LISTENS);
    EXPECT_FALSE(Contains(ReadFile("/tmp/rules"), "50:"));
    EXPECT_TRUE(Contains(ReadFile("/tmp/sockets"), "127.0.0.1:55435"));
    for (const char *Family : {"-4", "-6"}) {
        const std::string Ordered = RulesOf(Family);
        EXPECT_TRUE(Contains(Ordered, "50:\tfrom all lookup main\n240:\tfrom all lookup default\n"))
            << Ordered;
    }
    s_Events = 0;
    EXPECT_EQ(OV_RTCMonitorRegCallback(Count), 0);
    IsFlooding = true;
    EXPECT_TRUE(WaitUntil([] { return s_Events > 0; }));
    IsFlooding = false;

    EXPECT_EQ(OV_RTCInit(nullptr), -EBADE); /* but counted, and the rules placed again */
    EXPECT_EQ(Told(),
              "WARN librtc already init(2)\n" +
                  std::regex_replace(RULES_ORDERED, std::regex("failed ret=-2"), "success ret=0") +
                  "ERROR OV_RTCMonitorInit(err: -52)\n");
    OV_RTCExit();
    EXPECT_EQ(Told(), "INFO librtc exit(1)\n");
    EXPECT_EQ(OV_RTCMonitorRegCallback(Count), -1); /* the monitors are not counted */
    OV_RTCExit();
    EXPECT_EQ(Told(), LAST_STOP);
    ExpectNothingOpen();
}

/* The event's block belongs to the account of before, not to the one of the same name. */
TEST_F(Init, AnAccountThatIsMadeAnewDuringAnEvent)
{
    char Usage[64] = "";
    const auto Renew = [](OV_RTC_MONITOR_NOTIFY *Notify) {
        if (Notify->Type == MONITOR_DATAPATH && s_Events++ == 0) {
            OV_LibrtcMemModuleUnregister();
            OV_LibrtcMemModuleRegister();
        }
        return 0;
    };

    StartServices();
    s_Events = 0;
    ASSERT_EQ(OV_RTCInit(nullptr), 0);
    EXPECT_EQ(OV_RTCMonitorRegCallback(Renew), 0);
    IsFlooding = true;
    EXPECT_TRUE(WaitUntil([] { return s_Events > 1; }));
    IsFlooding = false;
    EXPECT_TRUE(WaitUntil([&] {
        OV_LibrtcMemGetUsage(Usage, sizeof(Usage));
        return strcmp(Usage, "[MEMINFO]LIBRTC:Counter=0,Size=0\n") == 0;
    })) << Usage;
    OV_RTCExit();
}

/* A start that fails must not take from another's that succeeds; nobody keeps the lock. */
TEST_F(Init, TheBaseFromSeveralThreads)
{
    std::vector<std::thread> Users;
    std::atomic<int> Starts = 0;

    StartServices();
    for (int Number = 0; Number < 4; Number++) {
        Users.emplace_back([&] {
            while (Starts < 20000) {
                char Usage[64];
                if (OV_RTCBaseInit(nullptr) == 0) {
                    OV_LibrtcMemGetUsage(Usage, sizeof(Usage));
                    EXPECT_STREQ(Usage, "[MEMINFO]LIBRTC:Counter=0,Size=0\n");
                    Starts++;
                    OV_RTCBaseExit();
                }
            }
        });
    }
    while (Starts < 20000) { /* the service comes and goes */
        Conf.reset();
        Conf = std::make_unique<LOOPBACK_SERVER>(CONF_PORT,
                                                 [](int Socket) { ReceiveBytes(Socket, 1); });
        usleep(1000);
    }
    for (std::thread &User : Users) {
        User.join();
    }
    TakeLog();
}

TEST_F(Init, StopsAmongEvents)
{
    const pid_t Churn =
        StartProcess({"sh", "-c",
                      "ip link add v0 type veth peer name v1; "
                      "ip link set v0 up; while true; do ip route add 7.0.0.0/8 dev v0; "
                      "ip route del 7.0.0.0/8 dev v0; done"},
                     {}, "/tmp/churn");
    StartServices();
    IsFlooding = true;
    for (int Time = 0; Time < 100; Time++) {
        ASSERT_EQ(OV_RTCInit(nullptr), 0);
        s_Events = s_Routes = 0;
        EXPECT_EQ(OV_RTCMonitorRegCallback(Count), 0);
        EXPECT_TRUE(WaitUntil([] { return s_Events > 0 && s_Routes > 0; }));
        OV_RTCExit();
        ExpectNothingOpen();
    }
    kill(Churn, SIGKILL);
    WaitForProcess(Churn);
}
