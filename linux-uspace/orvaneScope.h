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

#include "orvanePlatformMutex.h"
#include "orvanePlatformRcu.h"
#include "orvanePlatformSpinlock.h"

#include <memory>
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

class MUTEX_SCOPE {
  public:
    explicit MUTEX_SCOPE(OV_MUTEX_T &Mutex) : Held(Mutex)
    {
        OV_MutexLock(&Held);
    }
    ~MUTEX_SCOPE()
    {
        OV_MutexUnlock(&Held);
    }
    MUTEX_SCOPE(const MUTEX_SCOPE &) = delete;
    MUTEX_SCOPE &operator=(const MUTEX_SCOPE &) = delete;

  private:
    OV_MUTEX_T &Held;
};

class SPINLOCK_SCOPE {
  public:
    explicit SPINLOCK_SCOPE(OV_SPINLOCK_T &Lock) : Held(Lock)
    {
        OV_SpinLock_BH(&Held);
    }
    ~SPINLOCK_SCOPE()
    {
        OV_SpinUnlock_BH(&Held);
    }
    SPINLOCK_SCOPE(const SPINLOCK_SCOPE &) = delete;
    SPINLOCK_SCOPE &operator=(const SPINLOCK_SCOPE &) = delete;

  private:
    OV_SPINLOCK_T &Held;
};

/* A read-write lock, held for writing. */
class WRITE_LOCK_SCOPE {
  public:
    explicit WRITE_LOCK_SCOPE(pthread_rwlock_t &Lock) : Held(Lock)
    {
        pthread_rwlock_wrlock(&Held);
    }
    ~WRITE_LOCK_SCOPE()
    {
        pthread_rwlock_unlock(&Held);
    }
    WRITE_LOCK_SCOPE(const WRITE_LOCK_SCOPE &) = delete;
    WRITE_LOCK_SCOPE &operator=(const WRITE_LOCK_SCOPE &) = delete;

  private:
    pthread_rwlock_t &Held;
};

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
