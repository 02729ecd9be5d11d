/*
 * User-space RCU, the memory-barrier flavour of liburcu: readers never wait, a writer that has
 * unpublished a record waits for all readers that may still see it before it frees the record.
 *
 * A thread that reads must be registered before its first read section and unregistered before it
 * ends; a grace period does not wait for the readers of other threads. A program that includes
 * this header links liburcu-memb (liburcu-dev); the library's other headers do not need it.
 */
#ifndef ORVANE_PLATFORM_RCU_H
#define ORVANE_PLATFORM_RCU_H

#include <urcu/urcu-memb.h>

/* Who defines OV_RCU_INLINE has liburcu's few lines for a read section in place of calls, which
 * costs a fifth, and must be built again with each release of liburcu. The library does, for its
 * pools. */
#if defined(OV_RCU_INLINE) && !defined(__SANITIZE_THREAD__)
#    include <urcu/static/urcu-memb.h>
#    define OV_RCU_READ_LOCK _urcu_memb_read_lock
#    define OV_RCU_READ_UNLOCK _urcu_memb_read_unlock
#else
#    define OV_RCU_READ_LOCK urcu_memb_read_lock
#    define OV_RCU_READ_UNLOCK urcu_memb_read_unlock
#endif

/* The sanitizer does not see the ordering inside liburcu and is told of it here: what was read in
 * a section happens before what follows the grace period. */
#ifdef __SANITIZE_THREAD__
#    include <sanitizer/tsan_interface.h>
static inline void *OV_RcuOrder(void)
{
    static char Order;
    return &Order;
}
#    define OV_RCU_RELEASE() __tsan_release(OV_RcuOrder())
#    define OV_RCU_ACQUIRE() __tsan_acquire(OV_RcuOrder())
#else
#    define OV_RCU_RELEASE() ((void)0)
#    define OV_RCU_ACQUIRE() ((void)0)
#endif

/* Once for each thread that enters read sections. */
static inline void OV_RcuRegisterThread(void)
{
    urcu_memb_register_thread();
}

/* Before the thread ends. */
static inline void OV_RcuUnregisterThread(void)
{
    urcu_memb_unregister_thread();
}

/* Read sections nest. */
static inline void OV_RcuReadLock(void)
{
    OV_RCU_READ_LOCK();
}

/* Ends a read section. */
static inline void OV_RcuReadUnlock(void)
{
    OV_RCU_RELEASE();
    OV_RCU_READ_UNLOCK();
}

/* Waits until every read section that was open at the call is over. Not to be called inside one. */
static inline void OV_SynchronizeRcu(void)
{
    urcu_memb_synchronize_rcu();
    OV_RCU_ACQUIRE();
}

#endif
