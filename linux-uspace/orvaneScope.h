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

#include "orvaneFlexMsg.h"
#include "orvanePlatformMutex.h"

#include <memory>
#include <stdio.h>
#include <unistd.h>

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

/* A lock held by many that use something, or by the one that changes it. Readers nest. */
template <int (*LOCK)(pthread_rwlock_t *)>
class RWLOCK_SCOPE {
  public:
    explicit RWLOCK_SCOPE(pthread_rwlock_t &Lock) : Held(Lock)
    {
        LOCK(&Held);
    }
    ~RWLOCK_SCOPE()
    {
        pthread_rwlock_unlock(&Held);
    }
    RWLOCK_SCOPE(const RWLOCK_SCOPE &) = delete;
    RWLOCK_SCOPE &operator=(const RWLOCK_SCOPE &) = delete;

  private:
    pthread_rwlock_t &Held;
};
using READ_SCOPE = RWLOCK_SCOPE<pthread_rwlock_rdlock>;
using WRITE_SCOPE = RWLOCK_SCOPE<pthread_rwlock_wrlock>;

struct STREAM_CLOSE {
    void operator()(FILE *Stream) const
    {
        fclose(Stream);
    }
};
using STREAM_SCOPE = std::unique_ptr<FILE, STREAM_CLOSE>;

struct FLEX_MSG_FREE {
    void operator()(OV_FLEXIBLE_MSG *Msg) const
    {
        OV_FlexMsgFree(Msg);
    }
};
using FLEX_MSG_SCOPE = std::unique_ptr<OV_FLEXIBLE_MSG, FLEX_MSG_FREE>;

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

  private:
    int Held;
};

#endif
