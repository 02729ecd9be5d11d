/*
 * The library's spin lock, private to the process: for sections as short as a counter's update,
 * one log line or one list operation. Not recursive. The operations return nothing: a lock that
 * fails is a broken invariant and stops the process with the assertion "!ret", located by this
 * header and the operation's name.
 *
 * The _BH variants mark sections that a kernel build shares with its bottom halves; here they are
 * the plain lock.
 */
#ifndef ORVANE_PLATFORM_SPINLOCK_H
#define ORVANE_PLATFORM_SPINLOCK_H

#include "orvaneAssert.h"

#include <pthread.h>

/* What <pthread.h> calls pthread_spinlock_t, and hides with these four from strict ISO C. */
typedef volatile int OV_PLATFORM_SPINLOCK_T;
typedef OV_PLATFORM_SPINLOCK_T OV_SPINLOCK_T;

#ifndef __USE_XOPEN2K
OV_EXTERN_C_BEGIN
extern int pthread_spin_init(OV_SPINLOCK_T *Lock, int Shared) __THROW;
extern int pthread_spin_lock(OV_SPINLOCK_T *Lock) __THROW;
extern int pthread_spin_unlock(OV_SPINLOCK_T *Lock) __THROW;
OV_EXTERN_C_END
#endif

#define OV_SPINLOCK_ASSERT(Result) \
    OV_ASSERT_AT(!(Result), "!ret", "orvanePlatformSpinlock", __LINE__, __func__)

/* Makes a free lock of the memory at Lock, whatever it held before. */
static inline void OV_SpinlockInit(OV_SPINLOCK_T *Lock)
{
    OV_SPINLOCK_ASSERT(pthread_spin_init(Lock, PTHREAD_PROCESS_PRIVATE));
}

/* Spins until the lock is free. Not recursive. */
static inline void OV_SpinLock(OV_SPINLOCK_T *Lock)
{
    OV_SPINLOCK_ASSERT(pthread_spin_lock(Lock));
}

/* Gives the lock back. */
static inline void OV_SpinUnlock(OV_SPINLOCK_T *Lock)
{
    OV_SPINLOCK_ASSERT(pthread_spin_unlock(Lock));
}

/* As OV_SpinLock: there are no bottom halves in user space. */
static inline void OV_SpinLock_BH(OV_SPINLOCK_T *Lock)
{
    OV_SpinLock(Lock);
}

/* As OV_SpinUnlock. */
static inline void OV_SpinUnlock_BH(OV_SPINLOCK_T *Lock)
{
    OV_SpinUnlock(Lock);
}

#endif
