/* The rotating log file: a rotation a byte early or late, copies in the wrong order, lines lost,
 * split or sent elsewhere by a rotation, a handle that a full disk or a removed folder kills, and
 * the traps that are kept on purpose quietly mended. */
#include "orvaneLogFile.h"
#include "testSupport.h"

#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <set>
#include <signal.h>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

static const std::string FOLDER = "/tmp/logs";
static const std::string LIVE = FOLDER + "/live";

/* In front of libc's own: every line of these tests is written at this moment. */
extern "C" int gettimeofday(struct timeval *Now, void * /*Zone*/) noexcept
{
    *Now = {1732314796, 6999};
    return 0;
}

class LogFile : public testing::Test {
  protected:
    void SetUp() override
    {
        for (uint32_t Id = 0; Id < 64; Id++) {
            OV_LogFileRelease(Id);
        }
        setenv("TZ", "XYZ-5:30", 1);
        tzset();
        fs::remove_all(FOLDER);
        fs::create_directory(FOLDER);
    }
};

static uint32_t Open(const std::string &Path, uint32_t MaxFileSize = 52428800, uint32_t FileNum = 4)
{
    const int32_t Id = OV_LogFileInit(Path.c_str(), Path.size());

    EXPECT_TRUE(Id >= 0 && Id < 64) << Id;
    EXPECT_EQ(OV_LogFileSetMaxFileSize(static_cast<uint32_t>(Id), MaxFileSize), 0);
    EXPECT_EQ(OV_LogFileSetFileNum(static_cast<uint32_t>(Id), FileNum), 0);
    return static_cast<uint32_t>(Id);
}

/* The file with an @ in place of each stamp. */
static std::string Unstamped(const std::string &Path)
{
    static const std::regex STAMP(R"(\[2024/11/23_04:03:16\.006\])");

    return std::regex_replace(ReadFile(Path), STAMP, "@");
}

/* Another name of the live file, of that length. */
static std::string LongPath(size_t Length)
{
    return FOLDER + std::string(Length - FOLDER.size() - 4, '/') + "live";
}

/* What the file held at the start counts. */
TEST_F(LogFile, RotatesAtTheByteAndNotBefore)
{
    WriteFile(LIVE, "twenty bytes before\n");
    const uint32_t Id = Open(LIVE, 20 + 39 + 30 + 1); /* 39: the stamped "log start..." */
    EXPECT_EQ(OV_Log2File(Id, "1234\n"), 30);
    EXPECT_FALSE(fs::exists(LIVE + ".0"));
    OV_LogFileSetMaxFileSize(Id, 20 + 39 + 30 + 30);
    OV_Log2File(Id, "5678\n");
    EXPECT_EQ(Unstamped(LIVE + ".0"), "twenty bytes before\n@log start...\n\n@1234\n@5678\n");
    OV_Log2File(Id, "next\n");
    EXPECT_EQ(Unstamped(LIVE), "@next\n");
}

TEST_F(LogFile, CopiesMoveOnByOneNumberAndTheOldestIsOverwritten)
{
    const uint32_t Id = Open(LIVE, 1, 3);
    for (const char *Text : {"one", "two", "three", "four", "five"}) {
        OV_Log2File(Id, "%s", Text);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(FOLDER), {}), 4);
    EXPECT_EQ(ReadFile(LIVE), "");
    EXPECT_EQ(Unstamped(LIVE + ".0"), "@five");
    EXPECT_EQ(Unstamped(LIVE + ".1"), "@four");
    EXPECT_EQ(Unstamped(LIVE + ".2"), "@three");

    /* What cannot be renamed is removed: a live file must not grow for ever. */
    SetUp();
    fs::create_directory(LIVE + ".0");
    OV_Log2File(Open(LIVE, 1, 1), "one");
    EXPECT_EQ(ReadFile(LIVE), "");
}

TEST_F(LogFile, AFileWhoseRotatedNameIsTooLongGrowsAndTriesAgain)
{
    const uint32_t Id = Open(LongPath(509), 1, 11); /* ".10" does not fit, ".3" does */

    OV_Log2File(Id, "one");
    EXPECT_EQ(Unstamped(LIVE), "@log start...\n\n@one");
    OV_LogFileSetFileNum(Id, 4);
    OV_Log2File(Id, "two");
    EXPECT_EQ(Unstamped(LIVE + ".0"), "@log start...\n\n@one@two");
}

TEST_F(LogFile, AFullDiskLosesLinesUntilThereIsRoom)
{
    const std::string Long(9999, 'y');

    ASSERT_EQ(mount("tmpfs", FOLDER.c_str(), "tmpfs", 0, "size=64k"), 0);
    WriteFile(FOLDER + "/ballast", std::string(32768, 'x'));
    WriteFile(LIVE + ".0", "history");
    const uint32_t Id = Open(LIVE, 65536);
    errno = ENOTTY;
    for (int Line = 0; Line < 100; Line++) {
        EXPECT_EQ(OV_Log2File(Id, "%s\n", Long.c_str()), 25 + 10000);
    }
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(ReadFile(LIVE + ".0"), "history") << "lines that nobody wrote rotated it away";
    EXPECT_EQ(ReadFile(LIVE).back(), 'y');
    unlink((FOLDER + "/ballast").c_str());
    OV_Log2File(Id, "room again\n");
    OV_Log2File(Id, "and more\n");
    OV_LogFileRelease(Id);
    const std::string Written = ReadFile(LIVE);
    WriteFile(LIVE, Written.substr(Written.rfind('y') + 1));
    EXPECT_EQ(Unstamped(LIVE), "\n@room again\n@and more\n");
    EXPECT_EQ(umount(FOLDER.c_str()), 0);
}

TEST_F(LogFile, AHandleWhoseFolderIsGoneWritesNowhereUntilItIsBack)
{
    testing::internal::CaptureStdout();
    const size_t Descriptors = OpenDescriptors();
    const uint32_t Id = Open(LIVE, 1);
    fs::remove_all(FOLDER);
    EXPECT_EQ(OV_Log2File(Id, "to the deleted file"), 25 + 19);
    EXPECT_EQ(OV_Log2File(Id, "lost"), 0);
    EXPECT_NE(Open("/tmp/other"), Id) << "the slot was given away";
    fs::create_directory(FOLDER);
    OV_Log2File(Id, "found");
    EXPECT_EQ(Unstamped(LIVE + ".0"), "@found");
    fs::remove_all(FOLDER);
    OV_Log2File(Id, "and gone again");
    SetUp();
    EXPECT_EQ(OpenDescriptors(), Descriptors) << "one too few: standard output was closed";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "a line strayed";
}

/* Other handles come and go, and settings change meanwhile. */
TEST_F(LogFile, NoLineIsLostSplitOrDoubledByRotations)
{
    const uint32_t Id = Open(LIVE, 10000, 200);
    std::multiset<std::string> Seen;
    std::multiset<std::string> Expected = {"@log start...", ""};
    const auto LineOf = [](size_t Thread, size_t Number) {
        return std::to_string(Thread) + std::string(1 + Number % 100, ' ') + std::to_string(Number);
    };
    std::vector<std::jthread> Threads(2);
    for (size_t Thread = 0; Thread < 2; Thread++) {
        Threads[Thread] = std::jthread([Id, Thread, LineOf] {
            for (size_t Number = 0; Number < 2000; Number++) {
                OV_Log2File(Id, "%s\n", LineOf(Thread, Number).c_str());
            }
        });
    }
    for (size_t Number = 0; Number < 2000; Number++) {
        EXPECT_EQ(OV_LogFileSetFileNum(Id, 200), 0);
        OV_LogFileRelease(Open("/tmp/other"));
        Expected.insert("@" + LineOf(0, Number));
        Expected.insert("@" + LineOf(1, Number));
    }
    Threads.clear();

    for (const auto &File : fs::directory_iterator(FOLDER)) {
        const STRINGS Found = Lines(Unstamped(File.path()));
        Seen.insert(Found.begin(), Found.end());
    }
    EXPECT_TRUE(Seen == Expected) << Seen.size() << " of " << Expected.size() << " lines";
    EXPECT_GT(std::distance(fs::directory_iterator(FOLDER), {}), 20);
}

TEST_F(LogFile, SettingsCheckTheIdAndSkipAFreeSlot)
{
    uint32_t Value = 7;
    EXPECT_EQ(OV_LogFileGetMaxFileSize(64, &Value), -EINVAL);
    EXPECT_EQ(OV_LogFileSetFileNum(64, 1), -EINVAL);
    EXPECT_EQ(OV_LogFileGetFileNum(63, nullptr), -EINVAL);
    EXPECT_EQ(OV_LogFileSetMaxFileSize(63, 1), 0);
    EXPECT_EQ(OV_LogFileGetMaxFileSize(63, &Value), 0);
    EXPECT_EQ(Value, 7U);

    for (const uint32_t Wanted : {0U, 1000U}) { /* 0: the default */
        ASSERT_EQ(OV_FileLogInit(LIVE.c_str(), LIVE.size(), Wanted, Wanted), 0);
        EXPECT_EQ(OV_LogFileGetMaxFileSize(0, &Value), 0);
        EXPECT_EQ(Value, Wanted == 0 ? 52428800 : Wanted);
        EXPECT_EQ(OV_LogFileGetFileNum(0, &Value), 0);
        EXPECT_EQ(Value, Wanted == 0 ? 4 : Wanted);
        OV_FileLogRelease();
    }
}

TEST_F(LogFile, WithoutAFileLinesGoToStandardOutputWhichTheReleaseCloses)
{
    const auto Child = [] {
        EXPECT_NE(freopen((FOLDER + "/out").c_str(), "w", stdout), nullptr);
        OV_FileLog("no default\n");
        OV_FileLogInit(LIVE.c_str(), LIVE.size(), 0, 0);
        OV_FileLog("default\n");
        OV_FileLogRelease();
        const uint32_t Next = Open(FOLDER + "/next"); /* the same slot, another owner */
        OV_FileLog("released\n");
        OV_FileLogRelease();
        OV_LogFileRelease(Next);
        const int32_t Id = OV_LogFileInit(nullptr, 0);
        OV_LogFileRelease(64);
        OV_Log2File(5, "free\n");
        OV_Log2File(64, "above\n");
        OV_LogFileRelease(0);
        _exit(Id == 0 && fcntl(STDOUT_FILENO, F_GETFD) == -1 ? 0 : 1);
    };
    EXPECT_EXIT(Child(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(Unstamped(FOLDER + "/out"),
              "@no default\n@released\n@log start...\n\n@free\n@above\n");
    EXPECT_EQ(Unstamped(LIVE), "@log start...\n\n@default\n");
}

/* The lines above have shown the other fields; a new zone shows in them with the next second. */
TEST_F(LogFile, ProgramsGetTheLocalTimeOfANewZoneAtOnce)
{
    _OV_SYSTIME_T Now = {};

    OV_Log2File(Open(LIVE), "in the old one");
    setenv("TZ", "UTC", 1);
    EXPECT_EQ(OV_GetSystime(&Now), 0);
    EXPECT_TRUE(Now.Year == 2024 && Now.Hour == 22 && Now.Milliseconds == 6);
}

TEST_F(LogFile, ARefusedStartEndsTheProcess)
{
    OV_Log2File(Open(LongPath(511)), "fits");
    EXPECT_TRUE(Contains(ReadFile(LIVE), "]fits"));
    EXPECT_DEATH(OV_LogFileInit(LongPath(512).c_str(), 512), "");
    for (uint32_t Id = 1; Id < 64; Id++) {
        EXPECT_EQ(Open(LIVE), Id);
    }
    EXPECT_DEATH(Open(LIVE), "");
    OV_LogFileRelease(7);
    EXPECT_EQ(Open(LIVE), 7U) << "the lowest that is free";
}

TEST_F(LogFile, AfterAFailedOpenWritersWaitForEver)
{
    const auto Child = [] {
        const uint32_t Other = Open(LIVE);
        const int32_t Id = OV_LogFileInit("/nowhere/log", 12);
        OV_Log2File(Other, "others work");
        alarm(1);
        OV_Log2File(static_cast<uint32_t>(Id), "waits");
        _exit(0);
    };
    EXPECT_EXIT(Child(), testing::KilledBySignal(SIGALRM),
                "^_OV_LogFileOpen\\(/nowhere/log\\) faled\\(ret = -5\\)\\.\n$");
    EXPECT_EQ(Unstamped(LIVE), "@log start...\n\n@others work");
}
