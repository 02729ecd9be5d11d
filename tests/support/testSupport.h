/*
 * What the suites share: the sandbox's places, small files, child processes, a recorder of log
 * lines and memory whose edges are watched. Every suite runs inside simulator/sandbox.sh, so /etc,
 * /tmp, /run and /var/log are its own.
 */
#ifndef TEST_SUPPORT_H
#define TEST_SUPPORT_H

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <vector>

/* The folder with the built programs, inside the sandbox. */
std::string BuildFolder();

std::string ReadFile(const std::string &Path); /* empty when there is none */
void WriteFile(const std::string &Path, const std::string &Text);
std::vector<std::string> Lines(const std::string &Text);
bool Contains(const std::string &Text, const std::string &Part);

/* How many descriptors and threads this process has. */
size_t OpenDescriptors();
size_t OpenThreads();

/* Puts a shell script of that name in front of every other command. */
void InstallCommand(const std::string &Name, const std::string &Script);

/* Looks every few milliseconds until Condition holds; false when the seconds pass first. */
bool WaitUntil(const std::function<bool()> &Condition, int Seconds = 20);

/* Starts a program with extra "NAME=value" settings, its output (both streams) going to a file. */
using STRINGS = std::vector<std::string>;
pid_t StartProcess(const STRINGS &Arguments, const STRINGS &Settings, const std::string &Output);

/* Waits for it: the exit status, or 128 + the signal that ended it. */
int WaitForProcess(pid_t Process);

/* Installs a log back end that keeps every line, "LEVEL-NUMBER " ahead of it. */
void RecordLog();
STRINGS TakeLog();

/* The recorded line of that level and function ends in the message (and one newline). */
::testing::AssertionResult IsLogLine(const std::string &Line, const char *Level,
                                     const char *Function, const std::string &Message);

/* The recorded messages of these levels ("13": info and error) without their prefix, the level's
 * number ahead of each. The others are dropped. */
std::string TakeMessages(const std::string &Levels);

/* What went to the system log since the last call, "PRIORITY-NUMBER " ahead of each text. The
 * suites' own syslog takes it: nothing reaches the machine's. */
STRINGS TakeSystemLog();

/* A text that ends right before a page that cannot be read. */
class GUARDED_TEXT {
  public:
    explicit GUARDED_TEXT(const std::string &Text);
    ~GUARDED_TEXT();
    GUARDED_TEXT(const GUARDED_TEXT &) = delete;
    GUARDED_TEXT &operator=(const GUARDED_TEXT &) = delete;
    const char *Text() const
    {
        return Start;
    }

  private:
    char *Pages;
    char *Start;
};

/* A buffer of Size characters (at most 64) between marks that a write past it would change. */
struct MARKED_BUFFER {
    static constexpr size_t EDGE = 16;
    static constexpr char MARK = '\x5A';
    char Memory[EDGE + 64 + EDGE];
    size_t Size;

    explicit MARKED_BUFFER(size_t BufferSize);
    char *Text()
    {
        return Memory + EDGE;
    }
    bool EdgesIntact() const;
};

#endif
