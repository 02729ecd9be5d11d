#include "testSupport.h"

#include "orvaneLibrtcLog.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <spawn.h>
#include <sstream>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

static std::mutex gs_LogLock;
static STRINGS gs_Log;       /* under gs_LogLock */
static STRINGS gs_SystemLog; /* under gs_LogLock */

std::string BuildFolder()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

std::string ReadFile(const std::string &Path)
{
    std::ostringstream Text;

    Text << std::ifstream(Path).rdbuf();
    return Text.str();
}

void WriteFile(const std::string &Path, const std::string &Text)
{
    std::ofstream(Path, std::ios::trunc) << Text;
}

STRINGS Lines(const std::string &Text)
{
    std::istringstream Stream(Text);
    STRINGS Result;

    for (std::string Line; std::getline(Stream, Line);) {
        Result.push_back(Line);
    }
    return Result;
}

bool Contains(const std::string &Text, const std::string &Part)
{
    return Text.find(Part) != std::string::npos;
}

size_t OpenDescriptors()
{
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

size_t OpenThreads()
{
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

void InstallCommand(const std::string &Name, const std::string &Script)
{
    const std::string Path = "/run/commands/" + Name;

    WriteFile(Path, "#!/bin/sh\n" + Script + "\n");
    chmod(Path.c_str(), 0755);
}

bool WaitUntil(const std::function<bool()> &Condition, int Seconds)
{
    const auto End = std::chrono::steady_clock::now() + std::chrono::seconds(Seconds);

    while (!Condition()) {
        if (std::chrono::steady_clock::now() > End) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

static std::vector<char *> Pointers(const STRINGS &Texts)
{
    std::vector<char *> Result;

    for (const std::string &Text : Texts) {
        Result.push_back(const_cast<char *>(Text.c_str()));
    }
    Result.push_back(nullptr);
    return Result;
}

pid_t StartProcess(const STRINGS &Arguments, const STRINGS &Settings, const std::string &Output)
{
    STRINGS Environment = Settings;
    for (char **Setting = environ; *Setting != nullptr; Setting++) {
        Environment.emplace_back(*Setting);
    }

    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_addopen(&Actions, 1, Output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0666);
    posix_spawn_file_actions_adddup2(&Actions, 1, 2);
    pid_t Process = -1;
    const int Error = posix_spawnp(&Process, Arguments[0].c_str(), &Actions, nullptr,
                                   Pointers(Arguments).data(), Pointers(Environment).data());
    posix_spawn_file_actions_destroy(&Actions);
    EXPECT_EQ(Error, 0) << Arguments[0] << ": " << strerror(Error);
    return Process;
}

int WaitForProcess(pid_t Process)
{
    int Status = 0;

    EXPECT_EQ(waitpid(Process, &Status, 0), Process);
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
}

static void __attribute__((format(printf, 2, 0)))
RecordLineValist(int Level, const char *Format, va_list Args)
{
    char Line[4096];

    vsnprintf(Line, sizeof(Line), Format, Args);
    const std::lock_guard Guard(gs_LogLock);
    gs_Log.push_back(std::to_string(Level) + " " + Line);
}

static void __attribute__((format(printf, 2, 3))) RecordLine(int Level, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    RecordLineValist(Level, Format, Args);
    va_end(Args);
}

static void __attribute__((format(printf, 2, 0)))
RecordSystemLog(int Priority, const char *Format, va_list Args)
{
    char Line[1024];

    vsnprintf(Line, sizeof(Line), Format, Args);
    const std::lock_guard Guard(gs_LogLock);
    gs_SystemLog.push_back(std::to_string(Priority) + " " + Line);
}

/* In front of libc's own; a fortified build calls the second. */
extern "C" void syslog(int Priority, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    RecordSystemLog(Priority, Format, Args);
    va_end(Args);
}

extern "C" void __attribute__((format(printf, 3, 4)))
__syslog_chk(int Priority, int /*Flag*/, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    RecordSystemLog(Priority, Format, Args);
    va_end(Args);
}

STRINGS TakeSystemLog()
{
    const std::lock_guard Guard(gs_LogLock);

    return std::exchange(gs_SystemLog, {});
}

void RecordLog()
{
    OV_AgentLogDtor();
    OV_AgentCustomLogCtor(RecordLine, RecordLineValist);
    TakeLog();
}

STRINGS TakeLog()
{
    const std::lock_guard Guard(gs_LogLock);

    return std::exchange(gs_Log, {});
}

std::string TakeMessages(const std::string &Levels)
{
    std::string Messages;

    for (const std::string &Line : TakeLog()) {
        if (Contains(Levels, Line.substr(0, 1))) { /* a function's name has no hyphen */
            Messages += Line.substr(0, 2) + Line.substr(Line.find(']', Line.find('-')) + 1);
        }
    }
    return Messages;
}

::testing::AssertionResult IsLogLine(const std::string &Line, const char *Level,
                                     const char *Function, const std::string &Message)
{
    static const STRINGS Levels = {"DEBUG", "INFO", "WARN", "ERROR"};
    const std::string Start = std::string("[") + Level + "][" + Function + "-";
    const size_t Number = 2 + Start.size();
    const size_t NumberEnd = Line.find_first_not_of("0123456789", Number);

    if (Line.size() > 2 && Line[0] >= '0' && Line[0] <= '3' &&
        Levels[static_cast<size_t>(Line[0] - '0')] == Level &&
        Line.compare(2, Start.size(), Start) == 0 && NumberEnd > Number &&
        NumberEnd != std::string::npos && Line.substr(NumberEnd) == "]" + Message + "\n") {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "got \"" << Line << "\", expected " << Start << "<line>]" << Message;
}

GUARDED_TEXT::GUARDED_TEXT(const std::string &Text)
{
    const size_t Page = static_cast<size_t>(sysconf(_SC_PAGESIZE));

    Pages = static_cast<char *>(
        mmap(nullptr, 2 * Page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(Pages + Page, Page, PROT_NONE);
    Start = Pages + Page - Text.size();
    memcpy(Start, Text.data(), Text.size());
}

GUARDED_TEXT::~GUARDED_TEXT()
{
    munmap(Pages, 2 * static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

MARKED_BUFFER::MARKED_BUFFER(size_t BufferSize) : Size(BufferSize)
{
    memset(Memory, MARK, sizeof(Memory));
}

bool MARKED_BUFFER::EdgesIntact() const
{
    const auto IsMark = [](char Character) { return Character == MARK; };

    return std::all_of(Memory, Memory + EDGE, IsMark) &&
           std::all_of(Memory + EDGE + Size, Memory + sizeof(Memory), IsMark);
}
