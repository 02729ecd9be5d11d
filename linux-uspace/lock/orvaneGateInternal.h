/*
 * A gate before what a service's stop takes away: callers pass while the service runs; who stops it
 * ends what the callers wait for, and then waits until they have left. The state alone says whether
 * the gate is open, so that nobody gets in before a start is complete:
 *
 *                 BeginStart             Commit             BeginStop
 *   NEW, STOPPED ------------> STARTING --------> RUNNING ------------> STOPPING
 *                                 |                                        |
 *                                 +----------------> STOPPED <-------------+
 *                                       End                      End
 *
 * One start or stop is made at a time. Whoever makes one has put off the cancellation of its
 * thread. A forked child gets the gate new and empty; a caller that was inside leaves nothing.
 */
#ifndef ORVANE_GATE_INTERNAL_H
#define ORVANE_GATE_INTERNAL_H

#include "orvaneForkInternal.h"

/* Counts who is inside of something, for who has to see them out. */
class VISITORS : private FORK_NODE {
  public:
    constexpr VISITORS() = default;
    VISITORS(const VISITORS &) = delete;
    VISITORS &operator=(const VISITORS &) = delete;

    /* Returns what Leave is to be told. */
    unsigned Enter();
    /* After a fork it does nothing in the child: the child's count began anew. */
    void Leave(unsigned Ticket);
    /* Not to be called from inside. */
    void WaitUntilEmpty();
    /* In a child: at a fork somebody was inside whom the child does not have. */
    bool WereLost() const
    {
        return AnyLost;
    }

  private:
    static const FORK_KIND KIND;
    static void Free(FORK_NODE *Node);

    FORK_MUTEX CountLock{FORK_RANK_VISITORS, HELD_FOR_A_MOMENT};
    FORK_CONDITION Left;
    unsigned Inside = 0;
    unsigned Generation = 0; /* how many forks lie between this process and the first */
    bool AnyLost = false;
};

class GATE : private FORK_NODE {
  public:
    enum NEW_STATE { OPEN_WHEN_NEW, CLOSED_WHEN_NEW };
    /* GateInChild puts right, in a forked child, what the gate stands before. */
    constexpr GATE(NEW_STATE OpenOrNot, void (*GateInChild)())
        : WhenNew(OpenOrNot), InItsChild(GateInChild)
    {
    }
    GATE(const GATE &) = delete;
    GATE &operator=(const GATE &) = delete;

    /* Claim the right to start or to stop, until Commit or End; false when another has it, or
     * when there is nothing to start or to stop. From then on nobody gets in. */
    bool BeginStart();
    bool BeginStop();
    /* The stop of a service that may never have been started: false only while another start or
     * stop is being made. */
    bool BeginStopOfAny();
    /* Ends a start that is complete: the gate opens. */
    void Commit();
    /* For a thread that the start made: what it does may stop the service. */
    void WaitWhileStarting();
    /* Ends a stop, and a start that failed. */
    void End();

    bool Enter(unsigned *Ticket);
    void Leave(unsigned Ticket);
    void WaitUntilEmpty();

  private:
    enum STATE : unsigned { NEW = 1, STARTING = 2, RUNNING = 4, STOPPING = 8, STOPPED = 16 };
    static const FORK_KIND KIND;
    static void Free(FORK_NODE *Node);
    bool Change(unsigned From, STATE To);

    FORK_MUTEX StateLock{FORK_RANK_GATE, HELD_FOR_A_MOMENT};
    FORK_CONDITION Changed;
    STATE State = NEW;
    VISITORS Visitors;
    const NEW_STATE WhenNew;
    void (*const InItsChild)();
};

/* Passes the gate for the scope's length; what follows asks IsIn first. */
class GATE_SCOPE {
  public:
    explicit GATE_SCOPE(GATE &Passed) : Gate(Passed), In(Passed.Enter(&Ticket)) {}
    ~GATE_SCOPE()
    {
        if (In) {
            Gate.Leave(Ticket);
        }
    }
    GATE_SCOPE(const GATE_SCOPE &) = delete;
    GATE_SCOPE &operator=(const GATE_SCOPE &) = delete;
    bool IsIn() const
    {
        return In;
    }

  private:
    GATE &Gate;
    unsigned Ticket = 0;
    const bool In;
};

#endif
