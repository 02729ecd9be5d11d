/* Allocation charged to the library's module, in each file that needs it. */
#ifndef ORVANE_LIBRTC_MEM_INTERNAL_H
#define ORVANE_LIBRTC_MEM_INTERNAL_H

#include "orvaneMem.h"

#include <atomic>

/* -1 while not registered: allocations then give null. Written at the library's start and stop,
 * read by the threads that deliver events. */
extern std::atomic<int32_t> g_LibrtcModID;

/* Counts the registrations: the same id may come again, and it is not the same account. */
extern std::atomic<uint32_t> g_LibrtcModStart;

static inline void *OV_LibrtcMemAlloc(const size_t Size)
{
    return OV_MemAlloc(g_LibrtcModID, Size, 0);
}

static inline void OV_LibrtcMemFree(void *Ptr)
{
    OV_MemFree(g_LibrtcModID, Ptr);
}

#endif
