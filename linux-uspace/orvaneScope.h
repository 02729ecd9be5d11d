/*
 * Scope guards for the library's own C++: what a scope opened or locked, it closes or unlocks on
 * every path out. One guard a type, declared here and nowhere else.
 *
 * A cancelled thread is no path out: the library is built without exceptions, so cancellation
 * unwinds past these guards. Code that calls a cancellation point (any input or output) while it
 * holds something stands under a CANCEL_SCOPE.
 */
#ifndef ORVANE_SCOPE_H
#define ORVANE_SCOPE_H

#include "orvaneForkInternal.h"
#include "orvanePlatformRcu.h"

#include <memory>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>
#include <utility>

/* Puts off the cancellation of this thread. */
class CANCEL_SCOPE {
  public:
    CANCEL_SCOPE()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &Before);
    }
    ~CANCEL_SCOPE()
    {
        pthread_setcancelstate(Before, nullptr);
    }
    CANCEL_SCOPE(const CANCEL_SCOPE &) = delete;
    CANCEL_SCOPE &operator=(const CANCEL_SCOPE &) = delete;

  private:
    int Before;
};

/* Lets no signal handler run on this thread, and none but SIGKILL end the process through it: what
 * comes meanwhile acts when the scope ends. The signals of a fault are let through. */
class SIGNAL_SCOPE {
  public:
    SIGNAL_SCOPE()
    {
        sigset_t Blocked;

        sigfillset(&Blocked);
        for (const int Fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT}) {
            sigdelset(&Blocked, Fault);
        }
        pthread_sigmask(SIG_BLOCK, &Blocked, &Before);
    }
    ~SIGNAL_SCOPE()
    {
        pthread_sigmask(SIG_SETMASK, &Before, nullptr);
    }
    SIGNAL_SCOPE(const SIGNAL_SCOPE &) = delete;
    SIGNAL_SCOPE &operator=(const SIGNAL_SCOPE &) = delete;

  private:
    sigset_t Before;
};

/* This thread is one of the library's own, which have all signals blocked: what it starts is not to
 * inherit that. */
inline constinit thread_local bool g_IsLibraryThread = false;

template <typename LOCK>
class LOCK_SCOPE {
  public:
    explicit LOCK_SCOPE(LOCK &Lock) : Held(Lock)
    {
        Held.Lock();
    }
    ~LOCK_SCOPE()
    {
        Held.Unlock();
    }
    LOCK_SCOPE(const LOCK_SCOPE &) = delete;
    LOCK_SCOPE &operator=(const LOCK_SCOPE &) = delete;

  private:
    LOCK &Held;
};

using MUTEX_SCOPE = LOCK_SCOPE<FORK_MUTEX>;
using WRITE_LOCK_SCOPE = LOCK_SCOPE<FORK_RWLOCK>;

class RCU_READ_SCOPE {
  public:
    RCU_READ_SCOPE()
    {
        OV_RcuReadLock();
    }
    ~RCU_READ_SCOPE()
    {
        OV_RcuReadUnlock();
    }
    RCU_READ_SCOPE(const RCU_READ_SCOPE &) = delete;
    RCU_READ_SCOPE &operator=(const RCU_READ_SCOPE &) = delete;
};

struct STREAM_CLOSE {
    void operator()(FILE *Stream) const
    {
        fclose(Stream);
    }
};
using STREAM_SCOPE = std::unique_ptr<FILE, STREAM_CLOSE>;

class DESCRIPTOR_SCOPE {
  public:
    explicit DESCRIPTOR_SCOPE(int Descriptor) : Held(Descriptor) {}
    ~DESCRIPTOR_SCOPE()
    {
        if (Held >= 0) {
            close(Held);
        }
    }
    DESCRIPTOR_SCOPE(const DESCRIPTOR_SCOPE &) = delete;
    DESCRIPTOR_SCOPE &operator=(const DESCRIPTOR_SCOPE &) = delete;
    int Get() const
    {
        return Held;
    }
    /* Gives the descriptor away: it stays open. */
    int Release()
    {
        return std::exchange(Held, -1);
    }

  private:
    int Held;
};

#endif
