/*
 * The guard words around the caller's bytes, for every allocator of the library. What is given out
 * lies between a prefix and a suffix; the prefix also holds the size of the whole:
 *
 *   | _OV_MEM_PREFIX | the caller's bytes | _OV_MEM_SUFFIX |
 */
#ifndef ORVANE_MEM_GUARD_INTERNAL_H
#define ORVANE_MEM_GUARD_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

static constexpr uint32_t MEM_PREFIX_CANARY = 0x544F4C56; /* "TOLV" */
static constexpr uint32_t MEM_SUFFIX_CANARY = 0x52554D42; /* "RUMB" */

struct _OV_MEM_PREFIX {
    uint32_t Canary;
    uint32_t Size; /* prefix, the caller's bytes and suffix */
};

struct _OV_MEM_SUFFIX {
    uint32_t Canary;
};

static constexpr size_t MEM_OVERHEAD = sizeof(_OV_MEM_PREFIX) + sizeof(_OV_MEM_SUFFIX);
static_assert(MEM_OVERHEAD == 12 && offsetof(_OV_MEM_PREFIX, Size) == 4);

/* What was found around a block. Canary is the damaged word's value. */
struct MEM_GUARDS {
    enum { INTACT, PREFIX_DAMAGED, SUFFIX_DAMAGED } State;
    uint32_t Canary;
};

/* The size of the whole for a caller's Size; 0 when the prefix could not hold it. */
static inline uint32_t _OV_MemGuardedSize(size_t Size)
{
    return Size > UINT32_MAX - MEM_OVERHEAD ? 0 : static_cast<uint32_t>(Size + MEM_OVERHEAD);
}

static inline _OV_MEM_PREFIX *_OV_MemPrefix(void *Ptr)
{
    return static_cast<_OV_MEM_PREFIX *>(Ptr) - 1;
}

/* Size is that of the whole; returns the caller's bytes. The suffix may stand anywhere. */
static inline void *_OV_MemGuard(void *Start, uint32_t Size)
{
    _OV_MEM_PREFIX *Prefix = static_cast<_OV_MEM_PREFIX *>(Start);
    const _OV_MEM_SUFFIX Suffix = {MEM_SUFFIX_CANARY};

    *Prefix = {MEM_PREFIX_CANARY, Size};
    memcpy(static_cast<char *>(Start) + Size - sizeof(Suffix), &Suffix, sizeof(Suffix));
    return Prefix + 1;
}

/* Whether a block whose whole is Size bytes is as it was given out. */
static inline bool _OV_MemIsIntact(const _OV_MEM_PREFIX *Prefix, uint32_t Size)
{
    _OV_MEM_SUFFIX Suffix;

    if (Prefix->Canary != MEM_PREFIX_CANARY || Prefix->Size != Size) {
        return false;
    }
    memcpy(&Suffix, reinterpret_cast<const char *>(Prefix) + Size - sizeof(Suffix), sizeof(Suffix));
    return Suffix.Canary == MEM_SUFFIX_CANARY;
}

/* Room is what the platform gave from Prefix on: bytes written just before the caller's own hit
 * the size first, and a suffix is not looked for where no memory of ours is. */
static inline MEM_GUARDS _OV_MemGuardsOf(const _OV_MEM_PREFIX *Prefix, size_t Room)
{
    if (Prefix->Canary != MEM_PREFIX_CANARY) {
        return {MEM_GUARDS::PREFIX_DAMAGED, Prefix->Canary};
    }
    if (Prefix->Size < MEM_OVERHEAD || Prefix->Size > Room) {
        return {MEM_GUARDS::SUFFIX_DAMAGED, 0};
    }
    _OV_MEM_SUFFIX Suffix;
    memcpy(&Suffix, reinterpret_cast<const char *>(Prefix) + Prefix->Size - sizeof(Suffix),
           sizeof(Suffix));
    if (Suffix.Canary != MEM_SUFFIX_CANARY) {
        return {MEM_GUARDS::SUFFIX_DAMAGED, Suffix.Canary};
    }
    return {MEM_GUARDS::INTACT, 0};
}

#endif
