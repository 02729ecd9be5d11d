/*
 * A gate before what a stop takes away: callers pass while it is open; who closes it turns new ones
 * back, ends what the others wait for, and then waits until they have left. A caller that is inside
 * is turned back like any other when it comes again.
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
    bool IsOpen()
    {
        pthread_mutex_lock(&Lock);
        const bool Now = Open;
        pthread_mutex_unlock(&Lock);
        return Now;
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
    pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t Left = PTHREAD_COND_INITIALIZER;
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
