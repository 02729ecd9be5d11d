/*
 * What the suites share: the sandbox's places, small files, child processes, a recorder of log
 * lines, stories and memory whose edges are watched. Every suite runs inside simulator/sandbox.sh,
 * so /etc, /tmp, /run and /var/log are its own.
 */
#ifndef TEST_SUPPORT_H
#define TEST_SUPPORT_H

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
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

/* Runs it with sh, which must succeed; what it prints on both streams. */
std::string Shell(const std::string &Command);

/* Installs a log back end that keeps every line, "LEVEL-NUMBER " ahead of it. */
void RecordLog();
STRINGS TakeLog();

/* The recorded line of that level and function ends in the message (and one newline). */
::testing::AssertionResult IsLogLine(const std::string &Line, const char *Level,
                                     const char *Function, const std::string &Message);

/* The recorded messages of these levels ("13": info and error) without their prefix, the level's
 * number ahead of each. The others are dropped. */
std::string TakeMessages(const std::string &Levels);

/* The recorded lines without the numbers of levels and source lines, a newline ahead of each. A
 * command that was run is "| command", and ", failed" behind it when that was logged; one whose
 * output was read, in a story, "|< command". */
std::string Logged();

/* Tells a story by doing what its lines say. "> call = result" is followed by what was logged, and
 * by the lines of Held that are new; ", nothing held" stands behind the result when the last went.
 * "! call" is made with no descriptor to be had. "$ command" is followed by what it prints. */
std::string Retell(const std::string &Story, const std::function<std::string(std::string)> &Call,
                   const std::function<std::string()> &Held);

/* The links but lo, one a line: state, settings, a MAC address 02:00:00:00:00:NN, addresses. */
std::string Links();

/* Commands for stories of commands: "fake NAME|PATH SCRIPT" puts a script there, "record NAME|PATH
 * ..." ones that write down how they were called; "ran" waits for that and prints it; "running
 * COUNT TEXT" waits until that many processes have the text in their command line. */
void InstallStoryCommands();

/* A word of a story's call: what a parameter takes from it. "NULL" is a null text, a dotted address
 * a number in host byte order. A text lies in a block of its own, whose end asan watches. */
class STORY_WORD {
  public:
    explicit STORY_WORD(const std::string &Word);
    template <typename PARAMETER>
    operator PARAMETER() /* NOLINT(google-explicit-constructor) */
    {
        if constexpr (std::is_pointer_v<PARAMETER>) {
            return Text.empty() ? nullptr : Text.data();
        } else {
            return static_cast<PARAMETER>(Number);
        }
    }

  private:
    std::vector<char> Text;
    int64_t Number;
};

/* The function as a story calls it; words that are missing are null or 0. */
using STORY_CALL = std::function<std::string(STRINGS)>;
template <typename RESULT, typename... PARAMETERS>
STORY_CALL StoryCall(RESULT (*Function)(PARAMETERS...))
{
    return [Function](STRINGS Words) {
        Words.resize(sizeof...(PARAMETERS), "NULL");
        return [&]<size_t... INDEX>(std::index_sequence<INDEX...>)
        {
            if constexpr (std::is_void_v<RESULT>) {
                Function(STORY_WORD(Words[INDEX])...);
                return std::string("done");
            } else {
                return std::to_string(Function(STORY_WORD(Words[INDEX])...));
            }
        }
        (std::index_sequence_for<PARAMETERS...>());
    };
}
inline STORY_CALL StoryCall(std::string (*Function)(STRINGS))
{
    return Function;
}

/* The calls by name: STORY_CALLS(Function...). */
using STORY_CALL_MAP = std::map<std::string, STORY_CALL>;
template <typename... FUNCTIONS>
STORY_CALL_MAP StoryCalls(std::istringstream Names, FUNCTIONS... Functions)
{
    STORY_CALL_MAP Calls;
    std::string Name;

    ((Names >> Name, Name.resize(Name.find_last_not_of(',') + 1),
      Calls[Name] = StoryCall(Functions)),
     ...);
    return Calls;
}
#define STORY_CALLS(...) StoryCalls(std::istringstream(#__VA_ARGS__), __VA_ARGS__)

/* A story of these calls, "name word... ; name word...": a word with blanks, or an empty one,
 * stands in double quotes. The results stand in a row. Links are what is held. */
std::string RetellCalls(const std::string &Story, const STORY_CALL_MAP &Calls);

/* The call takes a command of that many characters, and refuses the next with that result without
 * running anything. "NAME" in it becomes as long as it takes. */
void ExpectLimit(const STORY_CALL_MAP &Calls, const std::string &Line, size_t Limit,
                 const std::string &Refusal = "-1");

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
