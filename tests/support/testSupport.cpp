#include "testSupport.h"

#include "orvaneLibrtcLog.h"

#include <arpa/inet.h>
#include <chrono>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <pthread.h>
#include <regex>
#include <spawn.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

static std::mutex gs_LogLock;
static STRINGS gs_Log;       /* under gs_LogLock */
static STRINGS gs_SystemLog; /* under gs_LogLock */
static bool gs_RecordPipes;  /* under gs_LogLock */

/* A forked child logs, too: no other thread may have the lock then. */
static const int gs_IsForkSafe = pthread_atfork(
    [] { gs_LogLock.lock(); }, [] { gs_LogLock.unlock(); }, [] { gs_LogLock.unlock(); });

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

std::string Shell(const std::string &Command)
{
    EXPECT_EQ(WaitForProcess(StartProcess({"sh", "-c", Command}, {}, "/tmp/output")), 0) << Command;
    return ReadFile("/tmp/output");
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

    pthread_testcancel(); /* as in the real one */
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

/* In front of libc's own, for stories: such a command is logged by nobody. */
extern "C" FILE *popen(const char *Command, const char *Mode)
{
    static const auto Real =
        reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"));
    {
        const std::lock_guard Guard(gs_LogLock);
        if (gs_RecordPipes) {
            gs_Log.push_back(std::string("|< ") + Command + "\n");
        }
    }
    return Real(Command, Mode);
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

std::string Logged()
{
    static const std::regex Numbers(R"(^\d (\[\w+\]\[\w+)-\d+)");
    static const std::string Failed = "[ERROR][OV_RTCSystem]";
    std::string Result;
    std::string Command;

    for (std::string Line : TakeLog()) {
        Line = std::regex_replace(Line, Numbers, "$1");
        Line.resize(Line.find_last_not_of('\n') + 1);
        Line = std::regex_replace(Line, std::regex("\n"), "\\n");
        if (!Command.empty() && Line == Failed + Command + " , rc=-1") {
            Result += ", failed";
        } else if (Line.starts_with("[INFO][OV_RTCSystem]")) {
            Command = Line.substr(Failed.size() - 1);
            Result += "\n| " + Command;
        } else {
            Result += "\n" + Line;
        }
    }
    return Result;
}

/* The lines of Now that Before has not. */
static std::string New(const std::string &Before, const std::string &Now)
{
    const STRINGS Old = Lines(Before);
    std::string Result;

    for (const std::string &Line : Lines(Now)) {
        Result += std::find(Old.begin(), Old.end(), Line) == Old.end() ? Line + "\n" : "";
    }
    return Result;
}

std::string Retell(const std::string &Story, const std::function<std::string(std::string)> &Call,
                   const std::function<std::string()> &Held)
{
    std::string Told;
    std::string Before = Held();
    struct rlimit All;

    getrlimit(RLIMIT_NOFILE, &All);
    const struct rlimit None = {0, All.rlim_max};
    gs_RecordPipes = true;
    for (const std::string &Line : Lines(Story)) {
        const std::string Words = Line.substr(0, Line.find(" = "));
        if (Line.starts_with("$ ")) {
            Told += Line + "\n" + Shell(Line.substr(2));
            Told += Told.ends_with("\n") ? "" : "\n";
        } else if (Line.starts_with("> ") || Line.starts_with("! ")) {
            setrlimit(RLIMIT_NOFILE, Line[0] == '!' ? &None : &All);
            const std::string Result = Call(Words.substr(2));
            setrlimit(RLIMIT_NOFILE, &All);
            const std::string Now = Held();
            Told.append(Words).append(" = ").append(Result);
            Told += Now.empty() && !Before.empty() ? ", nothing held" : "";
            Told += Logged() + "\n" + New(std::exchange(Before, Now), Now);
        }
    }
    gs_RecordPipes = false;
    return Told;
}

std::string Links()
{
    return Shell(R"sh(ip -j addr | sed -E '
s/\},?\{"ifindex/\n"ifindex/g; s/"flags":\[[^]]*"UP"[^]]*\]/up/g; s/"flags":\[[^]]*\]/down/g
s/"(ifindex|link_index|link|qdisc|operstate|group|link_type|label|scope)":("[^"]*"|[0-9]+),?//g
s/"(tentative|noprefixroute|secondary|[a-z]*_life_time)":(true|[0-9]+),?//g
s/"address":"02:00:00:00:00:/"mac:/g; s/"address":"[^"]*",//g; s/"broadcast":"ff:[^"]*",//g
s/"family":"inet6?","local":"([^"]*)","prefixlen":([0-9]+),?/\1\/\2,/g; s/,?\}/}/g
s/"(ifname|addr_info)"://g; s/["{}]//g; s/\]+$/]/' | sed 1d)sh");
}

void InstallStoryCommands()
{
    InstallCommand("fake", R"(case $1 in */*) file=$1 ;; *) file=/run/commands/$1 ;; esac
mkdir -p "${file%/*}" && printf '#!/bin/sh\n%s\n' "$2" >"$file" && chmod 755 "$file")");
    InstallCommand("record", R"(for name; do fake "$name" 'echo "$PWD: $0 $*" >>/run/ran'; done)");
    InstallCommand("ran", "for i in {1..500}; do [ -s /run/ran ] && break; sleep .01; done\n"
                          "cat /run/ran && rm /run/ran");
    InstallCommand("running", R"(for i in {1..500}; do
all=$(ps -e -o args) && [ $(grep -v "running $1" <<<"$all" | grep -cF -e "$2") = $1 ] && exit
sleep .01; done; exit 1)");
}

STORY_WORD::STORY_WORD(const std::string &Word) : Number(strtoll(Word.c_str(), nullptr, 0))
{
    struct in_addr Address;

    if (Word != "NULL") {
        Text.assign(Word.c_str(), Word.c_str() + Word.size() + 1);
    }
    if (inet_pton(AF_INET, Word.c_str(), &Address) == 1) {
        Number = ntohl(Address.s_addr);
    }
}

static std::string CallByName(const STORY_CALL_MAP &Calls, const std::string &Line)
{
    std::istringstream Stream(Line + " ;");
    std::string Results;
    STRINGS Words;

    for (std::string Word; Stream >> std::quoted(Word);) {
        if (Word != ";") {
            Words.push_back(Word);
            continue;
        }
        const STORY_CALL &Call = Calls.at(Words.front());
        Words.erase(Words.begin());
        Results += (Results.empty() ? "" : ", ") + Call(std::exchange(Words, {}));
    }
    return Results;
}

std::string RetellCalls(const std::string &Story, const STORY_CALL_MAP &Calls)
{
    const std::string Told = Retell(
        Story, [&](const std::string &Line) { return CallByName(Calls, Line); }, Links);

    return std::regex_replace(Told, std::regex("(Script) \\d+:"), "$1 LINE:");
}

/* The longest of the commands that the log tells of. */
static size_t LongestCommand()
{
    size_t Longest = 0;

    for (const std::string &Line : TakeLog()) {
        if (Line.starts_with("1 [INFO][OV_RTCSystem-")) {
            Longest = std::max(Longest, Line.size() - Line.find(']', 10) - 2); /* and the newline */
        }
    }
    return Longest;
}

void ExpectLimit(const STORY_CALL_MAP &Calls, const std::string &Line, size_t Limit,
                 const std::string &Refusal)
{
    const auto CallWith = [&](size_t Length) {
        const std::string Name(Length, 'a');
        return CallByName(Calls, std::regex_replace(Line, std::regex("NAME"), Name));
    };
    SCOPED_TRACE(Line);
    TakeLog();
    CallWith(16); /* no interface has a name of that length */
    const size_t Length = 16 + Limit - LongestCommand();
    CallWith(Length);
    EXPECT_EQ(LongestCommand(), Limit);
    EXPECT_EQ(CallWith(Length + 1), Refusal);
    EXPECT_EQ(LongestCommand(), 0U);
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
