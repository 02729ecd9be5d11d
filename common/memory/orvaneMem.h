/*
 * Accounted memory: the library's only allocator. A subsystem registers a module by name and hands
 * its id to every allocation and free; the module's counters then tell how many blocks and bytes
 * it holds. Two accounts stand side by side in each module: Mem (ordinary blocks) and Vmem (large
 * or long-lived buffers). A block goes back through the account and the module that it came from;
 * another module's id would move the charge.
 *
 *   | prefix: guard, block size | the caller's bytes | suffix: guard |
 *   0                           8                              size - 4
 *
 * A block is 12 bytes larger than what was asked for, counts with them, and must stay below 4 GiB:
 * more is refused as want of memory. The caller's bytes are aligned to 8. Damaged guards and leaks
 * are reported to the system log, never by failing the call: the block is released all the same.
 *
 * Any thread may allocate and free; a module must not be unregistered while others still use it.
 */
#ifndef ORVANE_MEM_H
#define ORVANE_MEM_H

#include "orvaneTypes.h"

#include <stddef.h>

OV_PUBLIC_BEGIN

#define OV_MEM_MODULE_COUNT 256
#define OV_MEM_NAME_SIZE 32 /* with the NUL */

/* Allocation flags: bit 0 asks for zeroed bytes, the others mean nothing in user space. */
typedef uint32_t OV_GFP_T;
#define OV_GFP_ZERO ((OV_GFP_T)1)

/* What a module holds: live blocks and their bytes, in each account. */
typedef struct _OV_USEAGE_INFO {
    char Name[OV_MEM_NAME_SIZE];
    int32_t MemCounter;
    int32_t MemUsage;
    int32_t VmemCounter;
    int32_t VmemUsage;
} OV_USEAGE_INFO;

/* Registers a module; NameLen is the true length of ModName, at most 31. Returns its id, 0 to 255;
 * a name that is registered already gives the same id, and one unregistration ends it for all.
 * -EINVAL for a null, empty or too long name, and when the table is full. */
int32_t OV_MemModRegister(const char *ModName, size_t NameLen);

/* Frees the id; blocks that are still out stay out, for ever: their free then does nothing. They
 * are reported to the system log (warning). An id that is not registered is left alone. */
void OV_MemModUnRegister(int32_t ModId);

/* TRUE for an id that is in use. */
BOOL OV_MemIsModRegistered(int32_t ModId);

/* The Mem account. Size in bytes without overhead. Null for an unregistered module and for want of
 * memory. The caller owns the block until OV_MemFree, which ignores null. */
void *OV_MemAlloc(int32_t ModId, size_t Size, OV_GFP_T Flags);
void *OV_MemZeroAlloc(int32_t ModId, size_t Size, OV_GFP_T Flags);
void OV_MemFree(int32_t ModId, void *Ptr);

/* Changes the block's size, moving it where needed; null Ptr allocates. Flags mean nothing: bytes
 * gained are not zeroed. Size 0 frees and returns null. On failure null, and Ptr stays valid. */
void *OV_MemRealloc(int32_t ModId, void *Ptr, size_t Size, uint32_t Flags);

/* A copy of Str in the Mem account, or null. */
char *OV_MemStrDup(const char *Str, int32_t ModId, OV_GFP_T Flags);

/* The Vmem account, likewise. Its reallocation always copies into a fresh block; OldSize is not
 * used. */
void *OV_VmemAlloc(int32_t ModId, size_t Size);
void *OV_VmemZeroAlloc(int32_t ModId, size_t Size);
void *OV_VmemRealloc(int32_t ModId, void *Ptr, size_t Size, size_t OldSize);
void OV_VmemFree(int32_t ModId, void *Ptr);

/* Fills *Info, at one moment; for an unregistered module it is left as it was. */
void OV_MemGetUsage(int32_t ModId, OV_USEAGE_INFO *Info);

/* The platform's allocator itself, without guards and accounts; free() releases. Flags mean
 * nothing. */
void *OV_PlatformMemZeroAlloc(size_t Size, OV_GFP_T Flags);
void *OV_PlatformMemRealloc(void *Ptr, size_t Size, OV_GFP_T Flags);

OV_PUBLIC_END

#endif
