/* The agent log: a line with a wrong prefix, a record lost or split between threads, a log that
 * does not come back after its file vanished, a crash without a back end. */
#include "linuxRtc.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLogFile.h"
#include "testSupport.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <map>
#include <regex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

static const char *const LOG_PATH = "/tmp/agent.log";
static const std::string TIME = R"(\[\d{4}/\d\d/\d\d_\d\d:\d\d:\d\d\.\d{3}\])";

class AgentLog : public testing::Test {
  protected:
    void SetUp() override
    {
        unlink(LOG_PATH);
        WriteFile("/var/log/messages", ""); /* the system log is there, unless a test removes it */
    }
    void TearDown() override
    {
        OV_AgentLogDtor();
        OV_AgentLogOps()->LimitLevel = OV_AGENT_LOG_LEVEL_DEBUG;
    }
};

static bool Matches(const std::string &Line, const std::string &Pattern)
{
    return std::regex_match(Line, std::regex(Pattern));
}

/* Each line against its pattern, which follows the time, or is empty for an empty line. */
static void ExpectLines(const std::string &Path, const STRINGS &Patterns)
{
    const STRINGS Written = Lines(ReadFile(Path));

    ASSERT_EQ(Written.size(), Patterns.size());
    for (size_t Index = 0; Index < Written.size(); Index++) {
        const std::string &Pattern = Patterns[Index];
        EXPECT_TRUE(Matches(Written[Index], Pattern.empty() ? "" : TIME + Pattern))
            << Written[Index];
    }
}

static void ExpectNoChildInherits(const std::string &Path)
{
    char Descriptors[4096];

    ASSERT_GT(OV_RTCExecCmd("ls -l /proc/self/fd", Descriptors, sizeof(Descriptors)), 0);
    EXPECT_FALSE(Contains(Descriptors, Path)) << Descriptors;
}

TEST_F(AgentLog, ALineCarriesTimeLevelFunctionAndTheCallersLine)
{
    setenv("TZ", "Asia/Kolkata", 1); /* half an hour off: local time, not UTC */
    tzset();
    ASSERT_EQ(OV_AgentFileLogCtor(LOG_PATH), 0);
    const int Line = __LINE__ + 1;
    OV_LOG_WARN("%s %d", "message", 7);
    OV_COMMError("[as it stands]\n");
    OV_LOG_INFO_WITHOUT_NEWLINE("open end");
    OV_LOG_DEBUG("next");

    /* Another second, another text. */
    const time_t Before = time(nullptr);
    ASSERT_TRUE(WaitUntil([&] { return time(nullptr) != Before; }));
    OV_LOG_INFO("later");
    const time_t Now = time(nullptr);
    struct tm Date;
    localtime_r(&Now, &Date);
    char Today[32];
    strftime(Today, sizeof(Today), "[%Y/%m/%d_%H:%M:%S.", &Date);
    EXPECT_TRUE(Contains(Lines(ReadFile(LOG_PATH)).back(), Today)) << Today;
    ExpectLines(LOG_PATH,
                {": agent log start",
                 R"(\[WARN\]\[TestBody-)" + std::to_string(Line) + R"(\]message 7)",
                 R"(\[as it stands\])", R"(\[INFO\].*\]open end)" + TIME + R"(\[DEBUG\].*next)",
                 R"(\[INFO\].*\]later)"});
    unsetenv("TZ");
    tzset();
}

TEST_F(AgentLog, LevelsBelowTheLimitAreNeitherWrittenNorEvaluated)
{
    RecordLog();
    OV_AgentLogOps()->LimitLevel = OV_AGENT_LOG_LEVEL_WARN;
    int Evaluated = 0;
    OV_LOG_INFO("%d", ++Evaluated);
    OV_COMMDebug("no");
    OV_COMMInfo("no");
    OV_DumpInfo("no");
    OV_LOG_WARN("%d", ++Evaluated);
    OV_COMMWarn("warn");
    OV_COMMError("error");

    const STRINGS Written = TakeLog();
    EXPECT_TRUE(IsLogLine(Written.at(0), "WARN", "TestBody", "1"));
    EXPECT_EQ(STRINGS(Written.begin() + 1, Written.end()), (STRINGS{"2 warn", "3 error"}));
}

TEST_F(AgentLog, PathsThatAreRefused)
{
    const std::string Longest = "/tmp/" + std::string(122, 'x');

    EXPECT_EQ(OV_AgentFileLogCtor((Longest + "x").c_str()), -EOVERFLOW);
    EXPECT_EQ(OV_AgentFileLogCtor(Longest.c_str()), 0);
    OV_AgentLogDtor();
    EXPECT_EQ(OV_AgentFileLogCtor("/tmp"), -EISDIR);
    EXPECT_EQ(OV_AgentFileLogCtor("/tmp/gone/agent.log"), -ENOENT);
    OV_LOG_ERROR("skipped, the operations stay installed");

    /* The folder appears: the next check and line bring the log to life. */
    mkdir("/tmp/gone", 0755);
    OV_AgentLogFileCheck();
    OV_LOG_INFO("alive");
    EXPECT_TRUE(Contains(ReadFile("/tmp/gone/agent.log"), "]alive\n"));
}

TEST_F(AgentLog, AVanishedFileComesBackWithTheNextLine)
{
    ASSERT_EQ(OV_AgentFileLogCtor(LOG_PATH), 0);
    const size_t Descriptors = OpenDescriptors();
    ExpectNoChildInherits(LOG_PATH);
    unlink(LOG_PATH);
    OV_LOG_INFO("to the deleted file");
    OV_AgentLogFileCheck();
    EXPECT_EQ(access(LOG_PATH, F_OK), -1);
    OV_LOG_INFO("first of the new");
    OV_LOG_INFO("second");
    ExpectLines(LOG_PATH, {": re-created agent log\\.", ".*first of the new", ".*second"});
    EXPECT_EQ(OpenDescriptors(), Descriptors);
    ExpectNoChildInherits(LOG_PATH);

    /* What cannot be created now is tried again, and the old stream serves meanwhile. */
    OV_AgentLogDtor();
    mkdir("/tmp/folder", 0755);
    ASSERT_EQ(OV_AgentFileLogCtor("/tmp/folder/log"), 0);
    rename("/tmp/folder", "/tmp/moved");
    OV_AgentLogFileCheck();
    OV_LOG_INFO("meanwhile");
    mkdir("/tmp/folder", 0755);
    OV_LOG_INFO("back");
    ExpectLines("/tmp/moved/log", {": agent log start", ".*meanwhile"});
    ExpectLines("/tmp/folder/log", {": re-created agent log\\.", ".*back"});
}

TEST_F(AgentLog, TheCheckRestartsAMissingSystemLog)
{
    RecordLog();
    InstallCommand("systemctl", "echo \"$@\" >>/run/asked; exit 3");
    OV_AgentLogFileCheck();
    EXPECT_EQ(ReadFile("/run/asked"), "");

    unlink("/var/log/messages");
    OV_AgentLogFileCheck();
    EXPECT_EQ(ReadFile("/run/asked"), "restart rsyslog\n");
    EXPECT_TRUE(
        IsLogLine(TakeLog().back(), "WARN", "OV_AgentLogFileCheck",
                  "/var/log/messages not exist, but failed to restart rsyslog server(ret = -1)."));
}

/* The rotating back end: its lines, its settings, and where lines go once it has stopped. */
TEST_F(AgentLog, TheRotatingBackEndWritesThroughALogFile)
{
    const size_t Before = OpenDescriptors();
    const int32_t Other = OV_LogFileInit("/tmp/other", 10); /* ours is not the first handle */

    EXPECT_EQ(OV_AgentMavoLogCtor(std::string(128, 'x').c_str()), -EOVERFLOW);
    ASSERT_EQ(OV_AgentMavoLogCtor(LOG_PATH), 0);
    OV_AgentLogOps()->FileLog.IsNeedReCreate = TRUE; /* means nothing to it */
    OV_LOG_WARN("%d", 1);
    OV_COMMDebug("[as it stands]\n");
    ExpectLines(LOG_PATH,
                {"log start\\.\\.\\.", "", R"(\[WARN\]\[TestBody-\d+\]1)", R"(\[as it stands\])"});
    ExpectNoChildInherits(LOG_PATH);

    EXPECT_EQ(OV_AgentLogFileSetMaxSize(1), 0);
    EXPECT_EQ(OV_AgentLogFileSetNum(1), 0);
    OV_LOG_INFO("rotated");
    OV_LOG_INFO("kept");
    EXPECT_TRUE(Contains(ReadFile(LOG_PATH + std::string(".0")), "]kept\n"));
    EXPECT_EQ(access((LOG_PATH + std::string(".1")).c_str(), F_OK), -1);

    OV_AgentLogDtor();
    OV_LogFileRelease(static_cast<uint32_t>(Other));
    EXPECT_EQ(OpenDescriptors(), Before);
    EXPECT_EQ(OV_AgentLogOps()->FileLog.HandlerId, -1);
    EXPECT_EQ(OV_AgentLogFileSetMaxSize(1), -EINVAL);
    EXPECT_EQ(OV_AgentLogFileSetNum(1), -EINVAL);
    testing::internal::CaptureStdout();
    OV_LOG_INFO("after the stop");
    EXPECT_TRUE(Contains(testing::internal::GetCapturedStdout(), "]after the stop\n"));
}

/* A pipe that nobody reads must not hold the tool; a disk that is full must not tear the next line.
 */
TEST_F(AgentLog, NeitherAPipeNorAFullDiskHarmsMoreThanItsOwnLines)
{
    ASSERT_EQ(mkfifo(LOG_PATH, 0600), 0);
    alarm(10);
    EXPECT_EQ(OV_AgentFileLogCtor(LOG_PATH), -ENXIO);
    alarm(0);
    unlink(LOG_PATH);

    const std::string Path = "/tmp/small/log";
    Shell("mkdir -p /tmp/small && mount -t tmpfs -o size=16k tmpfs /tmp/small");
    WriteFile("/tmp/small/ballast", std::string(8192, 'x'));
    ASSERT_EQ(OV_AgentFileLogCtor(Path.c_str()), 0);
    for (int Line = 0; Line < 20; Line++) {
        errno = ENOTTY;
        OV_LOG_INFO("%s", std::string(700, 'y').c_str());
        ASSERT_EQ(errno, ENOTTY);
    }
    unlink("/tmp/small/ballast");
    OV_LOG_INFO("room again");
    OV_LOG_INFO("and more");
    const STRINGS Written = Lines(ReadFile(Path));
    ASSERT_GT(Written.size(), 3U);
    EXPECT_EQ(Written[Written.size() - 3].back(), 'y');
    EXPECT_TRUE(Matches(Written[Written.size() - 2], TIME + R"(\[INFO\]\[\w+-\d+\]room again)"));
    EXPECT_TRUE(Matches(Written.back(), TIME + R"(\[INFO\]\[\w+-\d+\]and more)"));
    OV_AgentLogDtor();
    Shell("umount /tmp/small");
}

/* The file is moved away again and again while four threads write: every line stands once and
 * whole, in one of the files. */
TEST_F(AgentLog, NoLineIsLostSplitOrDoubledBetweenThreads)
{
    constexpr int THREADS = 4;
    constexpr int LINES_EACH = 2000;
    constexpr int MOVES = 10;
    std::vector<std::thread> Threads;
    std::atomic<int> Written{0};
    std::atomic<int> Moved{0};

    ASSERT_EQ(OV_AgentFileLogCtor(LOG_PATH), 0);
    Threads.reserve(THREADS);
    for (int Thread = 0; Thread < THREADS; Thread++) {
        Threads.emplace_back([Thread, &Written, &Moved] {
            for (int Line = 0; Line < LINES_EACH; Line++) {
                if (Line % (LINES_EACH / MOVES) == 0) { /* never past a mover that has no turn */
                    WaitUntil([&] { return Moved >= Line * MOVES / LINES_EACH - 1; });
                }
                OV_LOG_INFO("%d:%d:%s", Thread, Line,
                            std::string(static_cast<size_t>(Line % 300), 'x').c_str());
                Written++;
            }
        });
    }
    STRINGS Files = {LOG_PATH};
    for (int Move = 1; Move <= MOVES; Move++) {
        WaitUntil([&] { return Written >= Move * THREADS * LINES_EACH / (MOVES + 1); });
        if (access(LOG_PATH, F_OK) == 0) {
            Files.push_back(std::string(LOG_PATH) + "." + std::to_string(Move));
            rename(LOG_PATH, Files.back().c_str());
        }
        OV_AgentLogFileCheck();
        Moved++;
    }
    for (std::thread &Thread : Threads) {
        Thread.join();
    }

    std::map<std::string, int> Seen;
    const std::regex Whole(TIME + R"(\[INFO\]\[operator\(\)-\d+\](\d+:\d+):(x*))");
    for (const std::string &File : Files) {
        for (const std::string &Line : Lines(ReadFile(File))) {
            std::smatch Parts;
            if (std::regex_match(Line, Parts, Whole)) {
                const int Number = std::stoi(Parts[1].str().substr(2));
                EXPECT_EQ(Parts[2].length(), Number % 300);
                Seen[Parts[1]]++;
            } else {
                EXPECT_TRUE(Matches(Line, TIME + ": (agent log start|re-created agent log\\.)"))
                    << Line;
            }
        }
    }
    EXPECT_EQ(Seen.size(), static_cast<size_t>(THREADS * LINES_EACH));
    for (const auto &[Line, Count] : Seen) {
        EXPECT_EQ(Count, 1) << Line;
    }
    EXPECT_GT(Files.size(), 2U);
}
