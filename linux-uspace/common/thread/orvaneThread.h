/*
 * Threads: a record of id and stop flag that belongs to who starts the thread, and the two ways in
 * which a thread learns that it is to end: it asks for the flag, or it is cancelled at a test
 * point.
 */
#ifndef ORVANE_THREAD_H
#define ORVANE_THREAD_H

#include "orvanePlatformResult.h"

#include <pthread.h>
#include <string.h>
#include <syslog.h>

typedef struct _OV_PLATFORM_THREAD_T {
    pthread_t Tid; /* 0: not started */
    BOOL IsStop;   /* set by whoever wants the thread to end */
} OV_PLATFORM_THREAD_T;
typedef OV_PLATFORM_THREAD_T OV_THREAD_T;

/* The size of a thread's name with its NUL, as the kernel keeps it. */
#define OV_THREAD_NAME_SIZE 16

#ifndef __USE_GNU /* hidden from strict ISO C */
OV_EXTERN_C_BEGIN
extern int pthread_setname_np(pthread_t Thread, const char *Name) __THROW;
OV_EXTERN_C_END
#endif

/* Starts Func(Arg) with the attributes (null: the default ones) and stores its id in *Thread, which
 * the new thread itself must not rely on. A Name of at most 15 characters is given to the thread,
 * a longer one is not; a detached thread that is given one must not end before this call does.
 * Returns 0, with errno as it was, or the negated errno that the failed creation left, where it
 * left none its own code. */
static inline OV_ERR_T OV_PlatformThreadRun(OV_THREAD_T *Thread, const pthread_attr_t *Attr,
                                            void *(*Func)(void *), void *Arg, const char *Name)
{
    const int ErrnoBefore = errno;
    pthread_t Tid;
    int Error;

    Thread->Tid = 0;
    Thread->IsStop = FALSE;
    errno = 0;
    Error = pthread_create(&Tid, Attr, Func, Arg);
    if (Error != 0) {
        /* errno tells which resource was wanting; where it was left alone, 0 would be a lie. */
        return errno != 0 ? -errno : -Error;
    }
    Thread->Tid = Tid;
    if (Name != NULL && strlen(Name) < OV_THREAD_NAME_SIZE) {
        pthread_setname_np(Tid, Name);
    }
    errno = ErrnoBefore;
    return 0;
}

/* OV_PlatformThreadRun, under the name for all platforms. */
static inline OV_ERR_T OV_ThreadRun(OV_THREAD_T *Thread, const pthread_attr_t *Attr,
                                    void *(*Func)(void *), void *Arg, const char *Name)
{
    return OV_PlatformThreadRun(Thread, Attr, Func, Arg, Name);
}

/* The flag in a copy of the record: who shares the record with other threads copies it under the
 * lock that guards it. A set flag is noted in the system log (debug). */
static inline BOOL OV_ThreadShouldStop(OV_THREAD_T Thread)
{
    if (Thread.IsStop) {
        syslog(LOG_DEBUG, "isStop : %d\n", Thread.IsStop);
    }
    return Thread.IsStop;
}

/* Ends the calling thread here if it has been cancelled. */
static inline void OV_ThreadAddStopTestPoint(void)
{
    pthread_testcancel();
}

#endif
