/*
 * A board without its hardware: the ports, the Super I/O chip, the relays and the watchdog that the
 * drivers meet, with the faults a real board would only answer by doing nothing.
 *
 * BOARD_STATE is plain data and lives in one file that every process maps shared, so all of them
 * work on one board and write one trace. The file owns the state; a process owns its mapping only.
 * Operations that change a board expect the caller to hold the lock (BoardLock); the queries that
 * take a const board may be called without it.
 */
#ifndef BOARD_MODEL_H
#define BOARD_MODEL_H

#include <stdint.h>

constexpr unsigned BoardTraceSize = 16384;
constexpr unsigned BoardPairsMax = 3;
constexpr unsigned BoardNoteSize = 72;

enum BOARD_ACCESS_KIND : uint32_t {
    BOARD_IN8,
    BOARD_OUT8,
    BOARD_IN16,
    BOARD_OUT16,
    BOARD_IN32,
    BOARD_OUT32,
    BOARD_IOPL,   /* Value: the level */
    BOARD_IOPERM, /* Port: the first, Count: how many, Value: 1 turned on, 0 turned off */
    BOARD_SIGNAL, /* Port: the signal, Value: the process it was sent to */
    BOARD_EVENT,  /* something the board did, in the note */
    BOARD_FAULT   /* something a program did wrong, in the note */
};

enum BOARD_RELAY : uint32_t { RELAY_NO_BYPASS, RELAY_BYPASS, RELAY_UNDEFINED };

/* One line of the trace. Result is 0 or a negative errno. Pid 0 is the board itself. */
struct BOARD_ACCESS {
    uint64_t Sequence;
    int64_t MilliSeconds;
    int32_t Pid;
    BOARD_ACCESS_KIND Kind;
    uint32_t Port;
    uint32_t Count;
    uint32_t Value;
    int32_t Result;
    char Process[16];
    char Note[BoardNoteSize];
};

struct BOARD_SUPER_IO {
    uint32_t ConfigurationMode;
    uint32_t KeyProgress;
    uint8_t Index;
    uint8_t MonitorIndex;
    uint8_t MonitorBank;
    uint8_t Global[0x30];
    uint8_t Device[0x20][0x100];
    uint8_t Monitor[8][0x100];
};

/* Deadline is 0 while nothing counts; Held is what was left when the device was switched off. */
struct BOARD_WATCHDOG {
    int64_t Deadline;
    int64_t Held;
    uint32_t Expired;
    uint32_t ThrowsRelays;
};

/* PulseStart is -1 while the coil is not energised. */
struct BOARD_COIL {
    int64_t PulseStart;
    BOARD_RELAY Latched;
};

struct BOARD_STATE {
    uint64_t Magic;
    uint32_t StateSize;
    int32_t LockOwner;
    char ProductName[64];
    uint32_t BoardNumber;

    /* How many of the next calls fail with EPERM; -1 refuses all of them. */
    int32_t RefuseRaise;
    int32_t RefuseLower;
    int32_t RefuseIoperm;
    uint32_t EmptyBus;

    int64_t CreatedMilliSeconds;
    int64_t OffsetMilliSeconds;

    uint32_t FaultCount;
    uint32_t ResetCount;
    uint64_t LastSequence;
    uint32_t TraceCount;
    uint32_t TraceDropped;

    BOARD_COIL Coil;
    BOARD_WATCHDOG Watchdog;
    BOARD_RELAY LastRelay[BoardPairsMax];
    BOARD_RELAY LastWhenOff[BoardPairsMax];
    BOARD_SUPER_IO SuperIo;

    /* Only the ports the board has are ever looked at, so the file stays sparse here. */
    uint8_t Ports[0x10000];
    BOARD_ACCESS Trace[BoardTraceSize];
};

/*
 * Makes a board as its firmware leaves it, chosen by DMI product name. An unknown name is a board
 * with nothing behind its ports.
 */
void BoardCreate(BOARD_STATE *State, const char *ProductName);

/* Makes the file anew, replacing a board file or an empty file but nothing else. 0 or -errno. */
int BoardFileCreate(const char *Path, const char *ProductName);

/* nullptr and errno; EINVAL is a file that holds no board. */
BOARD_STATE *BoardFileOpen(const char *Path);
void BoardFileClose(BOARD_STATE *State); /* nullptr: does nothing */

/* A lock whose owner is gone, or does nothing to the board for two seconds, is taken over. */
void BoardLock(BOARD_STATE *State);
void BoardUnlock(BOARD_STATE *State);

/* One port access of 1, 2 or 4 bytes as the board answers it, recorded with all it brings about. */
uint32_t BoardRead(BOARD_STATE *State, uint16_t Port, unsigned Width);
void BoardWrite(BOARD_STATE *State, uint16_t Port, unsigned Width, uint32_t Value);

/*
 * Adds an entry in the name of this process; Note is a format. Returns the entry, so that a result
 * known only later can be filled in, or nullptr when the trace is full. A fault is counted even
 * then.
 */
BOARD_ACCESS *BoardRecord(BOARD_STATE *State, const BOARD_ACCESS *What, const char *Note, ...)
    __attribute__((format(printf, 3, 4)));
void BoardClearTrace(BOARD_STATE *State);

/* Carries out what time alone has brought about: a watchdog that ran out. */
void BoardSettle(BOARD_STATE *State);

/* Moves the board's clock forward, so that a test need not sleep. */
void BoardAdvance(BOARD_STATE *State, uint32_t Seconds);
int64_t BoardMilliSeconds(const BOARD_STATE *State);

const char *BoardDisplayName(const BOARD_STATE *State);
const char *BoardChipName(const BOARD_STATE *State);

/* Pairs count from 1. A pair the board does not have is undefined. */
unsigned BoardRelayCount(const BOARD_STATE *State);
BOARD_RELAY BoardRelay(const BOARD_STATE *State, unsigned Pair);

/* What the pair does once power is gone: RELAY_BYPASS is armed, RELAY_NO_BYPASS disarmed. */
bool BoardHasWhenOff(const BOARD_STATE *State);
BOARD_RELAY BoardRelayWhenOff(const BOARD_STATE *State, unsigned Pair);

/* Seconds, begun ones counted whole; 0 is a watchdog that does not count. */
uint32_t BoardWatchdogRemaining(const BOARD_STATE *State);
bool BoardWatchdogExpired(const BOARD_STATE *State);
uint32_t BoardResetCount(const BOARD_STATE *State);

#endif
