/* What the dispatch message shares with the dispatch client. */
#ifndef ORVANE_DISPATCH_INTERNAL_H
#define ORVANE_DISPATCH_INTERNAL_H

#include "orvaneDispatch.h"

#include <atomic>

/* The memory module of every descriptor; -1 while the client is not started. Written by the
 * client's start and stop. */
extern std::atomic<int32_t> g_MemModId;

/* Zeroes Size bytes of a buffer, large ones without touching pages that nothing was written to. */
void _OV_DispatchClear(void *Start, size_t Size);

#endif
