/*
 * Locks that a fork cannot leave held, and the one place where a module states what a forked child
 * gets of its state.
 *
 * A child has one thread, and memory as all threads of its parent left it at that moment. So each
 * process-wide lock of the library is one of the types below. It notes itself at its first use, and
 * is then seen to at every fork in one of three ways, which its definition has to choose between:
 *
 *   HELD_FOR_A_MOMENT    The fork takes it first: what it guards is whole in the child. Nobody may
 *                        wait for a peer or a callback while holding it.
 *   HELD_FOR_A_CALLBACK  The fork takes it when it gets it within 20 ms: somebody runs a callback
 *                        under it. IsTorn tells the child.
 *   HELD_FOR_LONG        The fork does not wait for it. What it guards may be half changed: the
 *                        lock's InChild puts it right.
 *
 * Spin locks are held for a moment; a fork closes them and waits until nobody is inside.
 *
 * In the child every lock is free, but for those that the forking thread itself had: it goes on
 * with them. Then the InChild functions run, in the order of the ranks; they may take locks.
 *
 * A fork waits for locks that are held for a moment, for a second at most: a holder that waits
 * longer (for a disk, for the system log) must not hold up the process. The child's lock is free
 * all the same.
 *
 * The build fails for a lock of another type (cmake/checkLocks.cmake).
 */
#ifndef ORVANE_FORK_INTERNAL_H
#define ORVANE_FORK_INTERNAL_H

#include "orvanePlatformMutex.h"
#include "orvanePlatformSpinlock.h"

#include <atomic>
#include <stdint.h>
#include <time.h>

/* The order of all locks: what stands first is taken first, by a fork, and by threads where one
 * lock is taken under another. */
enum FORK_RANK : uint8_t {
    FORK_RANK_RCU_READER,
    FORK_RANK_RCU,       /* readers, which are waited for, may take what follows */
    FORK_RANK_LIFECYCLE, /* start and stop of the base */
    FORK_RANK_FLEX_MSG,
    FORK_RANK_DISPATCH_EXCHANGE,
    FORK_RANK_DISPATCH_PUSH,
    FORK_RANK_DISPATCH_STATE,
    FORK_RANK_IMC_EXCHANGE,
    FORK_RANK_IMC_SOCKET,
    FORK_RANK_COMMAND_PIPE,
    FORK_RANK_GATE,
    FORK_RANK_VISITORS,
    FORK_RANK_MONITOR_CONTROL,
    FORK_RANK_MONITOR_WORK,
    FORK_RANK_MONITOR_CALLBACKS,
    FORK_RANK_MONITOR_SOCKETS,
    FORK_RANK_FAMILY_ID,
    FORK_RANK_LIBNL,
    FORK_RANK_AGENT_LOG,
    FORK_RANK_LOG_FILES,
    FORK_RANK_LOG_FILE,
    FORK_RANK_STANDARD_OUTPUT,
    FORK_RANK_POOLS,
    FORK_RANK_MEMORY_MODULES,
    FORK_RANK_MEMORY_MODULE,
    FORK_RANK_SYSTEM_LOG,
    FORK_RANK_TIME_ZONE,
    FORK_RANK_COUNT
};

enum FORK_HOLD : uint8_t { HELD_FOR_A_MOMENT, HELD_FOR_A_CALLBACK, HELD_FOR_LONG };

struct FORK_NODE;

/* What is done with one kind of node. Any of them may be null. */
struct FORK_KIND {
    void (*Make)(FORK_NODE *Node);                                  /* when it is noted */
    bool (*Take)(FORK_NODE *Node, const struct timespec &Deadline); /* false: not in time */
    void (*GiveBack)(FORK_NODE *Node);                              /* in the parent, if taken */
    void (*Free)(FORK_NODE *Node);                                  /* in the child */
};

/* What is seen to at a fork. Zeroed until it is noted, so that arrays of locks cost no start. */
struct FORK_NODE {
    std::atomic<FORK_NODE *> Next{nullptr};
    const FORK_KIND *Kind = nullptr;
    void (*InChild)() = nullptr;
    std::atomic<bool> IsNoted{false};
    std::atomic<bool> IsLost{false}; /* left held for ever: a fork does not wait for it */
    bool IsTaken = false;            /* by the fork that is being made */
    FORK_RANK Rank{};
};

void _OV_ForkNote(FORK_NODE *Node, FORK_RANK Rank, const FORK_KIND *Kind, void (*InChild)());

/* From the first call on the node is seen to. */
inline void _OV_ForkNoteOnce(FORK_NODE *Node, FORK_RANK Rank, const FORK_KIND *Kind,
                             void (*InChild)() = nullptr)
{
    if (!Node->IsNoted.load(std::memory_order_acquire)) {
        _OV_ForkNote(Node, Rank, Kind, InChild);
    }
}

/* How many forks are waiting for locks. Whoever is about to take one then stands back for a moment:
 * a thread that takes and gives back in a loop would keep a fork waiting. */
extern std::atomic<int> g_ForksPending;
void _OV_ForkStandBack();

inline void _OV_ForkGiveWay()
{
    if (g_ForksPending.load(std::memory_order_relaxed) != 0) {
        _OV_ForkStandBack();
    }
}

/* In builds for debugging a lock that a fork takes, and that is taken against the order, stops the
 * process with the assertion "lock order": a fork and this thread would wait for each other. */
#ifdef NDEBUG
inline void _OV_ForkOrderEnter(FORK_RANK) {}
inline void _OV_ForkOrderLeave(FORK_RANK) {}
#else
void _OV_ForkOrderEnter(FORK_RANK Rank);
void _OV_ForkOrderLeave(FORK_RANK Rank);
#endif

/* Whether this thread is making a fork: it has all that it took, for the program's own handlers. */
extern std::atomic<pthread_t> g_ForkingThread; /* 0: none. It has the list of nodes, too. */
inline bool _OV_ForkIsMine()
{
    return g_ForkingThread.load(std::memory_order_relaxed) == pthread_self();
}

/* Up to which rank a fork has closed the spin locks, -1: none. It does not hold them: there may be
 * hundreds. */
extern std::atomic<int> g_ForkClosedRank;

/* Closes the rank and waits until nobody has the lock; false when the deadline (CLOCK_MONOTONIC)
 * passed first. */
bool _OV_ForkDrainSpinlock(FORK_RANK Rank, OV_SPINLOCK_T *Spin, const struct timespec &Deadline);

/* The library's mutex: recursive. */
class FORK_MUTEX : private FORK_NODE {
  public:
    constexpr FORK_MUTEX(FORK_RANK OwnRank, FORK_HOLD OwnHold, void (*OwnInChild)() = nullptr)
        : FirstRank(OwnRank), Hold(OwnHold), FirstInChild(OwnInChild)
    {
    }
    FORK_MUTEX(const FORK_MUTEX &) = delete;
    FORK_MUTEX &operator=(const FORK_MUTEX &) = delete;

    void Lock()
    {
        _OV_ForkNoteOnce(this, FirstRank, &KINDS[Hold], FirstInChild);
        _OV_ForkGiveWay();
        if (Hold != HELD_FOR_LONG && Owner != pthread_self()) {
            _OV_ForkOrderEnter(FirstRank);
        }
        if (!(_OV_ForkIsMine() && IsTaken)) { /* a child's thread is not known as the owner yet */
            OV_MutexLock(&Mutex);
        }
        Enter();
    }
    void Unlock()
    {
        if (Hold != HELD_FOR_LONG && Depth == 1) {
            _OV_ForkOrderLeave(FirstRank);
        }
        Leave();
        if (!(_OV_ForkIsMine() && IsTaken)) {
            OV_MutexUnlock(&Mutex);
        }
    }
    /* In a child whose thread does not go on with what it had the lock for. */
    void UnlockWholly()
    {
        while (Owner == pthread_self()) {
            Unlock();
        }
    }
    /* This thread is about to wait for ever with the lock held. */
    void Lose()
    {
        IsLost = true;
    }
    /* In a child for which the fork did not get the lock: what it guards may be half changed. */
    bool IsTorn() const
    {
        return Torn;
    }

  private:
    friend class FORK_CONDITION;
    static const FORK_KIND KINDS[];
    static bool TakeSoon(FORK_NODE *Node, const struct timespec &Deadline);
    static bool Take(FORK_NODE *Node, const struct timespec &Deadline);
    static void GiveBack(FORK_NODE *Node);
    static void Free(FORK_NODE *Node);

    void Enter()
    {
        Owner.store(pthread_self(), std::memory_order_relaxed);
        Depth++;
    }
    void Leave()
    {
        Depth--;
        if (Depth == 0) {
            Owner.store(0, std::memory_order_relaxed);
        }
    }

    OV_MUTEX_T Mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    std::atomic<pthread_t> Owner{0};
    unsigned Depth = 0; /* how often Owner has it */
    bool Torn = false;
    const FORK_RANK FirstRank;
    const FORK_HOLD Hold;
    void (*const FirstInChild)();
};

/* A spin lock, held for a moment. It is zero as long as nobody has used it. */
template <FORK_RANK RANK>
class FORK_SPINLOCK : private FORK_NODE {
  public:
    constexpr FORK_SPINLOCK() = default;
    FORK_SPINLOCK(const FORK_SPINLOCK &) = delete;
    FORK_SPINLOCK &operator=(const FORK_SPINLOCK &) = delete;

    void Lock()
    {
        _OV_ForkNoteOnce(this, RANK, &KIND);
        _OV_ForkGiveWay();
        _OV_ForkOrderEnter(RANK);
        OV_SpinLock_BH(&Spin);
        /* Asked when it is held: the fork has not passed it. */
        while (g_ForkClosedRank >= RANK && !_OV_ForkIsMine()) {
            OV_SpinUnlock_BH(&Spin);
            _OV_ForkStandBack();
            OV_SpinLock_BH(&Spin);
        }
    }
    void Unlock()
    {
        _OV_ForkOrderLeave(RANK);
        OV_SpinUnlock_BH(&Spin);
    }
    /* The caller keeps it for ever: a child has it held, too. */
    void Lose()
    {
        IsLost = true;
    }
    bool IsLeftHeld() const
    {
        return IsLost;
    }

  private:
    static OV_SPINLOCK_T *SpinOf(FORK_NODE *Node)
    {
        return &static_cast<FORK_SPINLOCK *>(Node)->Spin;
    }
    /* Zero is not a free lock on every machine. */
    static void Make(FORK_NODE *Node)
    {
        OV_SpinlockInit(SpinOf(Node));
    }
    static bool Take(FORK_NODE *Node, const struct timespec &Deadline)
    {
        return _OV_ForkDrainSpinlock(RANK, SpinOf(Node), Deadline);
    }
    static void Free(FORK_NODE *Node)
    {
        if (!Node->IsLost) { /* also when it was drained: somebody may just have looked in */
            Make(Node);
        }
    }
    static constexpr FORK_KIND KIND = {Make, Take, nullptr, Free};

    OV_SPINLOCK_T Spin = 0;
};

/* A read-write lock, held for long. In a child it is free, also of what the forking thread had. */
class FORK_RWLOCK : private FORK_NODE {
  public:
    constexpr FORK_RWLOCK(FORK_RANK OwnRank, void (*OwnInChild)())
        : FirstRank(OwnRank), FirstInChild(OwnInChild)
    {
    }
    FORK_RWLOCK(const FORK_RWLOCK &) = delete;
    FORK_RWLOCK &operator=(const FORK_RWLOCK &) = delete;

    void LockForReading();
    void Lock();
    void Unlock();

  private:
    static const FORK_KIND KIND;
    static void Free(FORK_NODE *Node);

    pthread_rwlock_t Rwlock = PTHREAD_RWLOCK_INITIALIZER;
    const FORK_RANK FirstRank;
    void (*const FirstInChild)();
};

/* Waits under a FORK_MUTEX that the thread has once. Nobody waits on it in a child. */
class FORK_CONDITION : private FORK_NODE {
  public:
    constexpr FORK_CONDITION() = default;
    FORK_CONDITION(const FORK_CONDITION &) = delete;
    FORK_CONDITION &operator=(const FORK_CONDITION &) = delete;

    void Wait(FORK_MUTEX &Held);
    void WakeAll();

  private:
    static const FORK_KIND KIND;
    static void Free(FORK_NODE *Node);

    pthread_cond_t Condition = PTHREAD_COND_INITIALIZER;
};

#endif
