/*
 * The real tool and the real example daemon, as processes on one simulated board: a status that
 * lies, a relay in the wrong state, hardware touched before the daemon is silent, a daemon that
 * leaves its watchdog armed.
 */
#include "boardModel.h"
#include "testSupport.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static const char *const BOARD_PATH = "/tmp/board";
static const char *const LOG_PATH = "/tmp/feeddog.log";
static const char *const CONF_PATH = "/etc/feeddog.conf";
static const char *const PID_PATH = "/var/run/feeddog.pid";
static const char *const OUTPUT_PATH = "/tmp/output";
static const std::string USAGE = "usage:\n"
                                 "\tbypass_cmd -b <0/1>       0: no-bypass 1: bypass\n"
                                 "\tbypass_cmd -m <0/1>       0: disable  bypass mode 1: enable\n";

/* What the boards are called by DMI and by the log. */
static constexpr struct {
    const char *ProductName;
    const char *TableName;
} BOARDS[] = {{"Aptio CRB", "QiYang-J1900"},
              {"B1904", "Huier-J1900"},
              {"IEC-810N4SC", "Huier-H61"},
              {"CARLOW", "Lihua-8865"}};

class BypassCmd : public testing::Test {
  protected:
    void SetUp() override
    {
        for (const char *Path : {LOG_PATH, CONF_PATH, PID_PATH, "/run/services", OUTPUT_PATH}) {
            std::filesystem::remove_all(Path);
        }
    }
    void TearDown() override
    {
        StopDaemon();
        BoardFileClose(Board);
        Board = nullptr;
    }

    void Use(const char *Name)
    {
        BoardFileClose(Board);
        ASSERT_EQ(BoardFileCreate(BOARD_PATH, Name), 0);
        chmod(BOARD_PATH, 0666);
        Board = BoardFileOpen(BOARD_PATH);
        ASSERT_NE(Board, nullptr);
        ProductName = Name;
    }
    pid_t Start(const STRINGS &Arguments, const std::string &Output)
    {
        STRINGS Command = Arguments;
        for (std::string &Word : Command) {
            if (Word == "bypass_cmd" || Word == "feeddog") {
                Word.insert(0, BuildFolder() + "/");
            }
        }
        return StartProcess(Command,
                            {"RTC_BOARD=" + std::string(BOARD_PATH),
                             "RTC_BOARD_NAME=" + ProductName,
                             "ASAN_OPTIONS=verify_asan_link_order=0", /* the board comes first */
                             "LD_PRELOAD=" + BuildFolder() + "/librtcBoard.so"},
                            Output);
    }
    int Run(const STRINGS &Arguments)
    {
        return WaitForProcess(Start(Arguments, OUTPUT_PATH));
    }
    void StartDaemon(const STRINGS &Arguments)
    {
        Daemon = Start(Arguments, "/tmp/feeddog.output");
    }
    /* It feeds, or its watchdog is stopped, and it waits for what comes next: it is not in the
     * middle of the chip's sequence. */
    bool DaemonRests(bool Feeding)
    {
        const std::string Call = "/proc/" + std::to_string(Daemon) + "/syscall";
        const std::string Waiting = std::to_string(SYS_rt_sigtimedwait) + " ";
        return WaitUntil([&] {
            return (BoardWatchdogRemaining(Board) > 0) == Feeding &&
                   ReadFile(Call).starts_with(Waiting);
        });
    }
    int StopDaemon()
    {
        if (Daemon < 0) {
            return -1;
        }
        kill(Daemon, SIGTERM);
        return WaitForProcess(std::exchange(Daemon, -1));
    }

    bool Relays(BOARD_RELAY Expected) const
    {
        for (unsigned Pair = 1; Pair <= BoardRelayCount(Board); Pair++) {
            if (BoardRelay(Board, Pair) != Expected) {
                return false;
            }
        }
        return true;
    }
    /* What Look finds while no process is in the middle of an access. */
    template <typename LOOK>
    auto Locked(LOOK Look) const
    {
        BoardLock(Board);
        auto Found = Look();
        BoardUnlock(Board);
        return Found;
    }
    /* The trace in letters: d the daemon, t a port access of the tool's, S its signal to the
     * daemon, which is told to be silent. */
    std::string Order() const
    {
        return Locked([&] { return Letters(); });
    }
    std::string Letters() const
    {
        std::string Letters;
        for (uint32_t Index = 0; Index < Board->TraceCount; Index++) {
            const BOARD_ACCESS &Entry = Board->Trace[Index];
            if (strcmp(Entry.Process, "feeddog") == 0) {
                Letters += 'd';
            } else if (Entry.Kind <= BOARD_OUT32) {
                Letters += 't';
            } else if (Entry.Kind == BOARD_SIGNAL && Entry.Port == SIGUSR2 && Entry.Result == 0) {
                Letters += static_cast<pid_t>(Entry.Value) == Daemon ? 'S' : '?';
            }
        }
        return Letters;
    }

    BOARD_STATE *Board = nullptr;
    std::string ProductName = "B1904";
    pid_t Daemon = -1;
};

TEST_F(BypassCmd, WordsOfTheCommandLine)
{
    static const std::vector<std::pair<STRINGS, int>> Rows = {
        {{}, 255},           {{"-h"}, 0},
        {{"-b", "2"}, 255},  {{"-b", "1", "-m", "2"}, 255},
        {{"-m", "-1"}, 255}, {{"-b", "0", "-h"}, 0},
        {{"-x"}, 255},       {{"-b"}, 255},
    };
    Use("B1904");
    for (const auto &[Arguments, Status] : Rows) {
        STRINGS Command = {"bypass_cmd"};
        Command.insert(Command.end(), Arguments.begin(), Arguments.end());
        SCOPED_TRACE(testing::PrintToString(Arguments));
        EXPECT_EQ(Run(Command), Status);
        EXPECT_TRUE(ReadFile(OUTPUT_PATH).ends_with(USAGE)) << ReadFile(OUTPUT_PATH);
        EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
        EXPECT_EQ(Board->TraceCount, 0U);
    }
    /* Without a number it is 0; the last of several counts. */
    EXPECT_EQ(Run({"bypass_cmd", "-b", "1"}), 0);
    EXPECT_EQ(BoardRelay(Board, 1), RELAY_BYPASS);
    EXPECT_EQ(Run({"bypass_cmd", "-b", "1", "-b", "x"}), 0);
    EXPECT_EQ(BoardRelay(Board, 1), RELAY_NO_BYPASS);
}

TEST_F(BypassCmd, EveryBoard)
{
    for (const auto &[Name, TableName] : BOARDS) {
        SCOPED_TRACE(Name);
        SetUp();
        Use(Name);
        EXPECT_EQ(Run({"bypass_cmd", "-b", "1"}), 0);
        EXPECT_TRUE(Relays(RELAY_BYPASS));
        EXPECT_TRUE(ReadFile(LOG_PATH).ends_with(std::string("]set ") + TableName +
                                                 " bypass success(ret: 0)\n"));

        /* Bypass before mode, whatever the order of the words. */
        EXPECT_EQ(Run({"bypass_cmd", "-m", "1", "-b", "0"}), 0);
        EXPECT_TRUE(Relays(RELAY_NO_BYPASS));
        EXPECT_EQ(ReadFile(CONF_PATH), "feeddog=1\n");
        EXPECT_EQ(ReadFile("/run/services"), "systemctl restart feeddog\n");
        const std::string Text = ReadFile(LOG_PATH);
        EXPECT_LT(Text.find(" no-bypass success"), Text.find("] enable bypass-mode\n"));
        EXPECT_TRUE(Text.ends_with("] enable bypass-mode\n"));

        Board->RefuseRaise = -1; /* the mode touches no hardware */
        EXPECT_EQ(Run({"bypass_cmd", "-m", "0"}), 0);
        EXPECT_EQ(ReadFile(CONF_PATH), "feeddog=0\n");
        EXPECT_TRUE(ReadFile(LOG_PATH).ends_with("] disable bypass-mode\n"));
        EXPECT_EQ(Board->FaultCount, 0U);
    }
}

TEST_F(BypassCmd, TheStatusSpeaksOfTheLogAlone)
{
    Use("B1904");
    Board->RefuseRaise = -1;
    EXPECT_EQ(Run({"bypass_cmd", "-b", "1"}), 0);
    EXPECT_TRUE(Contains(ReadFile(LOG_PATH), "]Hard Bypass error(ret: -1)\n"));
    EXPECT_TRUE(Contains(ReadFile(LOG_PATH), "]set Huier-J1900 bypass failed(ret: -1)\n"));

    std::filesystem::remove(LOG_PATH);
    std::filesystem::create_directory(LOG_PATH);
    Board->RefuseRaise = 0;
    BoardClearTrace(Board);
    EXPECT_EQ(Run({"bypass_cmd", "-b", "1", "-m", "1"}), 256 - EISDIR);
    EXPECT_EQ(Board->TraceCount, 0U);
    EXPECT_FALSE(std::filesystem::exists(CONF_PATH));
}

/* As another user: the daemon is alive and may not be signalled. */
TEST_F(BypassCmd, NoRightToSignal)
{
    if (Run({"setpriv", "--reuid=65534", "--clear-groups", "true"}) != 0) {
        GTEST_SKIP() << "this sandbox has one user only";
    }
    Use("B1904");
    WriteFile(PID_PATH, std::to_string(getpid()) + "\n");
    EXPECT_EQ(Run({"setpriv", "--reuid=65534", "--clear-groups", "bypass_cmd", "-b", "1"}), 0);
    EXPECT_TRUE(Contains(ReadFile(LOG_PATH),
                         "]send signal(disable) to feeddog(ret: -1, Operation not permitted)\n"));
    EXPECT_TRUE(std::filesystem::exists(PID_PATH));
    EXPECT_EQ(Order(), "") << "the relay is not touched";
    EXPECT_EQ(Run({"setpriv", "--reuid=65534", "--clear-groups", "bypass_cmd", "-m", "1"}), 0);
    EXPECT_TRUE(Contains(ReadFile(LOG_PATH), "]open conf file(/etc/feeddog.conf) failed\n"));
}

/* The daemon feeds; the tool silences it, moves the relay, and the daemon then stops the watchdog
 * without ever touching a port between the tool's. */
TEST_F(BypassCmd, ARunningDaemonIsSilencedFirst)
{
    for (const char *Name : {"Aptio CRB", "B1904", "CARLOW"}) {
        SCOPED_TRACE(Name);
        SetUp();
        Use(Name);
        StartDaemon({"feeddog", "-t", "60", "-p", "1", "-q", "2"});
        ASSERT_TRUE(DaemonRests(true));

        EXPECT_EQ(Run({"bypass_cmd", "-b", "1"}), 0);
        EXPECT_TRUE(Relays(RELAY_BYPASS));
        EXPECT_TRUE(DaemonRests(false));
        EXPECT_TRUE(Relays(RELAY_BYPASS)) << "stopped, not expired";

        EXPECT_TRUE(std::regex_match(Order(), std::regex("d+Sd*t+d*"))) << Order();
        EXPECT_TRUE(Contains(ReadFile(LOG_PATH), "]disable feeddog\n"));

        /* Enabling wakes it, and it ends with its watchdog stopped and its file removed. */
        EXPECT_EQ(Run({"bypass_cmd", "-b", "0", "-m", "1"}), 0);
        ASSERT_TRUE(DaemonRests(true));

        /* Both signals before it looks: the file says what was meant. */
        kill(Daemon, SIGSTOP);
        EXPECT_EQ(Run({"bypass_cmd", "-b", "0", "-m", "1"}), 0);
        const auto Feedings = [&] {
            return Locked([&] {
                return std::count_if(Board->Trace, Board->Trace + Board->TraceCount,
                                     [](const BOARD_ACCESS &Entry) {
                                         return std::string(Entry.Process) == "feeddog" &&
                                                Contains(Entry.Note, "watchdog counter");
                                     });
            });
        };
        const auto Before = Feedings();
        kill(Daemon, SIGCONT);
        EXPECT_TRUE(WaitUntil([&] { return Feedings() >= Before + 3; })) << "it goes on feeding";
        EXPECT_GT(BoardWatchdogRemaining(Board), 0U);
        EXPECT_FALSE(std::filesystem::exists("/run/services"));
        EXPECT_EQ(StopDaemon(), 0);
        EXPECT_EQ(BoardWatchdogRemaining(Board), 0U);
        const std::string Log = ReadFile(LOG_PATH);
        EXPECT_TRUE(Contains(Log, "]feeddog init success(ret: 0 timeout: 60)\n"));
        EXPECT_TRUE(Contains(Log, "]feeddog uninit success(ret: 0)\n"));
        EXPECT_TRUE(Relays(RELAY_NO_BYPASS));
        EXPECT_FALSE(std::filesystem::exists(PID_PATH));
        EXPECT_EQ(Board->FaultCount, 0U);
    }
}

/* What ends the tool in the middle waits until the coil is at rest and the chip left. */
TEST_F(BypassCmd, ASignalWaitsForTheRelay)
{
    for (const int Signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(Signal);
        SetUp();
        Use("Aptio CRB");
        const pid_t Tool = Start({"bypass_cmd", "-b", "1", "-m", "1"}, OUTPUT_PATH);
        ASSERT_TRUE(WaitUntil([&] { return Locked([&] { return Board->Coil.PulseStart >= 0; }); }));
        kill(Tool, Signal);
        EXPECT_EQ(WaitForProcess(Tool), 128 + Signal);
        EXPECT_TRUE(Relays(RELAY_BYPASS));
        EXPECT_EQ(Board->Coil.PulseStart, -1);
        EXPECT_EQ(Board->SuperIo.ConfigurationMode, 0U);
        EXPECT_EQ(Board->FaultCount, 0U);
        EXPECT_TRUE(ReadFile(LOG_PATH).ends_with("]set QiYang-J1900 bypass success(ret: 0)\n"));
        EXPECT_FALSE(std::filesystem::exists(CONF_PATH)) << "the mode is no part of the sequence";
    }
}

/* Where nothing is at stake a signal ends the tool at once. */
TEST_F(BypassCmd, ASignalDoesNotWaitForTheRest)
{
    Use("Aptio CRB");
    InstallCommand("dmidecode", "touch /tmp/asked; sleep 2; echo $RTC_BOARD_NAME");
    pid_t Tool = Start({"bypass_cmd", "-b", "1"}, OUTPUT_PATH);
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists("/tmp/asked"); }));
    kill(Tool, SIGTERM);
    EXPECT_EQ(WaitForProcess(Tool), 128 + SIGTERM);
    EXPECT_EQ(Order(), "");
    std::filesystem::remove("/run/commands/dmidecode");

    /* Rights that are never given up: the relay has moved, the chip is left. */
    Board->RefuseLower = -1;
    Tool = Start({"bypass_cmd", "-b", "1"}, OUTPUT_PATH);
    ASSERT_TRUE(
        WaitUntil([] { return Contains(ReadFile(LOG_PATH), "]Hard Bypass error(ret: -1)\n"); }));
    kill(Tool, SIGTERM);
    EXPECT_EQ(WaitForProcess(Tool), 128 + SIGTERM);
    EXPECT_TRUE(Relays(RELAY_BYPASS));
    EXPECT_EQ(Board->SuperIo.ConfigurationMode, 0U);
}

TEST_F(BypassCmd, TheDaemonFollowsItsFile)
{
    Use("B1904");
    WriteFile(CONF_PATH, "feeddog=0\n");
    StartDaemon({"feeddog", "-t", "60", "-p", "1", "-q", "1"});
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(PID_PATH); }));
    EXPECT_EQ(Run({"bypass_cmd", "-m", "0"}), 0);
    EXPECT_EQ(Run({"feeddog"}), 1) << "one at a time";
    EXPECT_EQ(BoardWatchdogRemaining(Board), 0U);
    EXPECT_EQ(Run({"bypass_cmd", "-m", "1"}), 0);
    EXPECT_TRUE(WaitUntil([&] { return BoardWatchdogRemaining(Board) > 0; }));

    /* Killed, it leaves an armed watchdog: that is what the watchdog is for. */
    kill(Daemon, SIGKILL);
    EXPECT_EQ(WaitForProcess(std::exchange(Daemon, -1)), 128 + SIGKILL);
    EXPECT_GT(BoardWatchdogRemaining(Board), 0U);
    EXPECT_EQ(Run({"bypass_cmd", "-m", "0"}), 0);
    EXPECT_EQ(ReadFile(OUTPUT_PATH), "Remove a zombie pid file /var/run/feeddog.pid\n");

    /* The next one, which is not to feed, stops it. */
    StartDaemon({"feeddog", "-t", "60", "-p", "1", "-q", "1"});
    EXPECT_TRUE(WaitUntil([&] { return BoardWatchdogRemaining(Board) == 0; }));
    EXPECT_EQ(StopDaemon(), 0);
    EXPECT_EQ(Run({"feeddog", "-t", "5", "-p", "3", "-q", "3"}), 2) << "would expire when silenced";
}
