/* The example agent as a process, between a simulated board, simulated services and the kernel: a
 * start that leaves out a step, an event that does not arrive, an end that leaves something. */
#include "boardModel.h"
#include "linuxRtcSockMonitor.h"
#include "loopbackServer.h"
#include "orvaneDispatch.h"
#include "orvaneImc.h"
#include "testSupport.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

static const char *const AGENT = "/tmp/agent.output";
static const char *const SERVICES = "/tmp/services.output";
static const char *const RULES = /* but the kernel's own, and the routes that the agent adds */
    "for f in -4 -6; do ip $f rule | grep -v -e ^0: -e ^3276 | awk '{print $1 $3, $5}'; done;"
    "ip route show table 100 2>/dev/null";

static std::string Output(const std::string &Command)
{
    WaitForProcess(StartProcess({"sh", "-c", Command}, {}, "/tmp/command"));
    return ReadFile("/tmp/command");
}

static bool Says(const char *Path, const std::string &Part)
{
    return WaitUntil([&] { return Contains(ReadFile(Path), Part); });
}

static pid_t StartOnBoard(const std::string &Program, const std::string &Argument)
{
    return StartProcess({BuildFolder() + "/" + Program, Argument},
                        {"RTC_BOARD=/tmp/board", "RTC_BOARD_NAME=B1904",
                         "ASAN_OPTIONS=verify_asan_link_order=0:use_sigaltstack=0",
                         "TSAN_OPTIONS=suppressions=/tmp/races",
                         "LD_PRELOAD=" + BuildFolder() + "/librtcBoard.so"},
                        AGENT);
}

class AgentTest : public testing::Test {
  protected:
    void SetUp() override
    {
        Output("rm -f /tmp/told /tmp/agent.log; mkfifo /tmp/told; ip link del wan0;"
               "ip link add wan0 type veth peer name far0; ip link set wan0 up;"
               "for p in 50 240; do ip rule del prio $p; ip -6 rule del prio $p; done");
        WriteFile("/tmp/races", "race:_LeaveWait\nrace:_CloseEpoll\n"); /* as in testMain.cpp */
        ASSERT_EQ(BoardFileCreate("/tmp/board", "B1904"), 0);
        EXPECT_EQ(WaitForProcess(StartOnBoard("bypass_cmd", "-b1")), 0);
    }
    void TearDown() override
    {
        if (Services > 0) {
            kill(Services, SIGKILL);
            WaitForProcess(std::exchange(Services, -1));
        }
    }
    void StartServices(const std::string &Which, BOARD_RELAY Relay = RELAY_BYPASS)
    {
        const std::string Line = "exec " + BuildFolder() + "/services " + Which + " 0<>/tmp/told";
        Services = StartProcess({"sh", "-c", Line}, {}, SERVICES);
        ASSERT_TRUE(Says(SERVICES, "services: ready\n"));
        EXPECT_EQ(BoardRelay(BoardFileOpen("/tmp/board"), 1), Relay);
    }
    pid_t Services = -1;
};

TEST_F(AgentTest, WithoutAServiceItSaysSoAndTouchesNothing)
{
    for (const char *Running : {"dispatch", "configuration"}) {
        StartServices(Running);
        EXPECT_EQ(WaitForProcess(StartOnBoard("agent", "wan0")), 1);
        EXPECT_TRUE(Says(AGENT, "agent: start: Connection refused (-111)\nagent: stopped\n"));
        EXPECT_EQ(BoardRelay(BoardFileOpen("/tmp/board"), 1), RELAY_BYPASS);
        EXPECT_EQ(Output(RULES), "");
        TearDown();
    }
    EXPECT_TRUE(Says("/tmp/agent.log", "]failed to OV_ImcConfClientInit: Connection refused\n"));
    EXPECT_TRUE(Says("/tmp/agent.log", "]failed to init dispatch client\n"));
}

TEST_F(AgentTest, WorksAndLeavesNothingOfItsOwn)
{
    StartServices("");
    const pid_t Agent = StartOnBoard("agent", "wan0");
    ASSERT_TRUE(Says(AGENT, "agent: running\n")) << ReadFile(AGENT) << ReadFile("/tmp/agent.log");
    EXPECT_EQ(BoardRelay(BoardFileOpen("/tmp/board"), 1), RELAY_NO_BYPASS);
    EXPECT_EQ(Output(RULES),
              "50:all main\n100:192.0.2.0/24 100\n240:all default\n50:all main\n240:all default\n"
              "198.51.100.0/24 dev wan0 scope link linkdown \n");
    EXPECT_EQ(ReadFile("/sys/class/net/wan0/mtu"), "1400\n");
    EXPECT_TRUE(Says(AGENT, " replied \"hello from process " + std::to_string(Agent) + "\"\n"));
    EXPECT_TRUE(Says(AGENT, "agent: the configuration service keeps \"wan0 mtu 1400\"\n"));
    Output("ip route add 203.0.113.0/24 dev wan0; echo down lan1 >/tmp/told");
    EXPECT_TRUE(Says(AGENT, "agent: event: route added 203.0.113.0/24 dev wan0 table 254\n"));
    EXPECT_TRUE(Says(AGENT, "agent: event: interface lan1 down\n"));
    TearDown(); /* and back again: the agent hears of it */
    EXPECT_TRUE(Says(AGENT, "agent: the dispatch service is gone\n"));
    StartServices("", RELAY_NO_BYPASS);
    EXPECT_TRUE(Says(AGENT, "agent: the dispatch service is back\n"));
    EXPECT_TRUE(WaitUntil([] { /* the service may not have taken its connection yet */
        Output("echo up lan1 >/tmp/told");
        return Contains(ReadFile(AGENT), "agent: event: interface lan1 up\n");
    }));
    kill(Agent, SIGTERM);
    EXPECT_EQ(WaitForProcess(Agent), 0) << ReadFile(AGENT);
    EXPECT_EQ(Output(RULES), "50:all main\n240:all default\n50:all main\n240:all default\n");
    EXPECT_TRUE(Says(SERVICES, " dispatch client gone\n"));
}

TEST_F(AgentTest, AListenerThatDoesNotReadKeepsNoneWaiting)
{
    static constexpr size_t BATCH =
        1000 * (sizeof(OV_DISPATCH_HDR) + sizeof(OV_NETIO_STATE_NOTIFY));
    const struct timeval Patience = {10, 0};
    OV_SOCKET Deaf = -1;
    OV_SOCKET Listener = -1;
    StartServices("dispatch");
    ASSERT_EQ(OV_ImcConnect(INADDR_LOOPBACK, 54322, &Deaf), 0);
    ASSERT_EQ(OV_ImcConnect(INADDR_LOOPBACK, 54322, &Listener), 0);
    setsockopt(Listener, SOL_SOCKET, SO_RCVTIMEO, &Patience, sizeof(Patience));
    EXPECT_TRUE(WaitUntil([] {
        Output("echo down lan1 >/tmp/told");
        return Contains(ReadFile(SERVICES), " told to 2\n");
    }));
    bool DeafIsGone = false; /* after some 4 MB that the kernel keeps for it */
    for (int Batch = 0; Batch < 100 && !DeafIsGone; Batch++) {
        Output("yes down lan1 | head -n 1000 | timeout 20 tee /tmp/told >/dev/null");
        ASSERT_EQ(ReceiveBytes(Listener, BATCH).size(), BATCH);
        DeafIsGone = Contains(ReadFile(SERVICES), "a listener does not read");
    }
    EXPECT_TRUE(DeafIsGone);
    EXPECT_TRUE(Says(SERVICES, " told to 1\n"));
    close(Deaf);
    close(Listener);
}
