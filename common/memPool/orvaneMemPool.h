/*
 * Memory pools: named, with blocks of one size each, addressed by a small id. Other builds of this
 * interface keep blocks in store; here each block is an allocation of its own, and a pool keeps its
 * parameters and the count of its live blocks. Blocks carry the guard words of accounted memory and
 * are charged to no module.
 *
 *   | header: link, origin | prefix: guard, size | the caller's bytes | suffix: guard |
 *   0                      24                    32                   32 + BlockSize
 *
 * Allocation, free and usage take no lock: they read the pool under RCU, and destruction waits for
 * them. Every thread that calls these three must be registered with liburcu's memory-barrier
 * flavour (OV_RcuRegisterThread of orvanePlatformRcu.h) before, and unregister before it ends: a
 * destruction does not wait for a thread that is not. The dispatch client's thread is, while a
 * handler runs. Creation and destruction may be called from any thread, but not inside an RCU read
 * section.
 */
#ifndef ORVANE_MEM_POOL_H
#define ORVANE_MEM_POOL_H

#include "orvaneMem.h"

OV_PUBLIC_BEGIN

#define OV_MEMPOOL_COUNT 32
#define OV_MEMPOOL_NAME_SIZE 32 /* with the NUL */

/* What a pool holds; BlockNum counts the blocks that are out. */
typedef struct _MEMPOOL_INFO {
    uint32_t BlockSize;
    uint32_t BlockNum;
    char Name[OV_MEMPOOL_NAME_SIZE];
} MEMPOOL_INFO;

/* Makes a pool of blocks of BlockSize bytes; bit 0 of GfpMask: OV_MemPoolAlloc zeroes them. Name is
 * cut at 31 characters; NameSize (at most 32; its length, or one more) bounds how much of it is
 * compared. BlockNum means nothing here. Returns the id, 0 to 31; of a pool of that name,
 * unchanged, where there is one. -EINVAL: no name, NameSize too large, or no free id; -ENOEXEC: no
 * memory. */
int32_t OV_MemPoolCreate(const char *Name, size_t NameSize, size_t BlockSize, uint32_t BlockNum,
                         OV_GFP_T GfpMask);

/* Id must be one that was given out: it is not checked. Blocks that are still out are lost, and
 * must not be freed once the id has gone to another pool. Waits for the readers of the moment. */
void OV_MemPoolDestroy(int32_t Id);

/* A block aligned to 8, or null: no such pool, or no memory. */
void *OV_MemPoolAlloc(int32_t Id);
void *OV_MemPoolZeroAlloc(int32_t Id);

/* Null is ignored. Damaged guards are reported to the system log; the block is released. */
void OV_MemPoolFree(int32_t Id, void *Ptr);

/* Fills *Info; without such a pool it is left as it was. */
void OV_MemPoolUsageById(int32_t Id, MEMPOOL_INFO *Info);

OV_PUBLIC_END

#endif
