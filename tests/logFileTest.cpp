/* The rotating log file: a rotation a byte early or late, copies in the wrong order, lines lost,
 * split or sent elsewhere by a rotation, a handle that a full disk or a removed folder kills, and
 * the traps that are kept on purpose quietly mended. */
#include "orvaneLibrtcLog.h"
#include "orvaneLogFile.h"
#include "testSupport.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <regex>
#include <signal.h>
#include <sys/mount.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

static const std::string FOLDER = "/tmp/logs";
static const std::string LIVE = FOLDER + "/live";
static const std::regex STAMP(R"(\[\d{4}/\d\d/\d\d_\d\d:\d\d:\d\d\.\d{3}\])");
static constexpr uint32_t START_SIZE = 25 + 14; /* stamp, "log start...", two newlines */
static constexpr uint32_t LINE_SIZE = 25 + 10;
static constexpr uint32_t MIB_50 = 52428800;

/* In front of libc's own: a clock that the tests may set, or break with the errno -tv_usec. */
static const struct timeval *gs_Clock;
extern "C" int gettimeofday(struct timeval *Now, void * /*Zone*/) noexcept
{
    struct timespec Real;

    clock_gettime(CLOCK_REALTIME, &Real);
    *Now = gs_Clock != nullptr ? *gs_Clock : timeval{Real.tv_sec, Real.tv_nsec / 1000};
    if (Now->tv_usec < 0) {
        errno = static_cast<int>(-Now->tv_usec);
    }
    return Now->tv_usec < 0 ? -1 : 0;
}

class LogFile : public testing::Test {
  protected:
    void SetUp() override
    {
        fs::remove_all(FOLDER);
        fs::create_directory(FOLDER);
    }
    void TearDown() override
    {
        for (uint32_t Id = 0; Id < 64; Id++) {
            OV_LogFileRelease(Id);
        }
    }
};

static uint32_t Open(const std::string &Path, uint32_t MaxFileSize = MIB_50, uint32_t FileNum = 4)
{
    const int32_t Id = OV_LogFileInit(Path.c_str(), Path.size());

    EXPECT_TRUE(Id >= 0 && Id < 64) << Id;
    EXPECT_EQ(OV_LogFileSetMaxFileSize(static_cast<uint32_t>(Id), MaxFileSize), 0);
    EXPECT_EQ(OV_LogFileSetFileNum(static_cast<uint32_t>(Id), FileNum), 0);
    return static_cast<uint32_t>(Id);
}

/* With an @ in place of each stamp. */
static std::string Unstamped(const std::string &Text)
{
    return std::regex_replace(Text, STAMP, "@");
}

/* A path of that length, its folders made. */
static std::string LongPath(size_t Length)
{
    const std::string Folder = FOLDER + "/" + std::string(200, 'd') + "/" + std::string(200, 'e');

    fs::create_directories(Folder);
    return Folder + "/" + std::string(Length - Folder.size() - 1, 'f');
}

/* What the file held at the start counts. */
TEST_F(LogFile, RotatesAtTheByteAndNotBefore)
{
    for (const std::string Last : {"12345678\n", "123456789\n"}) {
        WriteFile(LIVE, "twenty bytes before\n");
        const uint32_t Id = Open(LIVE, 20 + START_SIZE + LINE_SIZE);
        EXPECT_EQ(OV_Log2File(Id, "%s", Last.c_str()), static_cast<int>(25 + Last.size()));
        const std::string Full = Last.size() == 10 ? ".0" : "";
        const std::string Rest = Last.size() == 10 ? "" : ".0";
        EXPECT_EQ(Unstamped(ReadFile(LIVE + Full)),
                  std::string("twenty bytes before\n@log start...\n\n@").append(Last));
        EXPECT_EQ(ReadFile(LIVE + Rest), "");
        OV_LogFileRelease(Id);
    }
}

TEST_F(LogFile, CopiesMoveOnByOneNumberAndTheOldestIsOverwritten)
{
    const char *const Newest[] = {"@six", "@five", "@four", "@three"};

    for (const uint32_t Kept : {4U, 2U, 1U}) {
        SetUp();
        const uint32_t Id = Open(LIVE, 1, Kept);
        for (const char *Text : {"one", "two", "three", "four", "five", "six"}) {
            OV_Log2File(Id, "%s", Text);
        }
        EXPECT_EQ(std::distance(fs::directory_iterator(FOLDER), {}), Kept + 1);
        EXPECT_EQ(ReadFile(LIVE), "");
        for (uint32_t Number = 0; Number < Kept; Number++) {
            EXPECT_EQ(Unstamped(ReadFile(LIVE + "." + std::to_string(Number))), Newest[Number]);
        }
        OV_LogFileRelease(Id);
    }

    /* What cannot be renamed is removed: a live file must not grow for ever. */
    SetUp();
    fs::create_directory(LIVE + ".0");
    OV_Log2File(Open(LIVE, 1, 1), "one");
    EXPECT_EQ(ReadFile(LIVE), "");
}

TEST_F(LogFile, AFileWhoseRotatedNameIsTooLongGrowsAndTriesAgain)
{
    const std::string Path = LongPath(509); /* ".10" does not fit, ".3" does */
    const uint32_t Id = Open(Path, 1, 11);

    OV_Log2File(Id, "one");
    OV_Log2File(Id, "two");
    EXPECT_EQ(Unstamped(ReadFile(Path)), "@log start...\n\n@one@two");
    OV_LogFileSetFileNum(Id, 4);
    OV_Log2File(Id, "three");
    EXPECT_EQ(Unstamped(ReadFile(Path + ".0")), "@log start...\n\n@one@two@three");
}

TEST_F(LogFile, AFullDiskLosesLinesUntilThereIsRoom)
{
    const std::string Long(9999, 'y');

    ASSERT_EQ(mount("tmpfs", FOLDER.c_str(), "tmpfs", 0, "size=64k"), 0);
    WriteFile(FOLDER + "/ballast", std::string(32768, 'x'));
    const uint32_t Id = Open(LIVE);
    for (int Line = 0; Line < 10; Line++) {
        errno = ENOTTY;
        OV_Log2File(Id, "%s", Long.c_str());
        EXPECT_EQ(errno, ENOTTY);
    }
    /* A text that could not even be printed counts nothing, and does not count down. */
    EXPECT_EQ(OV_Log2File(Id, "%s", Long.c_str()), 25);
    EXPECT_EQ(OV_Log2File(Id, "%s", "123456789\n"), static_cast<int>(LINE_SIZE));
    unlink((FOLDER + "/ballast").c_str());
    OV_Log2File(Id, "room again");
    EXPECT_TRUE(Contains(ReadFile(LIVE), "]room again"));
    OV_LogFileRelease(Id);
    EXPECT_EQ(umount(FOLDER.c_str()), 0);
}

TEST_F(LogFile, AHandleWhoseFolderIsGoneWritesNowhereUntilItIsBack)
{
    const std::string Folder = FOLDER + "/folder";

    testing::internal::CaptureStdout();
    const size_t Descriptors = OpenDescriptors();
    for (const bool ComesBack : {true, false}) {
        fs::create_directory(Folder);
        const uint32_t Id = Open(Folder + "/live", 1);
        fs::remove_all(Folder);
        EXPECT_EQ(OV_Log2File(Id, "to the deleted file"), 25 + 19);
        errno = ENOTTY;
        EXPECT_EQ(OV_Log2File(Id, "lost"), 0);
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_NE(Open(LIVE), Id) << "the slot was given away";
        if (ComesBack) {
            fs::create_directory(Folder);
            OV_LogFileSetMaxFileSize(Id, 1000);
            OV_Log2File(Id, "found");
            EXPECT_EQ(Unstamped(ReadFile(Folder + "/live")), "@found");
        }
        TearDown();
    }
    EXPECT_EQ(OpenDescriptors(), Descriptors) << "one too few: standard output was closed";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "a line strayed";
}

/* Other handles come and go, and settings change, meanwhile. */
TEST_F(LogFile, NoLineIsLostSplitOrDoubledByRotations)
{
    constexpr int LINES_EACH = 2000;
    const uint32_t Id = Open(LIVE, 10000, 200);
    std::atomic<int> Running{2};
    const auto Write = [&](int Thread) {
        for (int Line = 0; Line < LINES_EACH; Line++) {
            OV_Log2File(Id, "%d:%d:%0*d\n", Thread, Line, 1 + Line % 100, 0);
        }
        Running--;
    };
    std::thread First(Write, 0);
    std::thread Second(Write, 1);

    while (Running != 0) {
        EXPECT_EQ(OV_LogFileSetFileNum(Id, 200), 0);
        const uint32_t Other = Open(FOLDER + "/other");
        EXPECT_NE(Other, Id);
        OV_LogFileRelease(Other);
    }
    First.join();
    Second.join();

    std::map<std::string, int> Seen;
    fs::remove(FOLDER + "/other");
    for (const auto &File : fs::directory_iterator(FOLDER)) {
        for (const std::string &Line : Lines(Unstamped(ReadFile(File.path())))) {
            Seen[Line]++;
        }
    }
    for (int Line = 0; Line < 2 * LINES_EACH; Line++) {
        char Text[128];
        const int Number = Line % LINES_EACH;
        snprintf(Text, sizeof(Text), "@%d:%d:%0*d", Line / LINES_EACH, Number, 1 + Number % 100, 0);
        EXPECT_EQ(Seen[Text], 1) << Text;
    }
    EXPECT_EQ(Seen.size(), 2 * LINES_EACH + 2U); /* "log start...", an empty line */
    EXPECT_GT(std::distance(fs::directory_iterator(FOLDER), {}), 20);
}

TEST_F(LogFile, SettingsCheckTheIdAndSkipAFreeSlot)
{
    const struct {
        OV_ERR_T (*Get)(uint32_t, uint32_t *);
        OV_ERR_T (*Set)(uint32_t, uint32_t);
        uint32_t Default;
    } Rows[] = {{OV_LogFileGetMaxFileSize, OV_LogFileSetMaxFileSize, MIB_50},
                {OV_LogFileGetFileNum, OV_LogFileSetFileNum, 4}};

    for (const auto &Row : Rows) {
        uint32_t Value = 7;
        EXPECT_EQ(Row.Get(64, &Value), -EINVAL);
        EXPECT_EQ(Row.Set(64, 1), -EINVAL);
        EXPECT_EQ(Row.Get(3, nullptr), -EINVAL);
        EXPECT_EQ(Row.Set(63, 1), 0);
        EXPECT_EQ(Row.Get(63, &Value), 0);
        EXPECT_EQ(Value, 7U);

        /* The default handle sets what is not 0. */
        for (const uint32_t Wanted : {0U, 1000U}) {
            ASSERT_EQ(OV_FileLogInit(LIVE.c_str(), LIVE.size(), Wanted, Wanted), 0);
            EXPECT_EQ(Row.Get(0, &Value), 0);
            EXPECT_EQ(Value, Wanted == 0 ? Row.Default : Wanted);
            EXPECT_EQ(Row.Set(0, 9), 0);
            EXPECT_EQ(Row.Get(0, &Value), 0);
            EXPECT_EQ(Value, 9U);
            OV_FileLogRelease();
        }
    }
}

/* Runs Work in a child, its standard streams going to a file. */
static pid_t InChild(const std::function<int()> &Work)
{
    const pid_t Child = fork();

    if (Child == 0) {
        const int File = open((FOLDER + "/output").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        _exit(dup2(File, STDOUT_FILENO) < 0 || dup2(File, STDERR_FILENO) < 0 ? 99 : Work());
    }
    return Child;
}

TEST_F(LogFile, WithoutAFileLinesGoToStandardOutputWhichTheReleaseCloses)
{
    const pid_t Child = InChild([] {
        OV_FileLog("no default\n");
        const OV_ERR_T Result = OV_FileLogInit(LIVE.c_str(), LIVE.size(), 0, 0);
        const int Size = OV_FileLog("default\n");
        OV_FileLogRelease();
        const uint32_t Next = Open(FOLDER + "/next"); /* the same slot, another owner */
        OV_FileLog("released\n");
        OV_FileLogRelease();
        OV_LogFileRelease(Next);
        const int32_t Id = OV_LogFileInit(nullptr, 0);
        OV_Log2File(0, "console\n");
        OV_Log2File(5, "free\n");
        OV_Log2File(64, "above\n");
        OV_LogFileRelease(64);
        const bool WasOpen = fcntl(STDOUT_FILENO, F_GETFD) != -1;
        OV_LogFileRelease(0);
        const bool IsOpen = fcntl(STDOUT_FILENO, F_GETFD) != -1;
        return Result == 0 && Size == 25 + 8 && Id == 0 && WasOpen && !IsOpen ? 0 : 1;
    });
    EXPECT_EQ(WaitForProcess(Child), 0);
    EXPECT_EQ(Unstamped(ReadFile(FOLDER + "/output")),
              "@no default\n@released\n@log start...\n\n@console\n@free\n@above\n");
    EXPECT_EQ(Unstamped(ReadFile(LIVE)), "@log start...\n\n@default\n");
}

static std::string Printed(const _OV_SYSTIME_T &Time)
{
    char Text[64];

    snprintf(Text, sizeof(Text), "[%04d/%02d/%02d_%02d:%02d:%02d.%03d]", Time.Year, Time.Month,
             Time.Day, Time.Hour, Time.Minute, Time.Second, Time.Milliseconds);
    return Text;
}

/* Each field, the time zone, odd years, and a clock that fails: in both logs and for programs. */
TEST_F(LogFile, LocalTime)
{
    const struct {
        const char *Zone;
        struct timeval Clock;
        OV_ERR_T Result;
        std::string Stamp;
        const char *AgentStamp; /* null: the same */
    } Rows[] = {
        {"XYZ-5:30", {1732314796, 6999}, 0, "[2024/11/23_04:03:16.006]", nullptr},
        {"UTC", {1732314797, 789999}, 0, "[2024/11/22_22:33:17.789]", nullptr},
        {"UTC", {253402300800, 0}, 0, "[10000/01/01_00:00:00.000]", nullptr},
        {"UTC", {-93692592000, 0}, 0, "[64537/01/01_00:00:00.000]", "[-999/01/01_00:00:00.000]"},
        {"UTC", {0, -EPERM}, -EPERM, "[0000/00/00_00:00:00.000]", ""},
        {"UTC", {INT64_MAX, 0}, -EINVAL, "[0000/00/00_00:00:00.000]", ""}};
    const uint32_t Id = Open(LIVE);
    const std::string Agent = FOLDER + "/agent";

    ASSERT_EQ(OV_AgentFileLogCtor(Agent.c_str()), 0);
    testing::internal::CaptureStdout();
    for (const auto &Row : Rows) {
        setenv("TZ", Row.Zone, 1);
        tzset();
        gs_Clock = &Row.Clock;
        _OV_SYSTIME_T Now = {};
        EXPECT_EQ(OV_GetSystime(&Now), Row.Result);
        EXPECT_EQ(Printed(Now), Row.Stamp); /* left as it was, on failure */
        OV_Log2File(Id, "<\n");
        OV_COMMInfo("<\n");
        EXPECT_EQ(Lines(ReadFile(LIVE)).back(), Row.Stamp + "<");
        const std::string AgentStamp = Row.AgentStamp == nullptr ? Row.Stamp : Row.AgentStamp;
        EXPECT_EQ(Lines(ReadFile(Agent)).back(), AgentStamp + "<");

        setenv("TZ", "XYZ-1", 1); /* programs see a new zone at once */
        tzset();
        const uint8_t Hour = Now.Hour;
        EXPECT_EQ(OV_GetSystime(&Now), Row.Result);
        EXPECT_TRUE(Row.Result != 0 || Now.Hour != Hour);
    }
    gs_Clock = nullptr;
    OV_AgentLogDtor();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("date is null: ") + strerror(EOVERFLOW) + "\n");
}

TEST_F(LogFile, AThreadCancelledWhileItLogsKeepsNoLock)
{
    static uint32_t Id;
    pthread_t Thread;
    const auto LogCancelled = [](void *) -> void * {
        pthread_cancel(pthread_self());
        OV_Log2File(Id, "last words\n");
        pthread_testcancel();
        return nullptr;
    };

    Id = Open(LIVE);
    ASSERT_EQ(pthread_create(&Thread, nullptr, LogCancelled, nullptr), 0);
    ASSERT_EQ(pthread_join(Thread, nullptr), 0);
    OV_Log2File(Id, "not stuck\n");
    EXPECT_EQ(Unstamped(ReadFile(LIVE)), "@log start...\n\n@last words\n@not stuck\n");
}

static void TakeAllHandles()
{
    for (uint32_t Id = 0; Id < 64; Id++) {
        if (Open(LIVE) != Id) {
            _exit(1);
        }
    }
    fputs("all taken", stderr);
}

TEST_F(LogFile, ARefusedStartEndsTheProcess)
{
    const std::string Longest = LongPath(511);

    OV_Log2File(Open(Longest), "fits");
    EXPECT_TRUE(Contains(ReadFile(Longest), "]fits"));
    TearDown();
    EXPECT_DEATH(OV_LogFileInit((Longest + "f").c_str(), 512), "");
    EXPECT_DEATH((TakeAllHandles(), Open(LIVE)), "all taken");
    EXPECT_EXIT((TakeAllHandles(), OV_LogFileRelease(7), _exit(static_cast<int>(Open(LIVE)))),
                testing::ExitedWithCode(7), "all taken");
}

TEST_F(LogFile, AfterAFailedOpenWritersWaitForEver)
{
    const pid_t Child = InChild([] {
        const uint32_t Other = Open(LIVE);
        const int32_t Id = OV_LogFileInit("/nowhere/log", 12);
        OV_Log2File(Other, "others work");
        OV_Log2File(static_cast<uint32_t>(Id), "waits");
        return Id;
    });
    EXPECT_TRUE(WaitUntil([] { return Contains(ReadFile(LIVE), "]others work"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(waitpid(Child, nullptr, WNOHANG), 0) << "the write came back";
    kill(Child, SIGKILL);
    EXPECT_EQ(WaitForProcess(Child), 128 + SIGKILL);
    EXPECT_EQ(ReadFile(FOLDER + "/output"), "_OV_LogFileOpen(/nowhere/log) faled(ret = -5).\n");
}
