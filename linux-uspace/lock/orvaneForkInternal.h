/*
 * For modules with locks and threads that a program may fork under: the child has one thread, and
 * the locks as the others left them.
 */
#ifndef ORVANE_FORK_INTERNAL_H
#define ORVANE_FORK_INTERNAL_H

#include "orvanePlatformMutex.h"

/* What a forked child sets a lock to: whoever held it is not there. */
inline constexpr OV_MUTEX_T FREE_MUTEX = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

/* From the first call on, Forget runs in each forked child. It takes no lock. */
template <void (*Forget)()>
void WatchForks()
{
    static pthread_once_t IsWatching = PTHREAD_ONCE_INIT;

    pthread_once(&IsWatching, [] { pthread_atfork(nullptr, nullptr, Forget); });
}

#endif
