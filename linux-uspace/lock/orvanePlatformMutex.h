/*
 * The library's mutex: always recursive, so that a module may enter its own locked sections
 * again. The operations return nothing: a lock that fails is a broken invariant and stops the
 * process with the assertion "!ret", located by this header and the operation's name.
 */
#ifndef ORVANE_PLATFORM_MUTEX_H
#define ORVANE_PLATFORM_MUTEX_H

#include "orvaneAssert.h"

#include <pthread.h>

typedef pthread_mutex_t OV_PLATFORM_MUTEX_T;
typedef OV_PLATFORM_MUTEX_T OV_MUTEX_T;

#ifndef __USE_XOPEN2K8 /* hidden from strict ISO C */
OV_EXTERN_C_BEGIN
extern int pthread_mutexattr_settype(pthread_mutexattr_t *Attr, int Kind) __THROW
    __attribute__((__nonnull__(1)));
OV_EXTERN_C_END
#endif

#define OV_MUTEX_ASSERT(Result) \
    OV_ASSERT_AT(!(Result), "!ret", "orvanePlatformMutex", __LINE__, __func__)

/* Makes a recursive mutex of the memory at Mutex, whatever it held before. */
static inline void OV_MutexInit(OV_MUTEX_T *Mutex)
{
    pthread_mutexattr_t Attr;

    OV_MUTEX_ASSERT(pthread_mutexattr_init(&Attr));
    OV_MUTEX_ASSERT(pthread_mutexattr_settype(&Attr, PTHREAD_MUTEX_RECURSIVE_NP));
    OV_MUTEX_ASSERT(pthread_mutex_init(Mutex, &Attr));
    OV_MUTEX_ASSERT(pthread_mutexattr_destroy(&Attr));
}

/* Waits until the mutex is free or the caller has it already. */
static inline void OV_MutexLock(OV_MUTEX_T *Mutex)
{
    OV_MUTEX_ASSERT(pthread_mutex_lock(Mutex));
}

/* Undoes one OV_MutexLock of the caller. */
static inline void OV_MutexUnlock(OV_MUTEX_T *Mutex)
{
    OV_MUTEX_ASSERT(pthread_mutex_unlock(Mutex));
}

/* The mutex must be free. */
static inline void OV_MutexDestroy(OV_MUTEX_T *Mutex)
{
    OV_MUTEX_ASSERT(pthread_mutex_destroy(Mutex));
}

#endif
