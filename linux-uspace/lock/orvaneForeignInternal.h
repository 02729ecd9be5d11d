/*
 * What libc and liburcu guard by locks that a fork leaves held in the child. The library's threads
 * are inside only with one of these, so that a fork finds them outside.
 */
#ifndef ORVANE_FOREIGN_INTERNAL_H
#define ORVANE_FOREIGN_INTERNAL_H

#include "orvanePlatformRcu.h"
#include "orvaneScope.h"

#include <syslog.h>

/* tzset, localtime_r. */
inline constinit FORK_MUTEX g_TimeZoneLock(FORK_RANK_TIME_ZONE, HELD_FOR_A_MOMENT);

/* syslog, which also asks for the local time. */
inline constinit FORK_MUTEX g_SystemLogLock(FORK_RANK_SYSTEM_LOG, HELD_FOR_A_MOMENT);

class SYSTEM_LOG_SCOPE {
  public:
    SYSTEM_LOG_SCOPE() : Turn(g_SystemLogLock) {}
    SYSTEM_LOG_SCOPE(const SYSTEM_LOG_SCOPE &) = delete;
    SYSTEM_LOG_SCOPE &operator=(const SYSTEM_LOG_SCOPE &) = delete;

  private:
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Turn;
};

/* The library's one way to the system log; Format is a literal. In a child whose fork did not wait
 * long enough the line is lost: libc's lock may be held for ever. */
#define OV_SYSLOG(Priority, ...)            \
    do {                                    \
        const SYSTEM_LOG_SCOPE SyslogScope; \
        if (!g_SystemLogLock.IsTorn()) {    \
            syslog(Priority, __VA_ARGS__);  \
        }                                   \
    } while (0)

/* liburcu's list of registered threads, and its grace periods. This flavour cannot be told of a
 * fork: a thread that the child does not have must not stand in the list, since it would be waited
 * for, and its memory linked in twice. The library's own thread therefore is registered only while
 * it has g_RcuReaderLock, which a fork takes. */
inline constinit FORK_MUTEX g_RcuReaderLock(FORK_RANK_RCU_READER, HELD_FOR_A_CALLBACK);
inline constinit FORK_MUTEX g_RcuLock(FORK_RANK_RCU, HELD_FOR_A_MOMENT);

/* false in a child whose fork did not wait long enough for the two: nothing of liburcu may be
 * called that looks at the list. */
inline bool _OV_RcuIsWhole()
{
    return !g_RcuReaderLock.IsTorn() && !g_RcuLock.IsTorn();
}

/* The calling thread may enter read sections. */
class RCU_READER_SCOPE {
  public:
    RCU_READER_SCOPE() : Reading(g_RcuReaderLock), IsRegistered(_OV_RcuIsWhole())
    {
        if (IsRegistered) {
            const MUTEX_SCOPE Rcu(g_RcuLock);
            OV_RcuRegisterThread();
        }
    }
    ~RCU_READER_SCOPE()
    {
        if (IsRegistered) {
            const MUTEX_SCOPE Rcu(g_RcuLock);
            OV_RcuUnregisterThread();
        }
    }
    RCU_READER_SCOPE(const RCU_READER_SCOPE &) = delete;
    RCU_READER_SCOPE &operator=(const RCU_READER_SCOPE &) = delete;

  private:
    const MUTEX_SCOPE Reading;
    const bool IsRegistered;
};

/* Waits for the readers of the moment; false where nobody can, and they may see what they saw. */
inline bool _OV_RcuWaitForReaders()
{
    const MUTEX_SCOPE Rcu(g_RcuLock);

    if (!_OV_RcuIsWhole()) {
        return false;
    }
    OV_SynchronizeRcu();
    return true;
}

#endif
