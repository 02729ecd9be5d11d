/*
 * A gate before what a service's stop takes away: callers pass while it is open; who stops closes
 * it, ends what the callers wait for, and then waits until they have left. A caller that is inside
 * is turned back like any other when it comes again.
 *
 * The gate also sees to it that one start or stop is made at a time. Whoever calls it has put off
 * the cancellation of its thread.
 */
#ifndef ORVANE_GATE_INTERNAL_H
#define ORVANE_GATE_INTERNAL_H

#include <pthread.h>
#include <stdint.h>

class GATE {
  public:
    explicit constexpr GATE(bool StartsOpen) : Open(StartsOpen) {}

    void SetOpen(bool NewOpen)
    {
        pthread_mutex_lock(&Lock);
        Open = NewOpen;
        pthread_mutex_unlock(&Lock);
    }
    /* Claim the right to start or to stop, until EndChange; false when another has it, and when
     * there is nothing to start. A stop of what is stopped is granted only where it is asked for.
     */
    bool BeginStart()
    {
        return BeginChange(STOPPED, STOPPED);
    }
    bool BeginStop(bool AlsoWhenStopped)
    {
        return BeginChange(RUNNING, AlsoWhenStopped ? STOPPED : RUNNING);
    }
    void EndChange(bool IsRunning)
    {
        pthread_mutex_lock(&Lock);
        State = IsRunning ? RUNNING : STOPPED;
        pthread_mutex_unlock(&Lock);
    }
    bool Enter()
    {
        pthread_mutex_lock(&Lock);
        const bool IsIn = Open;
        Inside += IsIn ? 1 : 0;
        pthread_mutex_unlock(&Lock);
        return IsIn;
    }
    void Leave()
    {
        pthread_mutex_lock(&Lock);
        Inside--;
        pthread_cond_broadcast(&Left);
        pthread_mutex_unlock(&Lock);
    }
    /* Not to be called from inside. */
    void WaitUntilEmpty()
    {
        pthread_mutex_lock(&Lock);
        while (Inside != 0) {
            pthread_cond_wait(&Left, &Lock);
        }
        pthread_mutex_unlock(&Lock);
    }

  private:
    enum STATE { STOPPED, CHANGING, RUNNING };

    bool BeginChange(STATE From, STATE OrFrom)
    {
        pthread_mutex_lock(&Lock);
        const bool Granted = State == From || State == OrFrom;
        State = Granted ? CHANGING : State;
        pthread_mutex_unlock(&Lock);
        return Granted;
    }

    pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t Left = PTHREAD_COND_INITIALIZER;
    STATE State = STOPPED;
    bool Open;
    uint32_t Inside = 0;
};

/* Passes the gate for the scope's length; what follows asks IsIn first. */
class GATE_SCOPE {
  public:
    explicit GATE_SCOPE(GATE &Passed) : Gate(Passed), In(Passed.Enter()) {}
    ~GATE_SCOPE()
    {
        if (In) {
            Gate.Leave();
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
    const bool In;
};

#endif
