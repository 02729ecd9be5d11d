#include "orvaneForkInternal.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

static constexpr time_t WAIT_SECONDS = 1;           /* of a fork, for all locks together */
static constexpr long LEAST_NANOSECONDS = 20000000; /* for each lock, whatever the others took */
static constexpr long STAND_BACK_NANOSECONDS = 2000000;
static constexpr long NAP_NANOSECONDS = 20000; /* of a fork, between two tries */

/* One fork at a time: they share the marks in the nodes. */
static pthread_mutex_t s_ForkLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<pthread_t> g_ForkingThread;
std::atomic<int> g_ForksPending;
std::atomic<int> g_ForkClosedRank{-1};

/* Guards the list while a node is added; a fork holds it, too, so that none is added meanwhile. It
 * is taken after all others. Nodes stay for ever, sorted by rank, and may be walked without it. */
static pthread_mutex_t s_NotesLock = PTHREAD_MUTEX_INITIALIZER;
static std::atomic<FORK_NODE *> s_First;
static unsigned s_NodeCount;

/* Unlike a sleep it is no cancellation point. */
static void _Futex(int Operation, int Value, const struct timespec *Pause)
{
    syscall(SYS_futex, &g_ForksPending, Operation, Value, Pause, nullptr, 0);
}

static FORK_NODE *_NextOf(const std::atomic<FORK_NODE *> &Link)
{
    return Link.load(std::memory_order_acquire);
}

static void _LockNotes()
{
    OV_MUTEX_ASSERT(pthread_mutex_lock(&s_NotesLock));
}

static void _UnlockNotes()
{
    OV_MUTEX_ASSERT(pthread_mutex_unlock(&s_NotesLock));
}

static void _GiveBackAll()
{
    g_ForkClosedRank = -1;
    for (FORK_NODE *Node = _NextOf(s_First); Node != nullptr; Node = _NextOf(Node->Next)) {
        if (Node->IsTaken) {
            Node->IsTaken = false;
            if (Node->Kind->GiveBack != nullptr) {
                Node->Kind->GiveBack(Node);
            }
        }
    }
}

static void _TakeAll(const struct timespec &Deadline)
{
    for (FORK_NODE *Node = _NextOf(s_First); Node != nullptr; Node = _NextOf(Node->Next)) {
        if (Node->Kind->Take != nullptr && !Node->IsLost) {
            Node->IsTaken = Node->Kind->Take(Node, Deadline);
        }
    }
}

/* A lock that is noted while the others are being taken may stand ahead of them, and its holder
 * wait for one of them: then all of it once more. */
static void _Prepare()
{
    struct timespec Deadline;

    g_ForksPending++;
    OV_MUTEX_ASSERT(pthread_mutex_lock(&s_ForkLock));
    clock_gettime(CLOCK_MONOTONIC, &Deadline);
    Deadline.tv_sec += WAIT_SECONDS;
    for (;;) {
        _LockNotes();
        const unsigned Count = s_NodeCount;
        _UnlockNotes();
        _TakeAll(Deadline);
        _LockNotes();
        if (s_NodeCount == Count) {
            g_ForkingThread = pthread_self();
            return;
        }
        _UnlockNotes();
        _GiveBackAll();
    }
}

static void _InParent()
{
    g_ForkingThread = 0;
    _UnlockNotes();
    _GiveBackAll();
    OV_MUTEX_ASSERT(pthread_mutex_unlock(&s_ForkLock));
    g_ForksPending--;
    _Futex(FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
}

static void _InChild()
{
    g_ForkingThread = 0;
    _UnlockNotes();
    OV_MUTEX_ASSERT(pthread_mutex_unlock(&s_ForkLock));
    g_ForksPending = 0;
    g_ForkClosedRank = -1;
    for (FORK_NODE *Node = _NextOf(s_First); Node != nullptr; Node = _NextOf(Node->Next)) {
        if (Node->Kind->Free != nullptr) {
            Node->Kind->Free(Node);
        }
        Node->IsTaken = false;
    }
    for (FORK_NODE *Node = _NextOf(s_First); Node != nullptr; Node = _NextOf(Node->Next)) {
        if (Node->InChild != nullptr) {
            Node->InChild();
        }
    }
}

static void _Watch()
{
    OV_MUTEX_ASSERT(pthread_atfork(_Prepare, _InParent, _InChild));
}

void _OV_ForkNote(FORK_NODE *Node, FORK_RANK Rank, const FORK_KIND *Kind, void (*InChild)())
{
    static pthread_once_t IsWatching = PTHREAD_ONCE_INIT;

    const bool IsMine = _OV_ForkIsMine(); /* for a handler of the program's: the list is ours */

    OV_MUTEX_ASSERT(pthread_once(&IsWatching, _Watch));
    if (!IsMine) {
        _LockNotes();
    }
    if (!Node->IsNoted) {
        std::atomic<FORK_NODE *> *Link = &s_First;

        while (_NextOf(*Link) != nullptr && _NextOf(*Link)->Rank <= Rank) {
            Link = &_NextOf(*Link)->Next;
        }
        if (Kind->Make != nullptr) {
            Kind->Make(Node);
        }
        Node->Rank = Rank;
        Node->Kind = Kind;
        Node->InChild = InChild;
        Node->Next = _NextOf(*Link);
        Link->store(Node, std::memory_order_release);
        s_NodeCount++;
        Node->IsNoted.store(true, std::memory_order_release);
    }
    if (!IsMine) {
        _UnlockNotes();
    }
}

static bool _IsPast(const struct timespec &Deadline)
{
    struct timespec Now;

    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec > Deadline.tv_sec ||
           (Now.tv_sec == Deadline.tv_sec && Now.tv_nsec >= Deadline.tv_nsec);
}

/* Not for as long as the fork takes: the thread may hold what the fork waits for. */
void _OV_ForkStandBack()
{
    const struct timespec Pause = {0, STAND_BACK_NANOSECONDS};
    const int Pending = g_ForksPending;
    const int CallerErrno = errno;

    if (Pending != 0) {
        _Futex(FUTEX_WAIT_PRIVATE, Pending, &Pause);
    }
    errno = CallerErrno;
}

/* It tries, again and again, since others stand back: a wait for a mutex until a moment on the
 * monotonic clock is one that the thread sanitizer does not see. */
template <typename LOCK>
static bool _Take(int (*Try)(LOCK *), LOCK *Lock, const struct timespec &Deadline)
{
    static constexpr struct timespec NAP = {0, NAP_NANOSECONDS};
    struct timespec Least;

    if (Try(Lock) == 0) {
        return true;
    }
    clock_gettime(CLOCK_MONOTONIC, &Least);
    Least.tv_nsec += LEAST_NANOSECONDS;
    Least.tv_sec += Least.tv_nsec / 1000000000;
    Least.tv_nsec %= 1000000000;
    while (Try(Lock) != 0) {
        if (_IsPast(Deadline) && _IsPast(Least)) {
            return false;
        }
        _Futex(FUTEX_WAIT_PRIVATE, g_ForksPending, &NAP);
    }
    return true;
}

bool _OV_ForkDrainSpinlock(FORK_RANK Rank, OV_SPINLOCK_T *Spin, const struct timespec &Deadline)
{
    g_ForkClosedRank = Rank;
    const bool IsFree = _Take(pthread_spin_trylock, Spin, Deadline);
    if (IsFree) {
        OV_SpinUnlock(Spin);
    }
    return IsFree;
}

#ifndef NDEBUG
static thread_local uint8_t s_HeldRanks[FORK_RANK_COUNT];

void _OV_ForkOrderEnter(FORK_RANK Rank)
{
    for (int Later = Rank + 1; Later < FORK_RANK_COUNT; Later++) {
        OV_ASSERT_AT(s_HeldRanks[Later] == 0 || _OV_ForkIsMine(), "lock order", "orvaneFork", Later,
                     __func__);
    }
    s_HeldRanks[Rank]++;
}

void _OV_ForkOrderLeave(FORK_RANK Rank)
{
    s_HeldRanks[Rank]--;
}
#endif

/* By FORK_HOLD. */
constinit const FORK_KIND FORK_MUTEX::KINDS[] = {{nullptr, Take, GiveBack, Free},
                                                 {nullptr, TakeSoon, GiveBack, Free},
                                                 {nullptr, nullptr, nullptr, Free}};

bool FORK_MUTEX::TakeSoon(FORK_NODE *Node, const struct timespec & /*Deadline*/)
{
    return Take(Node, {0, 0});
}

bool FORK_MUTEX::Take(FORK_NODE *Node, const struct timespec &Deadline)
{
    auto *Self = static_cast<FORK_MUTEX *>(Node);

    if (!_Take(pthread_mutex_trylock, &Self->Mutex, Deadline)) {
        return false;
    }
    Self->Enter();
    return true;
}

void FORK_MUTEX::GiveBack(FORK_NODE *Node)
{
    auto *Self = static_cast<FORK_MUTEX *>(Node);

    Self->Leave();
    OV_MutexUnlock(&Self->Mutex);
}

/* A recursive mutex knows its owner by a number that the child's thread does not have: it is made
 * anew, and taken again as often as the forking thread had it. */
void FORK_MUTEX::Free(FORK_NODE *Node)
{
    static constexpr OV_MUTEX_T FREE_MUTEX = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    auto *Self = static_cast<FORK_MUTEX *>(Node);
    unsigned Held = Self->Owner == pthread_self() ? Self->Depth : 0;

    if (Self->IsTaken) {
        Held--;
        pthread_mutex_unlock(&Self->Mutex); /* refused, but the thread sanitizer keeps its books */
    } else if (Self->Owner != 0 && Held == 0) {
        Self->Torn = true;
    }
    Self->Mutex = FREE_MUTEX;
    Self->Owner = 0;
    Self->Depth = 0;
    Self->IsLost = false;
    for (; Held > 0; Held--) {
        OV_MutexLock(&Self->Mutex);
        Self->Enter();
    }
}

constinit const FORK_KIND FORK_RWLOCK::KIND = {nullptr, nullptr, nullptr, Free};

void FORK_RWLOCK::Free(FORK_NODE *Node)
{
    static constexpr pthread_rwlock_t FREE_RWLOCK = PTHREAD_RWLOCK_INITIALIZER;

    static_cast<FORK_RWLOCK *>(Node)->Rwlock = FREE_RWLOCK;
}

void FORK_RWLOCK::LockForReading()
{
    _OV_ForkNoteOnce(this, FirstRank, &KIND, FirstInChild);
    OV_MUTEX_ASSERT(pthread_rwlock_rdlock(&Rwlock));
}

void FORK_RWLOCK::Lock()
{
    _OV_ForkNoteOnce(this, FirstRank, &KIND, FirstInChild);
    OV_MUTEX_ASSERT(pthread_rwlock_wrlock(&Rwlock));
}

void FORK_RWLOCK::Unlock()
{
    OV_MUTEX_ASSERT(pthread_rwlock_unlock(&Rwlock));
}

constinit const FORK_KIND FORK_CONDITION::KIND = {nullptr, nullptr, nullptr, Free};

void FORK_CONDITION::Free(FORK_NODE *Node)
{
    static constexpr pthread_cond_t FREE_CONDITION = PTHREAD_COND_INITIALIZER;

    static_cast<FORK_CONDITION *>(Node)->Condition = FREE_CONDITION;
}

void FORK_CONDITION::Wait(FORK_MUTEX &Held)
{
    _OV_ForkNoteOnce(this, Held.FirstRank, &KIND);
    Held.Leave();
    OV_MUTEX_ASSERT(pthread_cond_wait(&Condition, &Held.Mutex));
    Held.Enter();
}

void FORK_CONDITION::WakeAll()
{
    OV_MUTEX_ASSERT(pthread_cond_broadcast(&Condition));
}
