# cmake -DFILES=FILE;... -DSTAMP=FILE -P checkLocks.cmake
#
# Fails for what a forked child could find held for ever: a lock in the library's sources that is
# none of the types of orvaneForkInternal.h, and a call of libc, libnl or liburcu past the one place
# that a fork waits for.
cmake_policy(VERSION 3.25)

set(LOCKS "(OV_(PLATFORM_)?(MUTEX|SPINLOCK)_T|pthread_(mutex|spinlock|rwlock|cond|barrier)_t|sem_t|std::[a-z_]*mutex|std::condition_variable[a-z_]*)")
set(LOCKS_ALLOWED "orvane(Fork|ForkInternal|PlatformMutex|PlatformSpinlock)\\.(cpp|h)$")
set(CALLS "(syslog|vsyslog|tzset|localtime_r|localtime|nl_connect|genl_connect|nl_socket_free|nl_cache_mngt_[a-z]+|nl_cache_alloc_name|nl_cache_free|nl_object_dump|OV_SynchronizeRcu|OV_RcuRegisterThread|OV_RcuUnregisterThread|urcu_memb_[a-z_]+)")
set(CALLS_ALLOWED "orvane(ForeignInternal|LogLine|RtcLibnl|PlatformRcu|Thread)\\.(cpp|h)$")

set(Faults "")
foreach(File IN LISTS FILES)
    file(STRINGS ${File} Lines)
    set(Number 0)
    foreach(Line IN LISTS Lines)
        math(EXPR Number "${Number} + 1")
        if(Line MATCHES "^ *(/\\*|\\*|//|#)")
            continue()
        endif()
        if(NOT File MATCHES "${LOCKS_ALLOWED}" AND Line MATCHES "(^|[^A-Za-z_])${LOCKS}[ &*]+[A-Za-z_]+")
            string(APPEND Faults "${File}:${Number}: a lock that a fork does not know: ${Line}\n")
        endif()
        if(NOT File MATCHES "${CALLS_ALLOWED}" AND Line MATCHES "(^|[^A-Za-z_])${CALLS}\\(")
            string(APPEND Faults "${File}:${Number}: past the place that a fork waits for: ${Line}\n")
        endif()
    endforeach()
endforeach()
if(Faults)
    message(FATAL_ERROR "${Faults}")
endif()
file(TOUCH ${STAMP})
