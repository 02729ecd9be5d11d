/*
 * For the library's own modules that end while a block of theirs is still in use: the block leaves
 * its module's Mem account, outlives the module, and is released without one.
 */
#ifndef ORVANE_MEM_INTERNAL_H
#define ORVANE_MEM_INTERNAL_H

#include "orvaneMem.h"

/* Neither takes null. */
void _OV_MemDisown(int32_t ModId, void *Ptr);
void _OV_MemFreeDisowned(void *Ptr);

#endif
