# cmake -DFILES=FILE;... -DSTAMP=FILE -P checkLocks.cmake
#
# Fails for what a forked child could find held for ever: a lock in the library's sources that is
# none of the types of orvaneForkInternal.h, and a call of libc, libnl or liburcu past the one place
# that a fork waits for. The names are refused wherever they stand, but in comments and texts.
cmake_policy(VERSION 3.25)

# check(NAMES ALLOWED WHY): the names may stand in files of these names alone.
function(check Names Allowed Why)
    get_filename_component(Name ${File} NAME)
    if(NOT Name MATCHES "^(${Allowed})$" AND Text MATCHES "(^|[^A-Za-z0-9_])(${Names})([^A-Za-z0-9_]|$)")
        set(Faults "${Faults}${File}: ${CMAKE_MATCH_2}: ${Why}\n" PARENT_SCOPE)
    endif()
endfunction()

set(Faults "")
foreach(File IN LISTS FILES)
    file(READ ${File} Text)
    string(REGEX REPLACE "[][;\\]" " " Text "${Text}")
    string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" " " Text "${Text}")
    string(REGEX REPLACE "\"[^\"\n]*\"|//[^\n]*|# *include[^\n]*" " " Text "${Text}")
    check("OV_PLATFORM_MUTEX_T|OV_MUTEX_T|OV_PLATFORM_SPINLOCK_T|OV_SPINLOCK_T|pthread_(mutex|spinlock|rwlock|cond|barrier)_t|sem_t|mtx_t|(std::)?(recursive_|timed_|recursive_timed_|shared_|shared_timed_)?mutex|condition_variable(_any)?|atomic_flag|binary_semaphore|counting_semaphore|latch|barrier"
          "orvane(Fork|ForkInternal|PlatformMutex|PlatformSpinlock)\\.(cpp|h)"
          "a lock that a fork does not know")
    check("v?syslog|openlog|setlogmask|tzset|localtime|localtime_r|gmtime_r?|mktime|nl_connect|genl_connect|nl_close|nl_socket_free|nl_cache_mngt_[a-z]+|nl_cache_alloc_name|nl_cache_free|rtnl_[a-z]+_alloc_cache|nl_object_dump|OV_SynchronizeRcu|OV_RcuRegisterThread|OV_RcuUnregisterThread|urcu_memb_[a-z_]+"
          "orvane(ForeignInternal|LogLine|RtcLibnl|PlatformRcu|Thread)\\.(cpp|h)"
          "past the place that a fork waits for")
    check("popen|pclose|system" "linuxRtc\\.cpp" "past the place that a fork waits for")
endforeach()
if(Faults)
    message(FATAL_ERROR "${Faults}")
endif()
file(TOUCH ${STAMP})
