#include "boardModel.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static constexpr int UsageStatus = 2;

static int ShowUsage()
{
    fputs("usage: board create FILE PRODUCT [OPTION]...   make a board\n"
          "       board show FILE                         what its relays and watchdog do\n"
          "       board trace FILE [--accesses]           what happened, or all port accesses too\n"
          "       board advance FILE SECONDS              move its clock forward\n"
          "       board clear-trace FILE                  forget what happened\n"
          "\n"
          "PRODUCT is \"Aptio CRB\", B1904, IEC-810N4SC or CARLOW; any other name makes a board\n"
          "with nothing behind its ports. Options of create, N calls or -1 for all of them:\n"
          "  --refuse-raise N    refuse to grant rights for all ports\n"
          "  --refuse-lower N    refuse to take these rights away\n"
          "  --refuse-ioperm N   refuse to grant rights for single ports\n"
          "  --empty-bus         nothing answers at any port\n"
          "\n"
          "A program sees the board with RTC_BOARD=FILE LD_PRELOAD=librtcBoard.so.\n",
          stderr);
    return UsageStatus;
}

static bool ReadNumber(const char *Words, long Least, long Most, long *Number)
{
    char *End = nullptr;
    errno = 0;
    *Number = strtol(Words, &End, 10);
    return errno == 0 && End != Words && *End == '\0' && *Number >= Least && *Number <= Most;
}

static BOARD_STATE *OpenBoard(const char *Path)
{
    BOARD_STATE *State = BoardFileOpen(Path);
    if (State == nullptr) {
        fprintf(stderr, "board: %s: %s\n", Path,
                errno == EINVAL ? "not a board file" : strerror(errno));
    }
    return State;
}

/* create */

struct CREATE_OPTIONS {
    int32_t RefuseRaise;
    int32_t RefuseLower;
    int32_t RefuseIoperm;
    uint32_t EmptyBus;
};

struct REFUSAL_OPTION {
    const char *Name;
    int32_t CREATE_OPTIONS::*Refusals;
};

static constexpr REFUSAL_OPTION gs_RefusalOptions[] = {
    {"--refuse-raise", &CREATE_OPTIONS::RefuseRaise},
    {"--refuse-lower", &CREATE_OPTIONS::RefuseLower},
    {"--refuse-ioperm", &CREATE_OPTIONS::RefuseIoperm},
};

static const REFUSAL_OPTION *FindRefusalOption(const char *Word)
{
    for (const REFUSAL_OPTION &Option : gs_RefusalOptions) {
        if (strcmp(Option.Name, Word) == 0) {
            return &Option;
        }
    }
    return nullptr;
}

static bool ReadCreateOptions(int Count, char **Words, CREATE_OPTIONS *Options)
{
    for (int Position = 0; Position < Count; Position++) {
        if (strcmp(Words[Position], "--empty-bus") == 0) {
            Options->EmptyBus = 1;
            continue;
        }
        const REFUSAL_OPTION *Option = FindRefusalOption(Words[Position]);
        long Number = 0;
        if (Option == nullptr || Position + 1 == Count ||
            !ReadNumber(Words[Position + 1], -1, INT32_MAX, &Number)) {
            return false;
        }
        Options->*Option->Refusals = static_cast<int32_t>(Number);
        Position++;
    }
    return true;
}

static int RunCreate(int Count, char **Words)
{
    CREATE_OPTIONS Options = {};
    if (Count < 2 || !ReadCreateOptions(Count - 2, Words + 2, &Options)) {
        return ShowUsage();
    }
    const int Result = BoardFileCreate(Words[0], Words[1]);
    if (Result != 0) {
        fprintf(stderr, "board: %s: %s\n", Words[0],
                Result == -EEXIST ? "exists and is not a board file" : strerror(-Result));
        return 1;
    }
    BOARD_STATE *State = OpenBoard(Words[0]);
    if (State == nullptr) {
        return 1;
    }
    State->RefuseRaise = Options.RefuseRaise;
    State->RefuseLower = Options.RefuseLower;
    State->RefuseIoperm = Options.RefuseIoperm;
    State->EmptyBus = Options.EmptyBus;
    BoardFileClose(State);
    return 0;
}

/* show */

static const char *const gs_RelayWords[] = {
    "no bypass (traffic goes through the appliance)",
    "bypass (the two ports are joined)",
    "undefined (its lines disagree)",
};

static const char *const gs_WhenOffWords[] = {
    "bypass disarmed",
    "bypass armed",
    "undefined (its lines disagree)",
};

static void ShowRelays(const BOARD_STATE *State)
{
    const unsigned Count = BoardRelayCount(State);
    if (Count == 0) {
        puts("relay: none");
    }
    for (unsigned Pair = 1; Pair <= Count; Pair++) {
        if (Count == 1) {
            printf("relay: ");
        } else {
            printf("pair %u: ", Pair);
        }
        printf("%s", gs_RelayWords[BoardRelay(State, Pair)]);
        if (BoardHasWhenOff(State)) {
            printf(", when off: %s", gs_WhenOffWords[BoardRelayWhenOff(State, Pair)]);
        }
        putchar('\n');
    }
}

static void ShowWatchdog(const BOARD_STATE *State)
{
    const uint32_t Remaining = BoardWatchdogRemaining(State);
    if (BoardWatchdogExpired(State)) {
        puts("watchdog: expired");
    } else if (Remaining != 0) {
        printf("watchdog: running, %u s left\n", Remaining);
    } else {
        puts("watchdog: stopped");
    }
    if (BoardResetCount(State) != 0) {
        printf("system resets: %u\n", BoardResetCount(State));
    }
}

static void ShowRefusals(const char *Name, int32_t Refusals)
{
    if (Refusals < 0) {
        printf("refuses: every %s\n", Name);
    } else if (Refusals > 0) {
        printf("refuses: the next %d %s\n", Refusals, Name);
    }
}

/* Does one piece of work on the board with its lock held. */
static int WithBoard(const char *Path, void (*Work)(BOARD_STATE *State, uint32_t Number),
                     uint32_t Number)
{
    BOARD_STATE *State = OpenBoard(Path);
    if (State == nullptr) {
        return 1;
    }
    BoardLock(State);
    Work(State, Number);
    BoardUnlock(State);
    BoardFileClose(State);
    return 0;
}

static void Show(BOARD_STATE *State, uint32_t)
{
    BoardSettle(State);
    printf("board: %s (%s), %s%s\n", BoardDisplayName(State), State->ProductName,
           BoardChipName(State), State->EmptyBus != 0 ? ", empty bus" : "");
    ShowRelays(State);
    ShowWatchdog(State);
    if (State->SuperIo.ConfigurationMode != 0) {
        puts("configuration mode: left open");
    }
    ShowRefusals("iopl(3)", State->RefuseRaise);
    ShowRefusals("iopl(0)", State->RefuseLower);
    ShowRefusals("ioperm", State->RefuseIoperm);
    if (State->FaultCount != 0) {
        printf("faults: %u\n", State->FaultCount);
    }
}

static int RunShow(int Count, char **Words)
{
    return Count == 1 ? WithBoard(Words[0], Show, 0) : ShowUsage();
}

/* trace */

static bool IsPortAccess(const BOARD_ACCESS *Entry)
{
    return Entry->Kind <= BOARD_OUT32;
}

static bool IsOut(const BOARD_ACCESS *Entry)
{
    return Entry->Kind == BOARD_OUT8 || Entry->Kind == BOARD_OUT16 || Entry->Kind == BOARD_OUT32;
}

static void AccessWords(const BOARD_ACCESS *Entry, char *Words, size_t WordsSize)
{
    const bool TurnOn = Entry->Value != 0;
    const int Digits = static_cast<int>(Entry->Count) * 2;
    switch (Entry->Kind) {
    case BOARD_IOPL:
        snprintf(Words, WordsSize, "iopl %d", static_cast<int>(Entry->Value));
        return;
    case BOARD_IOPERM:
        snprintf(Words, WordsSize, "ioperm 0x%02X+%u %s", Entry->Port, Entry->Count,
                 TurnOn ? "on" : "off");
        return;
    case BOARD_SIGNAL:
        snprintf(Words, WordsSize, "signal %u to %d", Entry->Port, static_cast<int>(Entry->Value));
        return;
    case BOARD_EVENT:
        snprintf(Words, WordsSize, "--");
        return;
    case BOARD_FAULT:
        snprintf(Words, WordsSize, "*** FAULT");
        return;
    default:
        snprintf(Words, WordsSize, "%s 0x%02X %s 0x%0*X", IsOut(Entry) ? "out" : "in ", Entry->Port,
                 IsOut(Entry) ? "<-" : "->", Digits, Entry->Value);
    }
}

static void PrintEntry(const BOARD_ACCESS *Entry)
{
    char Process[32];
    char Words[48];
    snprintf(Process, sizeof(Process), "%s[%d]", Entry->Process, Entry->Pid);
    AccessWords(Entry, Words, sizeof(Words));
    printf("%6llu %8lld ms  %-22s  %-26s  %s", static_cast<unsigned long long>(Entry->Sequence),
           static_cast<long long>(Entry->MilliSeconds), Process, Words, Entry->Note);
    if (Entry->Result != 0) {
        printf(" (%s)", strerror(-Entry->Result));
    }
    putchar('\n');
}

static int RunTrace(int Count, char **Words)
{
    const bool Accesses = Count == 2 && strcmp(Words[1], "--accesses") == 0;
    if (Count != 1 && !Accesses) {
        return ShowUsage();
    }
    BOARD_STATE *State = OpenBoard(Words[0]);
    if (State == nullptr) {
        return 1;
    }
    BoardLock(State);
    BoardSettle(State);
    const uint32_t EntryCount = State->TraceCount;
    BoardUnlock(State);
    /* Printed without the lock: entries do not change once written, and a pipe may be slow. */
    for (uint32_t Position = 0; Position < EntryCount; Position++) {
        const BOARD_ACCESS *Entry = &State->Trace[Position];
        if (Accesses || !IsPortAccess(Entry)) {
            PrintEntry(Entry);
        }
    }
    if (State->TraceDropped != 0) {
        printf("the trace is full, %u more entries were not kept\n", State->TraceDropped);
    }
    BoardFileClose(State);
    return 0;
}

/* advance, clear-trace */

static int RunAdvance(int Count, char **Words)
{
    long Seconds = 0;
    if (Count != 2 || !ReadNumber(Words[1], 0, INT32_MAX, &Seconds)) {
        return ShowUsage();
    }
    return WithBoard(Words[0], BoardAdvance, static_cast<uint32_t>(Seconds));
}

static void ClearTrace(BOARD_STATE *State, uint32_t)
{
    BoardClearTrace(State);
}

static int RunClearTrace(int Count, char **Words)
{
    return Count == 1 ? WithBoard(Words[0], ClearTrace, 0) : ShowUsage();
}

struct COMMAND_ROW {
    const char *Name;
    int (*Run)(int Count, char **Words);
};

static constexpr COMMAND_ROW gs_Commands[] = {
    {"create", RunCreate},          {"show", RunShow}, {"trace", RunTrace}, {"advance", RunAdvance},
    {"clear-trace", RunClearTrace},
};

int main(int Count, char **Words)
{
    if (Count < 2) {
        return ShowUsage();
    }
    /* What is printed with the board's lock held fits: a terminal that is stopped keeps no lock. */
    static char Output[4096];
    setvbuf(stdout, Output, _IOFBF, sizeof(Output));
    for (const COMMAND_ROW &Command : gs_Commands) {
        if (strcmp(Command.Name, Words[1]) == 0) {
            return Command.Run(Count - 2, Words + 2);
        }
    }
    return ShowUsage();
}
