#include "boardModel.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static constexpr uint64_t BoardMagic = 0x3144524f42435452;

static constexpr uint16_t IndexPort = 0x2E;
static constexpr uint16_t DataPort = 0x2F;
static constexpr uint16_t PausePort = 0x80;

static constexpr uint8_t ExitByte = 0xAA;
static constexpr uint8_t DeviceSelectRegister = 0x07;
static constexpr uint8_t ActivationRegister = 0x30;
static constexpr uint8_t GlobalDevice = 0xFF;
static constexpr uint8_t NoRegister = 0x00;

static constexpr uint8_t MonitorBankRegister = 0x4E;

static constexpr uint8_t CoilDevice = 0x08;
static constexpr uint8_t CoilDirection = 0xE0;
static constexpr uint8_t CoilData = 0xE1;
static constexpr uint8_t CoilGroupEnable = 0x02;
static constexpr uint8_t CoilSideLine = 0x02;
static constexpr uint8_t CoilPowerLine = 0x04;
static constexpr unsigned CoilPulseMilliSeconds = 1000;

static constexpr uint32_t TimeOutResets = 0x40;

enum CHIP_NUMBER : uint32_t { CHIP_NONE, CHIP_NCT6791D, CHIP_HUIER, CHIP_W83627 };

/* The chips answer to the same two ports but differ in how they are opened and closed. */
struct CHIP_ROW {
    const char *Name;
    uint8_t KeyLength;
    uint8_t Key[4];
    bool ExitByIndex;
    uint8_t ExitRegister;
    uint8_t ExitValue;
    uint8_t WatchdogDevice;
    uint8_t CounterLow;
    uint8_t CounterHigh;
    uint8_t Status;
    uint8_t StatusExpired;
    bool CountsOnlyActivated;
    uint8_t MonitorDevice;
};

static constexpr CHIP_ROW gs_Chips[] = {
    {"no chip", 0, {}, false, 0, 0, 0, 0, 0, 0, 0, false, 0},
    {"NCT6791D", 2, {0x87, 0x87}, true, 0, 0, 0x08, 0xF6, 0, 0xF7, 0x10, true, 0x0B},
    {"Huier chip",
     4,
     {0x87, 0x01, 0x55, 0x55},
     false,
     0x02,
     0x02,
     0x07,
     0x73,
     0x74,
     0,
     0,
     false,
     0},
    {"W83627", 2, {0x87, 0x87}, true, 0, 0, 0x08, 0xF6, 0, 0xF7, 0x10, true, 0},
};

/* A register somebody has words for, or that firmware leaves at something other than zero. */
struct REGISTER_ROW {
    CHIP_NUMBER Chip;
    uint8_t Device;
    uint8_t Register;
    uint8_t StartValue;
    const char *Name;
};

static constexpr REGISTER_ROW gs_Registers[] = {
    {CHIP_NCT6791D, GlobalDevice, 0x1C, 0x10, "pin functions"},
    {CHIP_NCT6791D, GlobalDevice, 0x20, 0xC8, "chip identity, high"},
    {CHIP_NCT6791D, GlobalDevice, 0x21, 0x03, "chip identity, low"},
    {CHIP_NCT6791D, 0x0B, 0x30, 0x00, "hardware monitor activation"},
    {CHIP_NCT6791D, 0x0B, 0x60, 0x02, "hardware monitor base, high"},
    {CHIP_NCT6791D, 0x0B, 0x61, 0x90, "hardware monitor base, low"},
    {CHIP_NCT6791D, 0x08, 0x30, 0x01, "activation"},
    {CHIP_NCT6791D, 0x08, 0xE0, 0xF9, "relay line directions"},
    {CHIP_NCT6791D, 0x08, 0xE1, 0xA2, "relay lines"},
    {CHIP_NCT6791D, 0x08, 0xE4, 0xFF, "line functions"},
    {CHIP_NCT6791D, 0x08, 0xF5, 0x00, "watchdog mode"},
    {CHIP_NCT6791D, 0x08, 0xF6, 0x00, "watchdog counter"},
    {CHIP_NCT6791D, 0x08, 0xF7, 0x10, "watchdog status"},
    {CHIP_NCT6791D, 0x0F, 0xE9, 0xFF, "line output type"},
    {CHIP_HUIER, GlobalDevice, 0x02, 0x00, "configuration control"},
    {CHIP_HUIER, 0x07, 0x71, 0x00, "watchdog control"},
    {CHIP_HUIER, 0x07, 0x72, 0x00, "watchdog mode"},
    {CHIP_HUIER, 0x07, 0x73, 0x00, "watchdog counter, low"},
    {CHIP_HUIER, 0x07, 0x74, 0x00, "watchdog counter, high"},
    {CHIP_W83627, GlobalDevice, 0x2D, 0x21, "pin functions"},
    {CHIP_W83627, 0x08, 0x30, 0x00, "activation"},
    {CHIP_W83627, 0x08, 0xF5, 0x0C, "watchdog mode"},
    {CHIP_W83627, 0x08, 0xF6, 0x00, "watchdog counter"},
    {CHIP_W83627, 0x08, 0xF7, 0x10, "watchdog status"},
};

struct PORT_ROW {
    uint16_t Port;
    uint8_t Width;
    uint32_t StartValue;
    const char *Name;
};

static constexpr PORT_ROW gs_B1904Ports[] = {
    {0x0A07, 1, 0x3C, "relay lines"},
};

static constexpr PORT_ROW gs_Iec810Ports[] = {
    {0x0533, 1, 0x41, "line A use"},       {0x0537, 1, 0x82, "line A direction"},
    {0x053B, 1, 0x42, "line A level"},     {0x0541, 1, 0x10, "line B use"},
    {0x0545, 1, 0x30, "line B direction"}, {0x0549, 1, 0x09, "line B level"},
};

static constexpr PORT_ROW gs_CarlowPorts[] = {
    {0x0500, 4, 0x10108046, "bank 1 use"},       {0x0504, 4, 0xE0000000, "bank 1 direction"},
    {0x050C, 4, 0x00100045, "bank 1 level"},     {0x0530, 4, 0x00F10004, "bank 2 use"},
    {0x0534, 4, 0x08000000, "bank 2 direction"}, {0x0538, 4, 0x00400000, "bank 2 level"},
    {0x0540, 4, 0x00000180, "bank 3 use"},       {0x0544, 4, 0x00000000, "bank 3 direction"},
    {0x0548, 4, 0x00000100, "bank 3 level"},
};

static BOARD_RELAY LatchedRelay(const BOARD_STATE *State, unsigned Pair);
static BOARD_RELAY B1904Relay(const BOARD_STATE *State, unsigned Pair);
static BOARD_RELAY Iec810Relay(const BOARD_STATE *State, unsigned Pair);
static BOARD_RELAY CarlowRelay(const BOARD_STATE *State, unsigned Pair);
static BOARD_RELAY CarlowWhenOff(const BOARD_STATE *State, unsigned Pair);

typedef BOARD_RELAY (*RELAY_FUNCTION)(const BOARD_STATE *State, unsigned Pair);

struct BOARD_ROW {
    const char *ProductName;
    const char *DisplayName;
    CHIP_NUMBER Chip;
    unsigned RelayCount;
    RELAY_FUNCTION Relay;
    RELAY_FUNCTION WhenOff;
    const PORT_ROW *Ports;
    unsigned PortCount;
    bool HasCoil;
    bool RoutesTimeOut;
};

/* The first row stands for every product that is not one of the others. */
static constexpr BOARD_ROW gs_Boards[] = {
    {"", "unknown board", CHIP_NONE, 0, nullptr, nullptr, nullptr, 0, false, false},
    {"Aptio CRB", "QiYang-J1900", CHIP_NCT6791D, 1, LatchedRelay, nullptr, nullptr, 0, true, false},
    {"B1904", "Huier-J1900", CHIP_HUIER, 1, B1904Relay, nullptr, gs_B1904Ports, 1, false, false},
    {"IEC-810N4SC", "Huier-H61", CHIP_HUIER, 1, Iec810Relay, nullptr, gs_Iec810Ports, 6, false,
     false},
    {"CARLOW", "LiHua-8865", CHIP_W83627, 3, CarlowRelay, CarlowWhenOff, gs_CarlowPorts, 9, false,
     true},
    {"MB-8895", "LiHua-8895", CHIP_NONE, 0, nullptr, nullptr, nullptr, 0, false, false},
};

static constexpr unsigned BoardNumberCount = sizeof(gs_Boards) / sizeof(gs_Boards[0]);

/* What one access brings about, gathered so that the trace shows the access before its effects. */
struct ACCESS_WORK {
    BOARD_STATE *State;
    int64_t Now;
    char Note[BoardNoteSize];
    char Fault[BoardNoteSize];
    char Event[BoardNoteSize];
};

static const BOARD_ROW *BoardOf(const BOARD_STATE *State)
{
    return &gs_Boards[State->BoardNumber < BoardNumberCount ? State->BoardNumber : 0];
}

static const CHIP_ROW *ChipOf(const BOARD_STATE *State)
{
    return &gs_Chips[BoardOf(State)->Chip];
}

/* Time */

static int64_t HostMilliSeconds()
{
    timespec Time;
    clock_gettime(CLOCK_MONOTONIC, &Time);
    return static_cast<int64_t>(Time.tv_sec) * 1000 + Time.tv_nsec / 1000000;
}

int64_t BoardMilliSeconds(const BOARD_STATE *State)
{
    return HostMilliSeconds() - State->CreatedMilliSeconds + State->OffsetMilliSeconds;
}

/* Trace */

static void SetProcess(BOARD_ACCESS *Entry, int32_t Pid, const char *Name)
{
    Entry->Pid = Pid;
    snprintf(Entry->Process, sizeof(Entry->Process), "%.15s", Name);
}

BOARD_ACCESS *BoardRecord(BOARD_STATE *State, const BOARD_ACCESS *What, const char *Note, ...)
{
    if (What->Kind == BOARD_FAULT) {
        State->FaultCount++;
    }
    State->LastSequence++;
    if (State->TraceCount >= BoardTraceSize) {
        State->TraceDropped++;
        return nullptr;
    }
    BOARD_ACCESS *Entry = &State->Trace[State->TraceCount];
    *Entry = *What;
    Entry->Sequence = State->LastSequence;
    Entry->MilliSeconds = BoardMilliSeconds(State);
    SetProcess(Entry, getpid(), program_invocation_short_name);
    va_list Arguments;
    va_start(Arguments, Note);
    vsnprintf(Entry->Note, sizeof(Entry->Note), Note, Arguments);
    va_end(Arguments);
    /* Last: a reader without the lock, or after an owner that was killed, meets whole entries. */
    __atomic_store_n(&State->TraceCount, State->TraceCount + 1, __ATOMIC_RELEASE);
    return Entry;
}

static void RecordWords(BOARD_STATE *State, BOARD_ACCESS_KIND Kind, const char *Words)
{
    if (Words[0] == '\0') {
        return;
    }
    BOARD_ACCESS What = {};
    What.Kind = Kind;
    BoardRecord(State, &What, "%s", Words);
}

void BoardClearTrace(BOARD_STATE *State)
{
    State->TraceCount = 0;
    State->TraceDropped = 0;
    State->FaultCount = 0;
}

/* Ports of the board itself */

static const PORT_ROW *PortOf(const BOARD_STATE *State, uint32_t Port)
{
    const BOARD_ROW *Board = BoardOf(State);
    for (unsigned Number = 0; Number < Board->PortCount; Number++) {
        const PORT_ROW *Row = &Board->Ports[Number];
        if (Port >= Row->Port && Port < static_cast<uint32_t>(Row->Port) + Row->Width) {
            return Row;
        }
    }
    return nullptr;
}

static uint32_t PortValue(const BOARD_STATE *State, uint16_t Port, unsigned Width)
{
    uint32_t Value = 0;
    for (unsigned Byte = 0; Byte < Width; Byte++) {
        Value |= static_cast<uint32_t>(State->Ports[Port + Byte]) << (8 * Byte);
    }
    return Value;
}

static bool PortBit(const BOARD_STATE *State, uint16_t Port, uint32_t Mask)
{
    return (PortValue(State, Port, 4) & Mask) != 0;
}

/* Relays */

static BOARD_RELAY LatchedRelay(const BOARD_STATE *State, unsigned)
{
    return State->Coil.Latched;
}

static BOARD_RELAY FromLines(bool FirstHigh, bool SecondHigh)
{
    if (FirstHigh != SecondHigh) {
        return RELAY_UNDEFINED;
    }
    return FirstHigh ? RELAY_NO_BYPASS : RELAY_BYPASS;
}

static BOARD_RELAY B1904Relay(const BOARD_STATE *State, unsigned)
{
    const uint8_t Lines = State->Ports[0x0A07];
    return FromLines((Lines & 0x10) != 0, (Lines & 0x20) != 0);
}

/* A line that is not switched to general use, or is an input, is pulled high by the board. */
static bool Iec810Line(const BOARD_STATE *State, uint16_t UsePort, uint16_t DirectionPort,
                       uint16_t LevelPort, uint8_t Bit)
{
    if ((State->Ports[UsePort] & Bit) == 0 || (State->Ports[DirectionPort] & Bit) != 0) {
        return true;
    }
    return (State->Ports[LevelPort] & Bit) != 0;
}

static BOARD_RELAY Iec810Relay(const BOARD_STATE *State, unsigned)
{
    return FromLines(Iec810Line(State, 0x0533, 0x0537, 0x053B, 0x02),
                     Iec810Line(State, 0x0541, 0x0545, 0x0549, 0x01));
}

struct PAIR_LINES {
    uint16_t RuntimePort;
    uint32_t RuntimeBit;
    uint16_t ArmedPort;
    uint32_t ArmedBit;
    uint16_t DisarmedPort;
    uint32_t DisarmedBit;
};

static constexpr PAIR_LINES gs_CarlowPairs[] = {
    {0x050C, 0x00000002, 0x0538, 0x00200000, 0x050C, 0x00100000},
    {0x0538, 0x00000004, 0x0538, 0x00800000, 0x050C, 0x00000004},
    {0x0548, 0x00000080, 0x0538, 0x00100000, 0x0538, 0x00400000},
};

static BOARD_RELAY CarlowRelay(const BOARD_STATE *State, unsigned Pair)
{
    const PAIR_LINES *Lines = &gs_CarlowPairs[Pair - 1];
    return PortBit(State, Lines->RuntimePort, Lines->RuntimeBit) ? RELAY_BYPASS : RELAY_NO_BYPASS;
}

static BOARD_RELAY CarlowWhenOff(const BOARD_STATE *State, unsigned Pair)
{
    const PAIR_LINES *Lines = &gs_CarlowPairs[Pair - 1];
    const bool Armed = PortBit(State, Lines->ArmedPort, Lines->ArmedBit);
    const bool Disarmed = PortBit(State, Lines->DisarmedPort, Lines->DisarmedBit);
    if (Armed == Disarmed) {
        return RELAY_UNDEFINED;
    }
    return Armed ? RELAY_BYPASS : RELAY_NO_BYPASS;
}

static bool TimeOutPending(const BOARD_STATE *State)
{
    return State->Watchdog.Deadline != 0 && BoardMilliSeconds(State) >= State->Watchdog.Deadline;
}

static bool TimeOutThrowsRelays(const BOARD_STATE *State)
{
    return !BoardOf(State)->RoutesTimeOut || !PortBit(State, 0x050C, TimeOutResets);
}

static bool RelaysThrown(const BOARD_STATE *State)
{
    if (State->Watchdog.Expired != 0) {
        return State->Watchdog.ThrowsRelays != 0;
    }
    return TimeOutPending(State) && TimeOutThrowsRelays(State);
}

unsigned BoardRelayCount(const BOARD_STATE *State)
{
    return BoardOf(State)->RelayCount;
}

BOARD_RELAY BoardRelay(const BOARD_STATE *State, unsigned Pair)
{
    if (Pair < 1 || Pair > BoardRelayCount(State)) {
        return RELAY_UNDEFINED;
    }
    return RelaysThrown(State) ? RELAY_BYPASS : BoardOf(State)->Relay(State, Pair);
}

bool BoardHasWhenOff(const BOARD_STATE *State)
{
    return BoardOf(State)->WhenOff != nullptr;
}

BOARD_RELAY BoardRelayWhenOff(const BOARD_STATE *State, unsigned Pair)
{
    if (!BoardHasWhenOff(State) || Pair < 1 || Pair > BoardRelayCount(State)) {
        return RELAY_UNDEFINED;
    }
    return BoardOf(State)->WhenOff(State, Pair);
}

static void PairWords(const BOARD_STATE *State, unsigned Pair, char *Words, size_t WordsSize)
{
    if (BoardRelayCount(State) == 1) {
        snprintf(Words, WordsSize, "relay");
        return;
    }
    snprintf(Words, WordsSize, "relay of pair %u", Pair);
}

/* Writes the entry in the name of the board: At is when it happened, not when it was noticed. */
static void RecordBoardEvent(BOARD_STATE *State, const char *Words, int64_t At)
{
    BOARD_ACCESS What = {};
    What.Kind = BOARD_EVENT;
    BOARD_ACCESS *Entry = BoardRecord(State, &What, "%s", Words);
    if (Entry == nullptr || At < 0) {
        return;
    }
    Entry->MilliSeconds = At;
    SetProcess(Entry, 0, "board");
}

static void RecordRelay(BOARD_STATE *State, unsigned Pair, int64_t At)
{
    static const char *const Outcomes[] = {"moved: no bypass", "moved: bypass",
                                           "undefined: its lines disagree"};
    const BOARD_RELAY Relay = BoardRelay(State, Pair);
    if (Relay == State->LastRelay[Pair - 1]) {
        return;
    }
    State->LastRelay[Pair - 1] = Relay;
    char Name[24];
    char Words[BoardNoteSize];
    PairWords(State, Pair, Name, sizeof(Name));
    snprintf(Words, sizeof(Words), "%s %s", Name, Outcomes[Relay]);
    RecordBoardEvent(State, Words, At);
}

static void RecordWhenOff(BOARD_STATE *State, unsigned Pair)
{
    static const char *const Outcomes[] = {"bypass disarmed", "bypass armed",
                                           "undefined, its lines disagree"};
    const BOARD_RELAY WhenOff = BoardRelayWhenOff(State, Pair);
    if (WhenOff == State->LastWhenOff[Pair - 1]) {
        return;
    }
    State->LastWhenOff[Pair - 1] = WhenOff;
    char Words[BoardNoteSize];
    snprintf(Words, sizeof(Words), "pair %u when off: %s", Pair, Outcomes[WhenOff]);
    RecordBoardEvent(State, Words, -1);
}

/* At is -1 for changes that an access of this process has just made. */
static void RecordChanges(BOARD_STATE *State, int64_t At)
{
    for (unsigned Pair = 1; Pair <= BoardRelayCount(State); Pair++) {
        RecordRelay(State, Pair, At);
        RecordWhenOff(State, Pair);
    }
}

/* The coil needs its full pulse to swing the armature; the side is the one it was powered with. */
static void EndPulse(ACCESS_WORK *Work, uint8_t DataBefore, bool StillDriven)
{
    BOARD_COIL *Coil = &Work->State->Coil;
    const unsigned Length = static_cast<unsigned>(Work->Now - Coil->PulseStart);
    Coil->PulseStart = -1;
    if (!StillDriven) {
        snprintf(Work->Fault, sizeof(Work->Fault),
                 "relay line stopped being an output, the relay did not move");
        return;
    }
    if (Length < CoilPulseMilliSeconds) {
        snprintf(Work->Fault, sizeof(Work->Fault),
                 "relay pulse of %u ms is too short, the relay did not move", Length);
        return;
    }
    const bool NoBypass = (DataBefore & CoilSideLine) != 0;
    Coil->Latched = NoBypass ? RELAY_NO_BYPASS : RELAY_BYPASS;
    snprintf(Work->Event, sizeof(Work->Event), "relay pulse of %u ms towards %s", Length,
             NoBypass ? "no bypass" : "bypass");
}

static void FollowCoil(ACCESS_WORK *Work, uint8_t DataBefore)
{
    const uint8_t *Registers = Work->State->SuperIo.Device[CoilDevice];
    const uint8_t Data = Registers[CoilData];
    const uint8_t Inputs = Registers[CoilDirection] & (CoilSideLine | CoilPowerLine);
    const bool Driven = (Registers[ActivationRegister] & CoilGroupEnable) != 0 && Inputs == 0;
    const bool Rises = (DataBefore & CoilPowerLine) == 0 && (Data & CoilPowerLine) != 0;
    if (Rises && !Driven) {
        snprintf(Work->Fault, sizeof(Work->Fault), "relay line is not an output");
        return;
    }
    BOARD_COIL *Coil = &Work->State->Coil;
    const bool Energised = Driven && (Data & CoilPowerLine) != 0;
    if (Energised && Coil->PulseStart < 0) {
        Coil->PulseStart = Work->Now;
    }
    if (!Energised && Coil->PulseStart >= 0) {
        EndPulse(Work, DataBefore, Driven);
    }
}

/* Watchdog */

static bool WatchdogActivated(const BOARD_STATE *State)
{
    const CHIP_ROW *Chip = ChipOf(State);
    if (!Chip->CountsOnlyActivated) {
        return true;
    }
    return (State->SuperIo.Device[Chip->WatchdogDevice][ActivationRegister] & 0x01) != 0;
}

static int64_t WatchdogMilliSeconds(const BOARD_STATE *State)
{
    const BOARD_WATCHDOG *Watchdog = &State->Watchdog;
    if (Watchdog->Deadline == 0) {
        return Watchdog->Held;
    }
    const int64_t Left = Watchdog->Deadline - BoardMilliSeconds(State);
    return Left > 0 ? Left : 0;
}

static uint32_t WholeSeconds(int64_t MilliSeconds)
{
    return static_cast<uint32_t>((MilliSeconds + 999) / 1000);
}

static void ReloadWatchdog(ACCESS_WORK *Work)
{
    BOARD_STATE *State = Work->State;
    const CHIP_ROW *Chip = ChipOf(State);
    const uint8_t *Registers = State->SuperIo.Device[Chip->WatchdogDevice];
    uint32_t Seconds = Registers[Chip->CounterLow];
    if (Chip->CounterHigh != NoRegister) {
        Seconds |= static_cast<uint32_t>(Registers[Chip->CounterHigh]) << 8;
    }
    State->Watchdog = {};
    if (Seconds == 0) {
        return;
    }
    const int64_t Length = static_cast<int64_t>(Seconds) * 1000;
    if (WatchdogActivated(State)) {
        State->Watchdog.Deadline = Work->Now + Length;
        return;
    }
    State->Watchdog.Held = Length;
}

static void HoldOrResumeWatchdog(ACCESS_WORK *Work)
{
    BOARD_WATCHDOG *Watchdog = &Work->State->Watchdog;
    const bool Activated = WatchdogActivated(Work->State);
    if (Activated && Watchdog->Held != 0) {
        Watchdog->Deadline = Work->Now + Watchdog->Held;
        Watchdog->Held = 0;
        return;
    }
    if (!Activated && Watchdog->Deadline != 0) {
        Watchdog->Held = Watchdog->Deadline - Work->Now;
        Watchdog->Deadline = 0;
    }
}

void BoardSettle(BOARD_STATE *State)
{
    if (!TimeOutPending(State)) {
        return;
    }
    const CHIP_ROW *Chip = ChipOf(State);
    const int64_t At = State->Watchdog.Deadline;
    const bool Throws = TimeOutThrowsRelays(State);
    State->Watchdog = {};
    State->Watchdog.Expired = 1;
    State->Watchdog.ThrowsRelays = Throws ? 1 : 0;
    if (Chip->Status != NoRegister) {
        uint8_t *Status = &State->SuperIo.Device[Chip->WatchdogDevice][Chip->Status];
        *Status = static_cast<uint8_t>(*Status | Chip->StatusExpired);
    }
    if (!Throws) {
        State->ResetCount++;
    }
    RecordBoardEvent(State, Throws ? "watchdog expired" : "watchdog expired: system reset", At);
    RecordChanges(State, At);
}

void BoardAdvance(BOARD_STATE *State, uint32_t Seconds)
{
    State->OffsetMilliSeconds += static_cast<int64_t>(Seconds) * 1000;
    BoardSettle(State);
}

uint32_t BoardWatchdogRemaining(const BOARD_STATE *State)
{
    return State->Watchdog.Deadline == 0 ? 0 : WholeSeconds(WatchdogMilliSeconds(State));
}

bool BoardWatchdogExpired(const BOARD_STATE *State)
{
    return State->Watchdog.Expired != 0 || TimeOutPending(State);
}

uint32_t BoardResetCount(const BOARD_STATE *State)
{
    const bool Pending = TimeOutPending(State) && !TimeOutThrowsRelays(State);
    return State->ResetCount + (Pending ? 1 : 0);
}

/* Super I/O chip */

static const char *RegisterName(const BOARD_STATE *State, uint8_t Device, uint8_t Register)
{
    for (const REGISTER_ROW &Row : gs_Registers) {
        if (Row.Chip == BoardOf(State)->Chip && Row.Device == Device && Row.Register == Register) {
            return Row.Name;
        }
    }
    return nullptr;
}

static void NoteRegister(ACCESS_WORK *Work, const char *Verb, uint8_t Value)
{
    const BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    const bool Global = SuperIo->Index < sizeof(SuperIo->Global);
    const uint8_t Device = Global ? GlobalDevice : SuperIo->Global[DeviceSelectRegister];
    const char *Name = RegisterName(Work->State, Device, SuperIo->Index);
    char Place[24] = "";
    if (!Global) {
        snprintf(Place, sizeof(Place), " of device 0x%02X", Device);
    }
    snprintf(Work->Note, sizeof(Work->Note), "register 0x%02X%s %s 0x%02X%s%s%s", SuperIo->Index,
             Place, Verb, Value, Name != nullptr ? " (" : "", Name != nullptr ? Name : "",
             Name != nullptr ? ")" : "");
}

static void FollowKey(ACCESS_WORK *Work, uint8_t Value)
{
    BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    const CHIP_ROW *Chip = ChipOf(Work->State);
    if (Value == Chip->Key[SuperIo->KeyProgress]) {
        SuperIo->KeyProgress++;
    } else {
        SuperIo->KeyProgress = Value == Chip->Key[0] ? 1 : 0;
    }
    if (SuperIo->KeyProgress == 0) {
        snprintf(Work->Note, sizeof(Work->Note), "no part of the configuration key, ignored");
        return;
    }
    const bool Complete = SuperIo->KeyProgress == Chip->KeyLength;
    snprintf(Work->Note, sizeof(Work->Note), "configuration key %u of %u%s", SuperIo->KeyProgress,
             Chip->KeyLength, Complete ? ": configuration mode entered" : "");
    if (Complete) {
        SuperIo->KeyProgress = 0;
        SuperIo->ConfigurationMode = 1;
    }
}

static void LeaveConfigurationMode(ACCESS_WORK *Work)
{
    Work->State->SuperIo.ConfigurationMode = 0;
    snprintf(Work->Note, sizeof(Work->Note), "configuration mode left");
}

static void WriteIndex(ACCESS_WORK *Work, uint8_t Value)
{
    BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    if (SuperIo->ConfigurationMode == 0) {
        FollowKey(Work, Value);
        return;
    }
    if (ChipOf(Work->State)->ExitByIndex && Value == ExitByte) {
        LeaveConfigurationMode(Work);
        return;
    }
    SuperIo->Index = Value;
    snprintf(Work->Note, sizeof(Work->Note), "select register 0x%02X", Value);
}

static void WriteDeviceRegister(ACCESS_WORK *Work, uint8_t Device, uint8_t Value)
{
    BOARD_STATE *State = Work->State;
    BOARD_SUPER_IO *SuperIo = &State->SuperIo;
    const CHIP_ROW *Chip = ChipOf(State);
    const uint8_t Register = SuperIo->Index;
    const uint8_t CoilBefore = SuperIo->Device[CoilDevice][CoilData];
    SuperIo->Device[Device][Register] = Value;
    if (Device == CoilDevice && BoardOf(State)->HasCoil) {
        FollowCoil(Work, CoilBefore);
    }
    if (Device != Chip->WatchdogDevice) {
        return;
    }
    if (Register == Chip->CounterLow || Register == Chip->CounterHigh) {
        ReloadWatchdog(Work);
    } else if (Register == ActivationRegister && Chip->CountsOnlyActivated) {
        HoldOrResumeWatchdog(Work);
    }
}

static void WriteGlobalRegister(ACCESS_WORK *Work, uint8_t Value)
{
    BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    const CHIP_ROW *Chip = ChipOf(Work->State);
    if (Chip->ExitRegister == SuperIo->Index && !Chip->ExitByIndex && Value == Chip->ExitValue) {
        LeaveConfigurationMode(Work);
        return;
    }
    SuperIo->Global[SuperIo->Index] = Value;
    if (SuperIo->Index == DeviceSelectRegister) {
        snprintf(Work->Note, sizeof(Work->Note), "logical device := 0x%02X", Value);
    }
}

static void WriteData(ACCESS_WORK *Work, uint8_t Value)
{
    BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    if (SuperIo->ConfigurationMode == 0) {
        snprintf(Work->Fault, sizeof(Work->Fault), "register written outside configuration mode");
        return;
    }
    NoteRegister(Work, ":=", Value);
    if (SuperIo->Index < sizeof(SuperIo->Global)) {
        WriteGlobalRegister(Work, Value);
        return;
    }
    const uint8_t Device = SuperIo->Global[DeviceSelectRegister];
    if (Device < sizeof(SuperIo->Device) / sizeof(SuperIo->Device[0])) {
        WriteDeviceRegister(Work, Device, Value);
    }
}

static uint8_t DeviceRegister(const BOARD_STATE *State, uint8_t Device, uint8_t Register)
{
    const BOARD_SUPER_IO *SuperIo = &State->SuperIo;
    const CHIP_ROW *Chip = ChipOf(State);
    if (Device >= sizeof(SuperIo->Device) / sizeof(SuperIo->Device[0])) {
        return 0xFF;
    }
    if (Device == Chip->WatchdogDevice) {
        const uint32_t Seconds = WholeSeconds(WatchdogMilliSeconds(State));
        if (Register == Chip->CounterLow) {
            return static_cast<uint8_t>(Seconds);
        }
        if (Register == Chip->CounterHigh) {
            return static_cast<uint8_t>(Seconds >> 8);
        }
    }
    return SuperIo->Device[Device][Register];
}

static uint8_t ReadData(ACCESS_WORK *Work)
{
    const BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    if (SuperIo->ConfigurationMode == 0) {
        snprintf(Work->Fault, sizeof(Work->Fault), "register read outside configuration mode");
        return 0xFF;
    }
    uint8_t Value = 0;
    if (SuperIo->Index < sizeof(SuperIo->Global)) {
        Value = SuperIo->Global[SuperIo->Index];
    } else {
        Value = DeviceRegister(Work->State, SuperIo->Global[DeviceSelectRegister], SuperIo->Index);
    }
    NoteRegister(Work, "is", Value);
    return Value;
}

/* Hardware monitor */

/* The block decodes wherever its base registers say, and only while it is activated. */
static uint32_t MonitorIndexPort(const BOARD_STATE *State)
{
    const uint8_t Device = ChipOf(State)->MonitorDevice;
    const uint8_t *Registers = State->SuperIo.Device[Device];
    if (Device == 0 || (Registers[ActivationRegister] & 0x01) == 0) {
        return UINT32_MAX;
    }
    return ((static_cast<uint32_t>(Registers[0x60]) << 8) | Registers[0x61]) + 5;
}

static uint8_t *MonitorRegister(BOARD_SUPER_IO *SuperIo)
{
    if (SuperIo->MonitorIndex == MonitorBankRegister) {
        return &SuperIo->MonitorBank;
    }
    return &SuperIo->Monitor[SuperIo->MonitorBank & 0x07][SuperIo->MonitorIndex];
}

static void NoteMonitor(ACCESS_WORK *Work, const char *Verb, uint8_t Value)
{
    const BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    snprintf(Work->Note, sizeof(Work->Note), "hardware monitor bank %u register 0x%02X %s 0x%02X%s",
             SuperIo->MonitorBank & 0x07U, SuperIo->MonitorIndex, Verb, Value,
             SuperIo->MonitorIndex == MonitorBankRegister ? " (bank select)" : "");
}

static void WriteMonitor(ACCESS_WORK *Work, bool Index, uint8_t Value)
{
    BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    if (Index) {
        SuperIo->MonitorIndex = Value;
        snprintf(Work->Note, sizeof(Work->Note), "hardware monitor: select register 0x%02X", Value);
        return;
    }
    NoteMonitor(Work, ":=", Value);
    *MonitorRegister(SuperIo) = Value;
}

static uint8_t ReadMonitor(ACCESS_WORK *Work, bool Index)
{
    BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    if (Index) {
        return SuperIo->MonitorIndex;
    }
    const uint8_t Value = *MonitorRegister(SuperIo);
    NoteMonitor(Work, "is", Value);
    return Value;
}

/* Accesses */

enum PORT_OWNER { OWNER_NONE, OWNER_PAUSE, OWNER_INDEX, OWNER_DATA, OWNER_MONITOR, OWNER_BOARD };

static PORT_OWNER OwnerOf(const BOARD_STATE *State, uint32_t Port)
{
    if (Port == PausePort) {
        return OWNER_PAUSE;
    }
    if (State->EmptyBus != 0) {
        return OWNER_NONE;
    }
    if (BoardOf(State)->Chip != CHIP_NONE && (Port == IndexPort || Port == DataPort)) {
        return Port == IndexPort ? OWNER_INDEX : OWNER_DATA;
    }
    const uint32_t Monitor = MonitorIndexPort(State);
    if (Monitor != UINT32_MAX && (Port == Monitor || Port == Monitor + 1)) {
        return OWNER_MONITOR;
    }
    return PortOf(State, Port) != nullptr ? OWNER_BOARD : OWNER_NONE;
}

static void WriteByte(ACCESS_WORK *Work, uint32_t Port, uint8_t Value)
{
    switch (OwnerOf(Work->State, Port)) {
    case OWNER_INDEX:
        WriteIndex(Work, Value);
        return;
    case OWNER_DATA:
        WriteData(Work, Value);
        return;
    case OWNER_MONITOR:
        WriteMonitor(Work, Port == MonitorIndexPort(Work->State), Value);
        return;
    case OWNER_BOARD:
        Work->State->Ports[Port] = Value;
        return;
    case OWNER_PAUSE:
    case OWNER_NONE:
        return;
    }
}

static uint8_t ReadByte(ACCESS_WORK *Work, uint32_t Port)
{
    const BOARD_SUPER_IO *SuperIo = &Work->State->SuperIo;
    switch (OwnerOf(Work->State, Port)) {
    case OWNER_INDEX:
        return SuperIo->ConfigurationMode != 0 ? SuperIo->Index : 0xFF;
    case OWNER_DATA:
        return ReadData(Work);
    case OWNER_MONITOR:
        return ReadMonitor(Work, Port == MonitorIndexPort(Work->State));
    case OWNER_BOARD:
        return Work->State->Ports[Port];
    case OWNER_PAUSE:
    case OWNER_NONE:
        break;
    }
    return 0xFF;
}

/* The words for a port as a whole; the chip finds its own, register by register. */
static void NotePort(ACCESS_WORK *Work, uint16_t Port)
{
    const BOARD_STATE *State = Work->State;
    const PORT_OWNER Owner = OwnerOf(State, Port);
    if (Owner == OWNER_PAUSE) {
        snprintf(Work->Note, sizeof(Work->Note), "pause");
    } else if (Owner == OWNER_NONE) {
        snprintf(Work->Note, sizeof(Work->Note), "%s",
                 State->EmptyBus != 0 ? "empty bus" : "nothing at this port");
    } else if (Owner == OWNER_BOARD) {
        snprintf(Work->Note, sizeof(Work->Note), "%s", PortOf(State, Port)->Name);
    }
}

static void NoteFormerValue(ACCESS_WORK *Work, uint16_t Port, uint32_t Former)
{
    if (OwnerOf(Work->State, Port) != OWNER_BOARD) {
        return;
    }
    const PORT_ROW *Row = PortOf(Work->State, Port);
    const uint32_t Value = PortValue(Work->State, Row->Port, Row->Width);
    if (Value == Former) {
        snprintf(Work->Note, sizeof(Work->Note), "%s unchanged", Row->Name);
        return;
    }
    const int Digits = Row->Width * 2;
    snprintf(Work->Note, sizeof(Work->Note), "%s: 0x%0*X was 0x%0*X", Row->Name, Digits, Value,
             Digits, Former);
}

/* Halved, the widths 1, 2 and 4 number the columns. */
static BOARD_ACCESS_KIND KindOf(bool Out, unsigned Width)
{
    static const BOARD_ACCESS_KIND Kinds[2][3] = {{BOARD_IN8, BOARD_IN16, BOARD_IN32},
                                                  {BOARD_OUT8, BOARD_OUT16, BOARD_OUT32}};
    return Kinds[Out ? 1 : 0][Width / 2];
}

static void RecordAccess(ACCESS_WORK *Work, BOARD_ACCESS_KIND Kind, uint16_t Port, unsigned Width,
                         uint32_t Value)
{
    BOARD_ACCESS What = {};
    What.Kind = Kind;
    What.Port = Port;
    What.Count = Width;
    What.Value = Value;
    BoardRecord(Work->State, &What, "%s", Work->Note);
    RecordWords(Work->State, BOARD_FAULT, Work->Fault);
    RecordWords(Work->State, BOARD_EVENT, Work->Event);
    RecordChanges(Work->State, -1);
}

static void BeginAccess(ACCESS_WORK *Work, BOARD_STATE *State, uint16_t Port)
{
    BoardSettle(State);
    Work->State = State;
    Work->Now = BoardMilliSeconds(State);
    Work->Note[0] = '\0';
    Work->Fault[0] = '\0';
    Work->Event[0] = '\0';
    NotePort(Work, Port);
}

uint32_t BoardRead(BOARD_STATE *State, uint16_t Port, unsigned Width)
{
    ACCESS_WORK Work;
    BeginAccess(&Work, State, Port);
    uint32_t Value = 0;
    for (unsigned Byte = 0; Byte < Width; Byte++) {
        Value |= static_cast<uint32_t>(ReadByte(&Work, Port + Byte)) << (8 * Byte);
    }
    RecordAccess(&Work, KindOf(false, Width), Port, Width, Value);
    return Value;
}

void BoardWrite(BOARD_STATE *State, uint16_t Port, unsigned Width, uint32_t Value)
{
    ACCESS_WORK Work;
    BeginAccess(&Work, State, Port);
    const PORT_ROW *Row = PortOf(State, Port);
    const uint32_t Former = Row != nullptr ? PortValue(State, Row->Port, Row->Width) : 0;
    for (unsigned Byte = 0; Byte < Width; Byte++) {
        WriteByte(&Work, Port + Byte, static_cast<uint8_t>(Value >> (8 * Byte)));
    }
    NoteFormerValue(&Work, Port, Former);
    RecordAccess(&Work, KindOf(true, Width), Port, Width, Value);
}

/* Creation */

static uint32_t FindBoard(const char *ProductName)
{
    for (uint32_t Number = 1; Number < BoardNumberCount; Number++) {
        if (strcmp(gs_Boards[Number].ProductName, ProductName) == 0) {
            return Number;
        }
    }
    return 0;
}

static void SetStartValues(BOARD_STATE *State)
{
    const BOARD_ROW *Board = BoardOf(State);
    for (const REGISTER_ROW &Row : gs_Registers) {
        if (Row.Chip != Board->Chip) {
            continue;
        }
        BOARD_SUPER_IO *SuperIo = &State->SuperIo;
        uint8_t *Bank = Row.Device == GlobalDevice ? SuperIo->Global : SuperIo->Device[Row.Device];
        Bank[Row.Register] = Row.StartValue;
    }
    for (unsigned Number = 0; Number < Board->PortCount; Number++) {
        const PORT_ROW *Row = &Board->Ports[Number];
        for (unsigned Byte = 0; Byte < Row->Width; Byte++) {
            State->Ports[Row->Port + Byte] = static_cast<uint8_t>(Row->StartValue >> (8 * Byte));
        }
    }
}

void BoardCreate(BOARD_STATE *State, const char *ProductName)
{
    /* What lies behind is never read before it is written, and would fill a sparse file. */
    memset(static_cast<void *>(State), 0, offsetof(BOARD_STATE, Ports));
    snprintf(State->ProductName, sizeof(State->ProductName), "%s", ProductName);
    State->BoardNumber = FindBoard(ProductName);
    State->StateSize = sizeof(BOARD_STATE);
    State->CreatedMilliSeconds = HostMilliSeconds();
    State->Coil.PulseStart = -1;
    State->Coil.Latched = RELAY_NO_BYPASS;
    SetStartValues(State);
    for (unsigned Pair = 1; Pair <= BoardPairsMax; Pair++) {
        State->LastRelay[Pair - 1] = BoardRelay(State, Pair);
        State->LastWhenOff[Pair - 1] = BoardRelayWhenOff(State, Pair);
    }
    /* Last, so that nobody takes a half-made board for a whole one. */
    __atomic_store_n(&State->Magic, BoardMagic, __ATOMIC_RELEASE);
}

const char *BoardDisplayName(const BOARD_STATE *State)
{
    return BoardOf(State)->DisplayName;
}

const char *BoardChipName(const BOARD_STATE *State)
{
    return ChipOf(State)->Name;
}

/* Files */

static BOARD_STATE *MapBoard(int Descriptor)
{
    void *Mapping =
        mmap(nullptr, sizeof(BOARD_STATE), PROT_READ | PROT_WRITE, MAP_SHARED, Descriptor, 0);
    return Mapping == MAP_FAILED ? nullptr : static_cast<BOARD_STATE *>(Mapping);
}

static bool MayReplace(const char *Path)
{
    struct stat Status;
    if (stat(Path, &Status) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISREG(Status.st_mode)) {
        return false;
    }
    uint64_t Magic = 0;
    const int Descriptor = open(Path, O_RDONLY | O_CLOEXEC);
    if (Descriptor < 0) {
        return false;
    }
    const ssize_t Length = read(Descriptor, &Magic, sizeof(Magic));
    close(Descriptor);
    return Length == 0 || Magic == BoardMagic;
}

static int FillNewFile(const char *Path, const char *ProductName)
{
    const int Descriptor = open(Path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (Descriptor < 0) {
        return -errno;
    }
    BOARD_STATE *State = nullptr;
    if (ftruncate(Descriptor, sizeof(BOARD_STATE)) == 0) {
        State = MapBoard(Descriptor);
    }
    const int Error = errno;
    close(Descriptor);
    if (State == nullptr) {
        return -Error;
    }
    BoardCreate(State, ProductName);
    BoardFileClose(State);
    return 0;
}

/*
 * The file is made beside its place and moved there: cutting short a file that somebody has mapped
 * would end that process at its next access.
 */
int BoardFileCreate(const char *Path, const char *ProductName)
{
    if (!MayReplace(Path)) {
        return -EEXIST;
    }
    char NewPath[4096];
    const int Length = snprintf(NewPath, sizeof(NewPath), "%s.%d.new", Path, getpid());
    if (Length < 0 || static_cast<size_t>(Length) >= sizeof(NewPath)) {
        return -ENAMETOOLONG;
    }
    int Result = FillNewFile(NewPath, ProductName);
    if (Result == 0 && rename(NewPath, Path) != 0) {
        Result = -errno;
    }
    if (Result != 0) {
        unlink(NewPath);
    }
    return Result;
}

static bool IsBoard(const BOARD_STATE *State)
{
    return State->Magic == BoardMagic && State->StateSize == sizeof(BOARD_STATE);
}

BOARD_STATE *BoardFileOpen(const char *Path)
{
    const int Descriptor = open(Path, O_RDWR | O_CLOEXEC);
    if (Descriptor < 0) {
        return nullptr;
    }
    struct stat Status;
    const bool RightSize = fstat(Descriptor, &Status) == 0 &&
                           Status.st_size == static_cast<off_t>(sizeof(BOARD_STATE));
    BOARD_STATE *State = RightSize ? MapBoard(Descriptor) : nullptr;
    const int Error = RightSize ? errno : EINVAL;
    close(Descriptor);
    if (State == nullptr) {
        errno = Error;
        return nullptr;
    }
    if (!IsBoard(State)) {
        BoardFileClose(State);
        errno = EINVAL;
        return nullptr;
    }
    return State;
}

void BoardFileClose(BOARD_STATE *State)
{
    if (State != nullptr) { /* what lies at the lowest addresses is another's */
        munmap(State, sizeof(BOARD_STATE));
    }
}

/* Lock */

static constexpr unsigned LockAttemptsPerLook = 64;
static constexpr int64_t LockPatienceMilliSeconds = 2000;

static bool TakeLock(BOARD_STATE *State, int32_t From, int32_t Self)
{
    return __atomic_compare_exchange_n(&State->LockOwner, &From, Self, false, __ATOMIC_ACQUIRE,
                                       __ATOMIC_RELAXED);
}

/* The plain system call: kill() itself is ours and would write to the trace. */
static bool IsGone(int32_t Owner)
{
    return syscall(SYS_kill, Owner, 0) != 0 && errno == ESRCH;
}

void BoardLock(BOARD_STATE *State)
{
    const int SavedError = errno;
    const int32_t Self = gettid();
    int32_t FormerOwner = 0;
    uint64_t FormerSequence = 0;
    int64_t Since = 0;
    for (unsigned Attempt = 1; !TakeLock(State, 0, Self); Attempt++) {
        if (Attempt % LockAttemptsPerLook != 0) {
            sched_yield();
            continue;
        }
        const int32_t Owner = __atomic_load_n(&State->LockOwner, __ATOMIC_RELAXED);
        const uint64_t Sequence = __atomic_load_n(&State->LastSequence, __ATOMIC_RELAXED);
        const int64_t Now = HostMilliSeconds();
        if (Owner != FormerOwner || Sequence != FormerSequence) {
            FormerOwner = Owner;
            FormerSequence = Sequence;
            Since = Now;
        }
        const bool Stuck = Now - Since > LockPatienceMilliSeconds;
        if (Owner != 0 && (Owner == Self || Stuck || IsGone(Owner)) &&
            TakeLock(State, Owner, Self)) {
            break;
        }
    }
    errno = SavedError;
}

/* Whoever lost the lock to another must not open it for a third. */
void BoardUnlock(BOARD_STATE *State)
{
    int32_t Owner = gettid();
    __atomic_compare_exchange_n(&State->LockOwner, &Owner, 0, false, __ATOMIC_RELEASE,
                                __ATOMIC_RELAXED);
}
