/*
 * Board detection, dispatch and the daemon's protocol, without port access: a board taken for
 * another, a call through a null, a signal to the wrong process, a relay moved although the daemon
 * could not be told.
 */
#include "linuxRtcBypass.h"
#include "testSupport.h"

#include <errno.h>
#include <functional>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static const char *const PID_PATH = "/var/run/feeddog.pid";
static const char *const CONF_PATH = "/etc/feeddog.conf";
static const std::string PATH_BEFORE = getenv("PATH");

/* In front of the real one, so that a test can act between the probe and the signal. */
static std::function<void(pid_t, int)> gs_BeforeKill;
static int gs_KillCount;

extern "C" int kill(pid_t Process, int Signal) noexcept
{
    gs_KillCount++;
    if (gs_BeforeKill) {
        gs_BeforeKill(Process, Signal);
    }
    return static_cast<int>(syscall(SYS_kill, Process, Signal));
}

/* A process that stands for the daemon. */
class PEER {
  public:
    PEER()
    {
        Process = fork();
        if (Process == 0) {
            pause();
            _exit(0);
        }
        WriteFile(PID_PATH, std::to_string(Process) + "\n");
    }
    ~PEER()
    {
        End(SIGKILL);
    }
    PEER(const PEER &) = delete;
    PEER &operator=(const PEER &) = delete;

    /* The signal that ended it. */
    int End(int Signal)
    {
        int Status = 0;

        if (Process > 0) {
            syscall(SYS_kill, Process, Signal);
            waitpid(Process, &Status, 0);
            Process = -1;
        }
        return WTERMSIG(Status);
    }

    pid_t Process;
};

class Bypass : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("PATH", PATH_BEFORE.c_str(), 1);
        InstallCommand("systemctl", "echo \"$@\" >>/run/asked");
        unlink("/run/asked");
        unlink(PID_PATH);
        unlink(CONF_PATH);
        gs_BeforeKill = nullptr;
        gs_KillCount = 0;
        RecordLog();
    }
};

TEST_F(Bypass, Detection)
{
    struct ROW {
        const char *Script; /* of dmidecode; null: there is none */
        int32_t Platform;
        const char *Level;
        const char *Message;
    };
    static const ROW Rows[] = {
        {"echo 'Aptio CRB'", 1, "INFO", "hardware platform: QiYang-J1900"},
        {"echo 'Aptio CRB rev 2'", 1, "INFO", "hardware platform: QiYang-J1900"},
        {"echo B1904", 2, "INFO", "hardware platform: Huier-J1900"},
        {"echo IEC-810N4SC", 3, "INFO", "hardware platform: Huier-H61"},
        {"echo CARLOW", 4, "INFO", "hardware platform: LiHua-8865"},
        {"echo MB-8895A", 5, "INFO", "hardware platform: LiHua-8895"},
        {"echo b1904", 6, "WARN", "unkown hardware platform: b1904\n "},
        {"echo B190", 6, "WARN", "unkown hardware platform: B190\n "},
        {"true", 6, "WARN", "unkown hardware platform:  "},
        {"echo '/dev/mem: Permission denied' >&2; exit 1", 6, "WARN",
         "unkown hardware platform: /dev/mem: Permission denied\n "},
        {"printf B1904; printf %041d 7; echo", 2, "INFO", "hardware platform: Huier-J1900"},
        {nullptr, 6, "WARN",
         "unkown hardware platform: sh: line 1: dmidecode: command not found\n "},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Script == nullptr ? "none" : Row.Script);
        if (Row.Script != nullptr) {
            InstallCommand("dmidecode", Row.Script);
        } else {
            unlink("/run/commands/dmidecode");
            setenv("PATH", "/run/commands", 1);
        }
        EXPECT_EQ(OV_RTCBypassPlatFormGet(), Row.Platform);
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), 1U);
        EXPECT_TRUE(IsLogLine(Log[0], Row.Level, "OV_RTCBypassPlatFormGet", Row.Message));
    }

    /* 48 bytes and more: the line is dropped, and the board is an unknown one. */
    setenv("PATH", PATH_BEFORE.c_str(), 1);
    InstallCommand("dmidecode", "printf B1904; printf %042d 7; echo");
    EXPECT_EQ(OV_RTCBypassPlatFormGet(), 6);
    EXPECT_EQ(TakeLog().size(), 2U);
}

TEST_F(Bypass, BoardsWithoutADriver)
{
    InstallCommand("dmidecode", "echo MB-8895");
    EXPECT_EQ(OV_RTCBypass(1), -ENOENT);
    EXPECT_TRUE(IsLogLine(TakeLog().at(1), "ERROR", "OV_RTCBypass",
                          "no support bypass (platform: 5 (null))"));
    InstallCommand("dmidecode", "echo Other");
    EXPECT_EQ(OV_RTCBypass(1), -ENOENT);
    EXPECT_TRUE(IsLogLine(TakeLog().at(1), "ERROR", "OV_RTCBypass",
                          "no support bypass (platform: 6 UNKOWN)"));
    EXPECT_EQ(gs_KillCount, 0);

    for (const int32_t Platform : {0, 5, 6}) {
        EXPECT_EQ(OV_RTCFeedDogInit(Platform, 30), 0);
        EXPECT_EQ(OV_RTCFeedDog(Platform, 30), 0);
        EXPECT_EQ(OV_RTCFeedDogUninit(Platform), 0);
    }
    EXPECT_EQ(TakeLog().size(), 0U);
    for (const int32_t Platform : {-1, 7, INT32_MAX}) {
        EXPECT_EQ(OV_RTCFeedDogInit(Platform, 30), -1);
        EXPECT_EQ(OV_RTCFeedDog(Platform, 30), -1);
        EXPECT_EQ(OV_RTCFeedDogUninit(Platform), -1);
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), 3U);
        EXPECT_TRUE(IsLogLine(Log[0], "ERROR", "OV_RTCFeedDogInit",
                              "no support platform(platform: " + std::to_string(Platform) + ")"));
    }
}

TEST_F(Bypass, ModeWithoutADaemon)
{
    EXPECT_EQ(OV_RTCBypassMode(0), 0);
    EXPECT_EQ(ReadFile(CONF_PATH), "feeddog=0\n");
    EXPECT_EQ(ReadFile("/run/asked"), "");
    EXPECT_EQ(OV_RTCBypassMode(1), 0);
    EXPECT_EQ(ReadFile(CONF_PATH), "feeddog=1\n");
    EXPECT_EQ(ReadFile("/run/asked"), "restart feeddog\n");
    InstallCommand("systemctl", "exit 1");
    EXPECT_EQ(OV_RTCBypassMode(1), -1);
    EXPECT_EQ(gs_KillCount, 0);
}

TEST_F(Bypass, ModeWithADaemon)
{
    for (const int Enable : {1, 0}) {
        PEER Peer;
        TakeLog();
        EXPECT_EQ(OV_RTCBypassMode(Enable), 0);
        EXPECT_EQ(ReadFile("/run/asked"), "");
        EXPECT_TRUE(IsLogLine(TakeLog().at(0), "INFO", "_OV_RTCFeedDogSignalSend",
                              std::string("send signal(") + (Enable ? "enable" : "disable") +
                                  ") to feeddog(ret: 0, Success)"));
        EXPECT_EQ(Peer.End(0), Enable ? SIGUSR1 : SIGUSR2);
    }
}

TEST_F(Bypass, UnwritableFiles)
{
    PEER Peer;

    ASSERT_EQ(symlink("/tmp/none/feeddog.conf", CONF_PATH), 0);
    EXPECT_EQ(OV_RTCBypassMode(1), -ENOENT);
    EXPECT_TRUE(IsLogLine(TakeLog().at(0), "ERROR", "_OV_RTCFeedDogWriteConfFile",
                          "open conf file(/etc/feeddog.conf) failed"));
    unlink(CONF_PATH);
    ASSERT_EQ(symlink("/dev/full", CONF_PATH), 0);
    EXPECT_EQ(OV_RTCBypassMode(1), -ENOSPC);
    EXPECT_TRUE(IsLogLine(TakeLog().at(0), "ERROR", "_OV_RTCFeedDogWriteConfFile",
                          "write conf file(/etc/feeddog.conf) failed"));
    EXPECT_EQ(gs_KillCount, 0);

    EXPECT_EQ(OV_RTCFeedDogWritePidFile(), 0);
    EXPECT_EQ(ReadFile(PID_PATH), std::to_string(getpid()) + "\n");
    unlink(PID_PATH);
    ASSERT_EQ(symlink("/tmp/none/feeddog.pid", PID_PATH), 0);
    EXPECT_EQ(OV_RTCFeedDogWritePidFile(), -1);
    EXPECT_TRUE(IsLogLine(TakeLog().at(0), "ERROR", "OV_RTCFeedDogWritePidFile",
                          "open pidfile(/var/run/feeddog.pid) failed"));
}

TEST_F(Bypass, PidFilesThatNameNoDaemon)
{
    for (const char *Text : {"", "\n", "feeddog\n", "0\n", "-1\n", "-99999\n", "4294967297\n"}) {
        SCOPED_TRACE(Text);
        WriteFile(PID_PATH, Text);
        EXPECT_EQ(OV_RTCFeedDogCheckRunning(), 0);
        EXPECT_EQ(gs_KillCount, 0) << "0 and negative numbers address process groups";
        EXPECT_EQ(ReadFile(PID_PATH), Text);
    }

    pid_t Gone;
    {
        PEER Peer;
        Gone = Peer.Process;
        EXPECT_EQ(OV_RTCFeedDogCheckRunning(), Gone);
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(OV_RTCFeedDogCheckRunning(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Remove a zombie pid file /var/run/feeddog.pid\n");
    EXPECT_EQ(access(PID_PATH, F_OK), -1);
}

/* The board is a Huier; port access would end this process, which has no rights to it. */
TEST_F(Bypass, TheRelayStaysWhenTheDaemonCannotBeTold)
{
    static volatile sig_atomic_t s_Handled;
    PEER Peer;

    InstallCommand("dmidecode", "echo B1904");
    signal(SIGTERM, [](int) { s_Handled = 1; });
    gs_BeforeKill = [&](pid_t, int Signal) {
        if (Signal != 0) {
            Peer.End(SIGKILL); /* between the probe and the signal */
            raise(SIGTERM);
            EXPECT_EQ(s_Handled, 0) << "ended here, it would leave a silenced daemon";
        }
    };
    EXPECT_EQ(OV_RTCBypass(1), -1);
    EXPECT_EQ(s_Handled, 1);
    signal(SIGTERM, SIG_DFL);
    const STRINGS Log = TakeLog();
    ASSERT_EQ(Log.size(), 2U);
    EXPECT_TRUE(IsLogLine(Log[1], "INFO", "_OV_RTCFeedDogSignalSend",
                          "send signal(disable) to feeddog(ret: -1, No such process)"));
}
