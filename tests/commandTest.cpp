/* Commands and control files: output that overruns its buffer, a failure taken for success, a
 * descriptor that a command inherits, a parser that stores what it should refuse. */
#include "linuxRtc.h"
#include "testSupport.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

class Command : public testing::Test {
  protected:
    void SetUp() override
    {
        RecordLog();
    }
};

TEST_F(Command, CapturesWhatFitsAndNoMore)
{
    struct ROW {
        const char *Command;
        size_t Size;
        int Result;
        const char *Output; /* null: not compared */
        bool OverSize;
    };
    static const ROW Rows[] = {
        {"(echo out; echo err >&2)", 48, 8, "out\nerr\n", false},
        {"true", 48, 0, "", false},
        {"printf '%046d\\n' 7", 48, 47, nullptr, false},
        {"printf '%047d\\n' 7", 48, 0, "", true},
        {"echo kept; printf '%047d\\n' 7; echo lost", 48, 5, "kept\n", true},
        {"printf 'no newline'", 48, 10, "no newline", false},
        {"printf 'a\\000b\\nc\\n'", 48, 3, "ac\n", false}, /* a NUL ends a line's text */
        {"echo before; kill -9 $$", 48, 7, "before\n", false},
        {"exec >&- 2>&-; exit 1", 48, 0, "", false},
        {"echo x", 1, 0, "", true},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Command);
        MARKED_BUFFER Output(Row.Size);
        EXPECT_EQ(OV_RTCExecCmd(Row.Command, Output.Text(), Row.Size), Row.Result);
        EXPECT_EQ(strlen(Output.Text()), static_cast<size_t>(Row.Result));
        if (Row.Output != nullptr) {
            EXPECT_STREQ(Output.Text(), Row.Output);
        }
        EXPECT_TRUE(Output.EdgesIntact());
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), Row.OverSize ? 1U : 0U);
        if (Row.OverSize) {
            EXPECT_TRUE(IsLogLine(Log[0], "ERROR", "OV_RTCExecCmd", "csn_exec_cmd: over size"));
        }
    }
}

TEST_F(Command, TenMegabytes)
{
    static constexpr const char *PRINTS = "yes 123456789012345 | head -c 10485760";
    std::vector<char> Output(10485760 + 1);

    /* Kept whole where there is room for it; dropped, and the command ended, where there is not. */
    EXPECT_EQ(OV_RTCExecCmd(PRINTS, Output.data(), Output.size()), 10485760);
    EXPECT_EQ(memcmp(Output.data() + 10485760 - 16, "123456789012345\n", 17), 0);
    EXPECT_EQ(TakeLog().size(), 0U);
    EXPECT_EQ(OV_RTCExecCmd(PRINTS, Output.data(), 48), 32);
    EXPECT_EQ(TakeLog().size(), 1U);
}

TEST_F(Command, ASignalInTheMiddleLosesNothing)
{
    struct ROW {
        const char *Command;
        suseconds_t First, Interval;
        size_t Count;
        const char *Start;
    };
    static const ROW Rows[] = {
        {"echo one; sleep 0.2; echo two", 50000, 0, 8, "one\ntwo\n"},
        {"printf 'inet 10.0.0.'; sleep 0.2; echo 1", 50000, 0, 14, "inet 10.0.0.1\n"},
        {"yes 12345678901234 | head -c 1048576", 500, 500, 1048576, "12345678901234\n1"},
    };
    std::vector<char> Output(1048576 + 1);
    struct sigaction Action = {};

    Action.sa_handler = [](int) {}; /* without SA_RESTART */
    sigaction(SIGALRM, &Action, nullptr);
    for (const ROW &Row : Rows) {
        const struct itimerval Alarms = {{0, Row.Interval}, {0, Row.First}};
        const struct itimerval Never = {};
        SCOPED_TRACE(Row.Command);
        setitimer(ITIMER_REAL, &Alarms, nullptr);
        EXPECT_EQ(static_cast<size_t>(OV_RTCExecCmd(Row.Command, Output.data(), Output.size())),
                  Row.Count);
        setitimer(ITIMER_REAL, &Never, nullptr);
        EXPECT_TRUE(std::string(Output.data()).starts_with(Row.Start)) << Output.data();
    }
}

TEST_F(Command, ACommandLineIsCutAt1022Characters)
{
    char Output[2048];
    const std::string Start = "echo ";
    const std::string Fits = Start + std::string(1022 - 5 - Start.size(), 'x');

    EXPECT_EQ(OV_RTCExecCmd(Fits.c_str(), Output, sizeof(Output)), 1022 - 5 - 5 + 1);
    /* Four more leave " " of the redirection, ten more cut the text itself. */
    EXPECT_EQ(OV_RTCExecCmd((Fits + "xxxx").c_str(), Output, sizeof(Output)), 1022 - 1 - 5 + 1);
    EXPECT_EQ(OV_RTCExecCmd((Fits + "xxxxxxxxxx").c_str(), Output, sizeof(Output)), 1022 - 5 + 1);
}

TEST_F(Command, NullsAreRefused)
{
    char Output[8] = "before";

    testing::internal::CaptureStdout();
    EXPECT_EQ(OV_RTCExecCmd(nullptr, Output, sizeof(Output)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "invalid cmd (null)\n");
    EXPECT_STREQ(Output, "");
    EXPECT_EQ(OV_RTCExecCmd("echo x", nullptr, 8), 0);
    EXPECT_EQ(OV_RTCSystem(nullptr), -1);

    u32 Ip;
    u8 Mask;
    char Text[] = "10.0.0.1/8";
    EXPECT_EQ(OV_RTCParseIpSubnet(nullptr, 8, &Ip, &Mask), -OV_RTC_ERROR_INVALID_PARAM);
    EXPECT_EQ(OV_RTCParseIpSubnet(Text, 11, nullptr, &Mask), -OV_RTC_ERROR_INVALID_PARAM);
    EXPECT_EQ(OV_RTCParseIpSubnet(Text, 11, &Ip, nullptr), -OV_RTC_ERROR_INVALID_PARAM);
    EXPECT_EQ(OV_RTCWriteFile("x", 1, nullptr), -EFAULT);
}

TEST_F(Command, StatusOnly)
{
    struct ROW {
        const char *Command;
        int Result;
    };
    static const ROW Rows[] = {
        {"true", 0}, {"exit 1", -1}, {"exit 255", -1}, {"kill -9 $$", -1}, {"no-such-command", -1},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Command);
        EXPECT_EQ(OV_RTCSystem(Row.Command), Row.Result);
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), Row.Result == 0 ? 1U : 2U);
        EXPECT_TRUE(IsLogLine(Log[0], "INFO", "OV_RTCSystem", Row.Command));
        if (Row.Result != 0) {
            EXPECT_TRUE(
                IsLogLine(Log[1], "ERROR", "OV_RTCSystem", std::string(Row.Command) + " , rc=-1"));
        }
    }
}

TEST_F(Command, ControlFiles)
{
    const char *const Path = "/tmp/control";
    const char *const Full = "/dev/full";

    unlink(Path);
    EXPECT_EQ(OV_RTCWriteFile("1", 1, Path), -ENOENT);
    EXPECT_TRUE(IsLogLine(TakeLog().at(0), "ERROR", "_OV_RTCWriteFile",
                          "open failed, filepath:/tmp/control cmd:1 ret = -2 "
                          "error_string:No such file or directory"));
    EXPECT_EQ(OV_RTCWriteFileSync("0123456789", 10, Path), 0);
    EXPECT_EQ(ReadFile(Path), "0123456789");
    const std::string Line = TakeLog().at(0);
    EXPECT_EQ(Line.substr(Line.find(']', 8) + 1), "Exec Path:/tmp/control, Cmd:0123456789");

    EXPECT_EQ(OV_RTCWriteFile("abc", 2, Path), 0); /* over the start, without truncation */
    EXPECT_EQ(ReadFile(Path), "ab23456789");
    EXPECT_EQ(OV_RTCWriteFileSync("x", 1, Path), 0);
    EXPECT_EQ(ReadFile(Path), "x");

    TakeLog();
    EXPECT_EQ(OV_RTCWriteFile("abc", 3, Full), -EIO);
    EXPECT_TRUE(IsLogLine(TakeLog().at(1), "ERROR", "_OV_RTCWriteFile",
                          "write failed, filepath:/dev/full, cmd:abc "
                          "error_string:No space left on device return:-1"));

    struct rlimit Limit = {};
    getrlimit(RLIMIT_FSIZE, &Limit);
    const struct rlimit Short = {2, Limit.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &Short);
    EXPECT_EQ(OV_RTCWriteFileSync("abc", 3, Path), -EIO); /* a short write is no error of errno */
    setrlimit(RLIMIT_FSIZE, &Limit);
    EXPECT_TRUE(IsLogLine(TakeLog().at(1), "ERROR", "_OV_RTCWriteFile",
                          "write failed, filepath:/tmp/control, cmd:abc "
                          "error_string:Success return:2"));
    EXPECT_EQ(OV_RTCWriteFileSync("x", -1, Path), -EIO); /* the kernel refuses the length */
    EXPECT_EQ(ReadFile(Path), "");
}

TEST_F(Command, NothingStaysOpen)
{
    char Output[16];
    const size_t Before = OpenDescriptors();

    for (int Round = 0; Round < 20; Round++) {
        OV_RTCExecCmd("echo too long for the buffer", Output, sizeof(Output));
        OV_RTCSystem("true");
        OV_RTCWriteFileSync("x", 1, "/tmp/control");
        OV_RTCWriteFile("x", 1, "/dev/full");
        OV_RTCWriteFile("x", 1, "/tmp/none/control");
    }
    EXPECT_EQ(OpenDescriptors(), Before);
}

TEST_F(Command, AddressWithPrefix)
{
    struct ROW {
        const char *Text;
        int Length; /* 0: with the NUL */
        int Result;
        u32 Ip;
        u8 Mask;
        const char *After;
        const char *Level; /* null: no line */
        const char *Message;
    };
    static const ROW Rows[] = {
        {"10.0.0.1/24", 0, 0, 0x0A000001, 24, "10.0.0.1", nullptr, nullptr},
        {"10.0.0.1", 0, 0, 0x0A000001, 32, "10.0.0.1", "WARN",
         "no / in ipsubnet-parse, using default mask 32 : 10.0.0.1"},
        {"10.0.0.1/300", 0, 0, 0x0A000001, 44, "10.0.0.1", nullptr, nullptr},
        {"10.0.0.1/8/9", 0, 0, 0x0A000001, 8, "10.0.0.1", nullptr, nullptr},
        {"10.0.0.1/x", 0, -11, 77, 77, "10.0.0.1", "ERROR",
         "Parse str to unsigned int error: 10.0.0.1"},
        {"10.0.0.1/", 0, -11, 77, 77, "10.0.0.1", "ERROR",
         "Parse str to unsigned int error: 10.0.0.1"},
        {"10.0.0.1/24", 8, -3, 77, 77, "10.0.0.1/24", "ERROR", "buf oversize 8:8"},
        {"10.0.0.1/24", 9, 0, 0x0A000001, 24, "10.0.0.1", nullptr, nullptr},
        {"10.0.0/24", 0, -11, 0, 77, "10.0.0", "ERROR", "parse ip error in ipsubnet-parse: 10.0.0"},
        {"/24", 0, -11, 0, 77, "", "ERROR", "parse ip error in ipsubnet-parse: "},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.Text);
        std::string Text = Row.Text;
        u32 Ip = 77;
        u8 Mask = 77;
        const int Length = Row.Length != 0 ? Row.Length : static_cast<int>(Text.size() + 1);
        EXPECT_EQ(OV_RTCParseIpSubnet(Text.data(), Length, &Ip, &Mask), Row.Result);
        EXPECT_EQ(Ip, Row.Ip);
        EXPECT_EQ(Mask, Row.Mask);
        EXPECT_STREQ(Text.c_str(), Row.After);
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), Row.Level == nullptr ? 0U : 1U);
        if (Row.Level != nullptr) {
            EXPECT_TRUE(IsLogLine(Log[0], Row.Level, "OV_RTCParseIpSubnet", Row.Message));
        }
    }
}
