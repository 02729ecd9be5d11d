#include "boardTrap.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/io.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

static constexpr int NoBoardStatus = 125;
static constexpr int AllRights = 3;
static constexpr unsigned long PortCount = 0x10000;
static constexpr long long GeneralProtection = 13;

/* As the kernel keeps them: a thread's own, copied to what the thread makes. */
struct PORT_RIGHTS {
    unsigned Attachment; /* rights that come from another one are none */
    int Level;
    uint8_t Granted[PortCount / 8];
};

static BOARD_STATE *gs_Board;
static unsigned gs_Attachment = 1;
static struct sigaction gs_Previous;

/* Lies beside the thread's stack from its start: a fault handler may allocate nothing. */
static thread_local PORT_RIGHTS gs_Rights __attribute__((tls_model("initial-exec")));

/* Instructions */

struct PORT_OPCODE {
    uint8_t Opcode;
    bool Out;
    bool Byte;
    bool Immediate;
};

static constexpr PORT_OPCODE gs_Opcodes[] = {
    {0xE4, false, true, true}, {0xE5, false, false, true}, {0xE6, true, true, true},
    {0xE7, true, false, true}, {0xEC, false, true, false}, {0xED, false, false, false},
    {0xEE, true, true, false}, {0xEF, true, false, false},
};

struct PORT_INSTRUCTION {
    bool Out;
    unsigned Width;
    uint16_t Port;
    unsigned Length;
};

static const PORT_OPCODE *FindOpcode(uint8_t Opcode)
{
    for (const PORT_OPCODE &Row : gs_Opcodes) {
        if (Row.Opcode == Opcode) {
            return &Row;
        }
    }
    return nullptr;
}

/* Reads no byte beyond the instruction: the next page need not be there. */
static bool Decode(const greg_t *Registers, PORT_INSTRUCTION *Instruction)
{
    /* NOLINTNEXTLINE(performance-no-int-to-ptr): the context keeps an address as an integer */
    const uint8_t *Code = reinterpret_cast<const uint8_t *>(Registers[REG_RIP]);
    const uint8_t *Next = Code;
    const bool Short = *Next == 0x66;
    Next += Short ? 1 : 0;
    Next += (*Next & 0xF0) == 0x40 ? 1 : 0;
    const PORT_OPCODE *Row = FindOpcode(*Next);
    if (Row == nullptr) {
        return false;
    }
    Next++;
    Instruction->Out = Row->Out;
    Instruction->Width = Short ? 2 : 4;
    if (Row->Byte) {
        Instruction->Width = 1;
    }
    Instruction->Port = static_cast<uint16_t>(Registers[REG_RDX]);
    if (Row->Immediate) {
        Instruction->Port = *Next;
        Next++;
    }
    Instruction->Length = static_cast<unsigned>(Next - Code);
    return true;
}

/* A four-byte in clears the upper half of the register, the narrower ones keep the rest of it. */
static void SetAccumulator(greg_t *Registers, unsigned Width, uint32_t Value)
{
    const uint64_t Kept[] = {0, ~0xFFULL, ~0xFFFFULL, 0, 0};
    const uint64_t Former = static_cast<uint64_t>(Registers[REG_RAX]);
    Registers[REG_RAX] = static_cast<greg_t>((Former & Kept[Width]) | Value);
}

static void CarryOut(greg_t *Registers, const PORT_INSTRUCTION *Instruction)
{
    BoardLock(gs_Board);
    if (Instruction->Out) {
        const uint64_t Mask = (1ULL << (8 * Instruction->Width)) - 1;
        const uint64_t Value = static_cast<uint64_t>(Registers[REG_RAX]) & Mask;
        BoardWrite(gs_Board, Instruction->Port, Instruction->Width, static_cast<uint32_t>(Value));
    } else {
        SetAccumulator(Registers, Instruction->Width,
                       BoardRead(gs_Board, Instruction->Port, Instruction->Width));
    }
    BoardUnlock(gs_Board);
    Registers[REG_RIP] += Instruction->Length;
}

/* Rights */

static bool HasRights()
{
    return gs_Rights.Attachment == gs_Attachment;
}

static void BeginRights()
{
    if (!HasRights()) {
        gs_Rights = {};
        gs_Rights.Attachment = gs_Attachment;
    }
}

static bool PortGranted(unsigned long Port)
{
    return Port < PortCount && (gs_Rights.Granted[Port / 8] & (1U << (Port % 8))) != 0;
}

static bool MayAccess(const PORT_INSTRUCTION *Instruction)
{
    if (!HasRights()) {
        return false;
    }
    if (gs_Rights.Level == AllRights) {
        return true;
    }
    for (unsigned Byte = 0; Byte < Instruction->Width; Byte++) {
        if (!PortGranted(static_cast<unsigned long>(Instruction->Port) + Byte)) {
            return false;
        }
    }
    return true;
}

static void SetGranted(unsigned long From, unsigned long Count, bool TurnOn)
{
    BeginRights();
    for (unsigned long Port = From; Port < From + Count; Port++) {
        const unsigned Bit = 1U << (Port % 8);
        const unsigned Rest = gs_Rights.Granted[Port / 8] & ~Bit;
        gs_Rights.Granted[Port / 8] = static_cast<uint8_t>(TurnOn ? Rest | Bit : Rest);
    }
}

/* Fault handler */

static void UseDefaultAction()
{
    struct sigaction Default = {};
    Default.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &Default, nullptr);
}

static void RecordForbidden(const PORT_INSTRUCTION *Instruction)
{
    BOARD_ACCESS What = {};
    What.Kind = BOARD_FAULT;
    What.Port = Instruction->Port;
    What.Count = Instruction->Width;
    BoardLock(gs_Board);
    BoardRecord(gs_Board, &What, "port 0x%02X %s without the right, the process ends",
                Instruction->Port, Instruction->Out ? "written" : "read");
    BoardUnlock(gs_Board);
}

/*
 * A fault that is not ours comes again once the action is put back, because the instruction is
 * repeated; a signal somebody sent does not and has to be raised anew.
 */
static void PassOn(const siginfo_t *Information)
{
    sigaction(SIGSEGV, &gs_Previous, nullptr);
    if (Information->si_code <= 0) {
        syscall(SYS_tgkill, getpid(), gettid(), SIGSEGV);
    }
}

static void Answer(const siginfo_t *Information, greg_t *Registers)
{
    PORT_INSTRUCTION Instruction;
    if (gs_Board == nullptr || Information->si_code <= 0 ||
        Registers[REG_TRAPNO] != GeneralProtection || !Decode(Registers, &Instruction)) {
        PassOn(Information);
        return;
    }
    if (!MayAccess(&Instruction)) {
        RecordForbidden(&Instruction);
        UseDefaultAction();
        return;
    }
    CarryOut(Registers, &Instruction);
}

static void HandleFault(int, siginfo_t *Information, void *Context)
{
    const int SavedError = errno;
    Answer(Information, static_cast<ucontext_t *>(Context)->uc_mcontext.gregs);
    errno = SavedError;
}

static bool HandlerInstalled(const struct sigaction *Action)
{
    return (Action->sa_flags & SA_SIGINFO) != 0 && Action->sa_sigaction == HandleFault;
}

/* Asked for with every right granted: a program may have set an action of its own in between. */
static void InstallHandler()
{
    struct sigaction Current;
    if (sigaction(SIGSEGV, nullptr, &Current) != 0 || HandlerInstalled(&Current)) {
        return;
    }
    gs_Previous = Current;
    struct sigaction Action = {};
    Action.sa_sigaction = HandleFault;
    Action.sa_flags = SA_SIGINFO;
    /* The handler holds the board's lock; another handler doing port accesses would wait for it. */
    sigfillset(&Action.sa_mask);
    sigaction(SIGSEGV, &Action, nullptr);
}

static void RemoveHandler()
{
    struct sigaction Current;
    if (sigaction(SIGSEGV, nullptr, &Current) == 0 && HandlerInstalled(&Current)) {
        sigaction(SIGSEGV, &gs_Previous, nullptr);
    }
}

/* Attachment */

int BoardAttach(const char *Path)
{
    BOARD_STATE *Board = BoardFileOpen(Path);
    if (Board == nullptr) {
        return -errno;
    }
    BoardDetach();
    gs_Board = Board;
    return 0;
}

void BoardDetach(void)
{
    if (gs_Board == nullptr) {
        return;
    }
    RemoveHandler();
    gs_Attachment++; /* takes the rights of all threads */
    BoardFileClose(gs_Board);
    gs_Board = nullptr;
}

BOARD_STATE *BoardAttached(void)
{
    return gs_Board;
}

/* The lock is held with all signals blocked, for the same reason as in the fault handler. */
static void EnterBoard(sigset_t *Former)
{
    sigset_t All;
    sigfillset(&All);
    sigprocmask(SIG_SETMASK, &All, Former);
    BoardLock(gs_Board);
}

static void LeaveBoard(const sigset_t *Former)
{
    BoardUnlock(gs_Board);
    sigprocmask(SIG_SETMASK, Former, nullptr);
}

static int Finish(int Result)
{
    if (Result == 0) {
        return 0;
    }
    errno = -Result;
    return -1;
}

static bool Refused(int32_t *Refusals)
{
    if (*Refusals > 0) {
        (*Refusals)--;
        return true;
    }
    return *Refusals < 0;
}

static int ChangeLevel(int Level)
{
    if (Level < 0 || Level > AllRights) {
        return -EINVAL;
    }
    if (Level == AllRights && Refused(&gs_Board->RefuseRaise)) {
        return -EPERM;
    }
    if (Level == 0 && Refused(&gs_Board->RefuseLower)) {
        return -EPERM;
    }
    BeginRights();
    gs_Rights.Level = Level;
    return 0;
}

static int ChangeGranted(unsigned long From, unsigned long Count, bool TurnOn)
{
    if (From + Count <= From || From + Count > PortCount) {
        return -EINVAL;
    }
    if (TurnOn && Refused(&gs_Board->RefuseIoperm)) {
        return -EPERM;
    }
    SetGranted(From, Count, TurnOn);
    return 0;
}

static const char *OutcomeWords(int Result)
{
    if (Result == 0) {
        return "";
    }
    return Result == -EPERM ? ": refused" : ": invalid";
}

static const char *SignalWords(int Signal)
{
    if (Signal == 0) {
        return "is it there?";
    }
    const char *Name = sigabbrev_np(Signal);
    return Name != nullptr ? Name : "";
}

/* The calls that take the place of the C library's */

#define IN_FRONT_OF_LIBRARY extern "C" __attribute__((visibility("default")))

IN_FRONT_OF_LIBRARY int iopl(int Level) noexcept
{
    if (gs_Board == nullptr) {
        return static_cast<int>(syscall(SYS_iopl, Level));
    }
    sigset_t Former;
    EnterBoard(&Former);
    BOARD_ACCESS What = {};
    What.Kind = BOARD_IOPL;
    What.Value = static_cast<uint32_t>(Level);
    What.Result = ChangeLevel(Level);
    BoardRecord(gs_Board, &What, "rights for %s ports%s", Level == AllRights ? "all" : "no",
                OutcomeWords(What.Result));
    LeaveBoard(&Former);
    if (What.Result == 0 && Level == AllRights) {
        InstallHandler();
    }
    return Finish(What.Result);
}

IN_FRONT_OF_LIBRARY int ioperm(unsigned long From, unsigned long Count, int TurnOn) noexcept
{
    if (gs_Board == nullptr) {
        return static_cast<int>(syscall(SYS_ioperm, From, Count, TurnOn));
    }
    sigset_t Former;
    EnterBoard(&Former);
    BOARD_ACCESS What = {};
    What.Kind = BOARD_IOPERM;
    What.Port = static_cast<uint32_t>(From);
    What.Count = static_cast<uint32_t>(Count);
    What.Value = TurnOn != 0 ? 1 : 0;
    What.Result = ChangeGranted(From, Count, TurnOn != 0);
    BoardRecord(gs_Board, &What, "%s %lu ports from 0x%02lX%s",
                TurnOn != 0 ? "rights for" : "no rights for", Count, From,
                OutcomeWords(What.Result));
    LeaveBoard(&Former);
    if (What.Result == 0 && TurnOn != 0) {
        InstallHandler();
    }
    return Finish(What.Result);
}

/*
 * Written to the trace before it is sent: the signal may end this very process. Held locked until
 * the result is in, so that the answer of the other process comes after it in the trace.
 */
IN_FRONT_OF_LIBRARY int kill(pid_t Process, int Signal) noexcept
{
    if (gs_Board == nullptr) {
        return static_cast<int>(syscall(SYS_kill, Process, Signal));
    }
    sigset_t Former;
    EnterBoard(&Former);
    BOARD_ACCESS What = {};
    What.Kind = BOARD_SIGNAL;
    What.Port = static_cast<uint32_t>(Signal);
    What.Value = static_cast<uint32_t>(Process);
    BOARD_ACCESS *Entry = BoardRecord(gs_Board, &What, "%s", SignalWords(Signal));
    const int Result = syscall(SYS_kill, Process, Signal) == 0 ? 0 : -errno;
    if (Entry != nullptr) {
        Entry->Result = Result;
    }
    LeaveBoard(&Former);
    return Finish(Result);
}

struct THREAD_START {
    void *(*Function)(void *);
    void *Argument;
    PORT_RIGHTS Rights;
};

static void *StartWithRights(void *Given)
{
    THREAD_START *Start = static_cast<THREAD_START *>(Given);
    void *(*const Function)(void *) = Start->Function;
    void *Argument = Start->Argument;
    gs_Rights = Start->Rights;
    free(Start);
    return Function(Argument);
}

/* A forked child has the rights with the rest of the thread's memory; a new thread is given them.
 */
IN_FRONT_OF_LIBRARY int pthread_create(pthread_t *Thread, const pthread_attr_t *Attributes,
                                       void *(*Function)(void *), void *Argument) noexcept
{
    const auto Create =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    if (!HasRights()) {
        return Create(Thread, Attributes, Function, Argument);
    }
    THREAD_START *Start = static_cast<THREAD_START *>(malloc(sizeof(THREAD_START)));
    if (Start == nullptr) {
        return EAGAIN;
    }
    Start->Function = Function;
    Start->Argument = Argument;
    Start->Rights = gs_Rights;
    const int Result = Create(Thread, Attributes, StartWithRights, Start);
    if (Result != 0) {
        free(Start);
    }
    return Result;
}

/* Start-up */

static const char *FileNameOf(const char *Path)
{
    const char *Slash = strrchr(Path, '/');
    return Slash != nullptr ? Slash + 1 : Path;
}

/*
 * Takes this object out of LD_PRELOAD, so that the programs this one starts run without it. Edited
 * where it stands: the environment is ours, and start-up is to allocate nothing.
 */
static void LeavePreload()
{
    char *List = getenv("LD_PRELOAD");
    Dl_info Self;
    if (List == nullptr || dladdr(&gs_Board, &Self) == 0 || Self.dli_fname == nullptr) {
        return;
    }
    const char *Name = FileNameOf(Self.dli_fname);
    const size_t NameLength = strlen(Name);
    char *Kept = List;
    for (char *Item = List; *Item != '\0';) {
        const size_t Length = strcspn(Item, ": ");
        const size_t Whole = Length + (Item[Length] != '\0' ? 1 : 0);
        const bool EndsInName = Length >= NameLength &&
                                memcmp(Item + Length - NameLength, Name, NameLength) == 0 &&
                                (Length == NameLength || Item[Length - NameLength - 1] == '/');
        if (!EndsInName) {
            memmove(Kept, Item, Whole);
            Kept += Whole;
        }
        Item += Whole;
    }
    *Kept = '\0';
    if (List[0] == '\0') {
        unsetenv("LD_PRELOAD");
    }
}

__attribute__((constructor)) static void AttachAtStart()
{
    const char *Path = getenv("RTC_BOARD");
    if (Path == nullptr || Path[0] == '\0') {
        return;
    }
    LeavePreload();
    const int Result = BoardAttach(Path);
    if (Result != 0) {
        dprintf(STDERR_FILENO, "board: %s: %s\n", Path,
                Result == -EINVAL ? "not a board file" : strerror(-Result));
        _exit(NoBoardStatus);
    }
}
