/*
 * User-space RCU, the memory-barrier flavour of liburcu: readers never wait, a writer that has
 * unpublished a record waits for all readers that may still see it before it frees the record.
 *
 * A thread that reads must be registered before its first read section and unregistered before it
 * ends; a grace period does not wait for the readers of other threads. liburcu cannot be told of a
 * fork: a child for whose other threads nobody unregistered must neither wait for a grace period
 * nor destroy a pool. The library sees to its own thread. A program that includes
 * this header links liburcu-memb (liburcu-dev); the library's other headers do not need it.
 */
#ifndef ORVANE_PLATFORM_RCU_H
#define ORVANE_PLATFORM_RCU_H

#include <urcu/urcu-memb.h>

/* The thread sanitizer, as gcc and as clang tell of it. */
#if defined(__has_feature)
#    if __has_feature(thread_sanitizer)
#        define OV_RCU_THREAD_SANITIZER 1
#    endif
#endif
#if defined(__SANITIZE_THREAD__)
#    define OV_RCU_THREAD_SANITIZER 1
#endif

/* The sanitizer does not see the ordering inside liburcu and is told of it here: what was read in
 * a section happens before what follows the grace period. It goes by an address, which has to be
 * one for the whole process: that of a function of liburcu's is. */
#ifdef OV_RCU_THREAD_SANITIZER
#    include <sanitizer/tsan_interface.h>
#    include <stdint.h>
#    define OV_RCU_ORDER ((void *)(uintptr_t)&urcu_memb_synchronize_rcu)
#    define OV_RCU_RELEASE() __tsan_release(OV_RCU_ORDER)
#    define OV_RCU_ACQUIRE() __tsan_acquire(OV_RCU_ORDER)
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
    urcu_memb_read_lock();
}

/* Ends a read section. */
static inline void OV_RcuReadUnlock(void)
{
    OV_RCU_RELEASE();
    urcu_memb_read_unlock();
}

/* Waits until every read section that was open at the call is over. Not to be called inside one. */
static inline void OV_SynchronizeRcu(void)
{
    urcu_memb_synchronize_rcu();
    OV_RCU_ACQUIRE();
}

#endif
