#include "orvaneMem.h"

#include "orvaneForeignInternal.h"
#include "orvaneMemGuardInternal.h"
#include "orvaneMemInternal.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>

static constexpr size_t BIG_SIZE = 8191; /* a block above it is worth a warning */

/* The two bits of a slot's State. */
static constexpr uint32_t REGISTERED = 1;
static constexpr uint32_t PRINTED_BIG_SIZE_LOG = 2;

/* Each on cache lines of its own: modules allocate on different threads. */
struct alignas(64) _OV_MEM_USEAGE {
    FORK_SPINLOCK<FORK_RANK_MEMORY_MODULE> Lock; /* guards all but State */
    std::atomic<uint32_t> State; /* written under the lock, read without it as well */
    char Name[OV_MEM_NAME_SIZE];
    int32_t MemCounter;
    int32_t MemUsage;
    int32_t VmemCounter;
    int32_t VmemUsage;
    int32_t InheritedMem; /* a forked child's blocks of before, which belong to nobody in it */
    int32_t InheritedVmem;
};

/* The index is the module's id. Slots are taken and given back under g_MemMutex. */
static constinit _OV_MEM_USEAGE g_TraceMem[OV_MEM_MODULE_COUNT] = {};

/* A child has its parent's modules and accounts. What other threads of the parent held is nobody's
 * in it, and no leak of its own. */
static void _NoteInherited()
{
    for (_OV_MEM_USEAGE &Module : g_TraceMem) {
        Module.InheritedMem = Module.MemCounter;
        Module.InheritedVmem = Module.VmemCounter;
    }
}
static constinit FORK_MUTEX g_MemMutex(FORK_RANK_MEMORY_MODULES, HELD_FOR_A_MOMENT, _NoteInherited);

BOOL OV_MemIsModRegistered(int32_t ModId)
{
    return ModId >= 0 && ModId < OV_MEM_MODULE_COUNT &&
           (g_TraceMem[ModId].State.load(std::memory_order_acquire) & REGISTERED) != 0;
}

static int32_t _RegisterIn(int32_t ModId, const char *ModName)
{
    _OV_MEM_USEAGE &Module = g_TraceMem[ModId];
    const LOCK_SCOPE Lock(Module.Lock);

    OV_SafeStrCopy(Module.Name, sizeof(Module.Name), ModName);
    /* Marked as warned from the start, and meant so: a registered module is never warned of a big
     * block. */
    Module.State.store(REGISTERED | PRINTED_BIG_SIZE_LOG, std::memory_order_release);
    return ModId;
}

int32_t OV_MemModRegister(const char *ModName, size_t NameLen)
{
    if (ModName == nullptr || NameLen == 0 || NameLen >= OV_MEM_NAME_SIZE) {
        return -EINVAL;
    }

    const MUTEX_SCOPE Lock(g_MemMutex);
    int32_t Free = -1;
    for (int32_t ModId = 0; ModId < OV_MEM_MODULE_COUNT; ModId++) {
        const char *Name = g_TraceMem[ModId].Name;

        if (!OV_MemIsModRegistered(ModId)) {
            Free = Free < 0 ? ModId : Free;
        } else if (strlen(Name) == NameLen && strncmp(Name, ModName, NameLen) == 0) {
            return ModId;
        }
    }
    return Free < 0 ? -EINVAL : _RegisterIn(Free, ModName);
}

/* Blocks below zero have been freed in the wrong module. */
static bool _IsLeak(int32_t Blocks, int32_t Inherited)
{
    return Blocks < 0 || Blocks > Inherited;
}

void OV_MemModUnRegister(int32_t ModId)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(g_MemMutex);
    if (!OV_MemIsModRegistered(ModId)) {
        return;
    }

    _OV_MEM_USEAGE &Module = g_TraceMem[ModId];
    OV_USEAGE_INFO Left = {};
    OV_MemGetUsage(ModId, &Left);
    if (_IsLeak(Left.MemCounter, Module.InheritedMem) ||
        _IsLeak(Left.VmemCounter, Module.InheritedVmem)) {
        OV_SYSLOG(LOG_WARNING,
                  "MODULE[%s] unregister with memory leak(MemCounter %d, MemUsage %d, VmemCounter "
                  "%d, VmemUsage %d).\n",
                  Left.Name, Left.MemCounter, Left.MemUsage, Left.VmemCounter, Left.VmemUsage);
    }

    /* The lock stays usable: whoever still counts in a module that goes must not spin for ever. */
    const LOCK_SCOPE Counters(Module.Lock);
    Module.State.store(0, std::memory_order_release);
    memset(Module.Name, 0, sizeof(Module.Name));
    Module.MemCounter = Module.MemUsage = 0;
    Module.VmemCounter = Module.VmemUsage = 0;
    Module.InheritedMem = Module.InheritedVmem = 0;
}

/* Usage is kept modulo 2^32, so that a damaged size moves it by no more than it says. */
static void _Charge(int32_t ModId, int32_t _OV_MEM_USEAGE::*Counter, int32_t Blocks,
                    int32_t _OV_MEM_USEAGE::*Usage, uint32_t Bytes)
{
    _OV_MEM_USEAGE &Module = g_TraceMem[ModId];
    const LOCK_SCOPE Lock(Module.Lock);

    if (Module.State.load(std::memory_order_relaxed) == 0) {
        return; /* the module went since the caller looked: the slot's next one starts at 0 */
    }
    Module.*Counter += Blocks;
    Module.*Usage = static_cast<int32_t>(static_cast<uint32_t>(Module.*Usage) + Bytes);
}

static void _OV_MemInc(int32_t ModId, uint32_t Bytes)
{
    _Charge(ModId, &_OV_MEM_USEAGE::MemCounter, 1, &_OV_MEM_USEAGE::MemUsage, Bytes);
}

static void _OV_MemDec(int32_t ModId, uint32_t Bytes)
{
    _Charge(ModId, &_OV_MEM_USEAGE::MemCounter, -1, &_OV_MEM_USEAGE::MemUsage, 0U - Bytes);
}

static void _OV_VmemInc(int32_t ModId, uint32_t Bytes)
{
    _Charge(ModId, &_OV_MEM_USEAGE::VmemCounter, 1, &_OV_MEM_USEAGE::VmemUsage, Bytes);
}

static void _OV_VmemDec(int32_t ModId, uint32_t Bytes)
{
    _Charge(ModId, &_OV_MEM_USEAGE::VmemCounter, -1, &_OV_MEM_USEAGE::VmemUsage, 0U - Bytes);
}

/* What the two accounts differ in. */
struct MEM_ACCOUNT {
    void (*Inc)(int32_t ModId, uint32_t Bytes);
    void (*Dec)(int32_t ModId, uint32_t Bytes);
    bool WatchesBigSize;
};
static constexpr MEM_ACCOUNT MEM = {_OV_MemInc, _OV_MemDec, true};
static constexpr MEM_ACCOUNT VMEM = {_OV_VmemInc, _OV_VmemDec, false};

/* At most one warning a module; see _RegisterIn for why there is none in practice. */
static void _OV_MemCheckBigSize(int32_t ModId, size_t Size)
{
    _OV_MEM_USEAGE &Module = g_TraceMem[ModId];

    if (Size > BIG_SIZE && (Module.State.load() & PRINTED_BIG_SIZE_LOG) == 0 &&
        (Module.State.fetch_or(PRINTED_BIG_SIZE_LOG) & PRINTED_BIG_SIZE_LOG) == 0) {
        OV_SYSLOG(LOG_WARNING, "MODULE[%s] attempt to malloc big size(%zd) memory.\n", Module.Name,
                  static_cast<ssize_t>(Size));
    }
}

/* 0 for a size that no block can have. */
static uint32_t _BlockSize(int32_t ModId, const MEM_ACCOUNT &Account, size_t Size)
{
    const uint32_t Actual = _OV_MemGuardedSize(Size);

    if (Account.WatchesBigSize) {
        _OV_MemCheckBigSize(ModId, Actual);
    }
    return Actual;
}

static void *_Alloc(int32_t ModId, const MEM_ACCOUNT &Account, size_t Size, bool Zeroed)
{
    if (!OV_MemIsModRegistered(ModId)) {
        return nullptr;
    }

    const uint32_t Actual = _BlockSize(ModId, Account, Size);
    if (Actual == 0) {
        return nullptr;
    }
    void *Block = Zeroed ? OV_PlatformMemZeroAlloc(Actual, 0) : malloc(Actual);
    if (Block == nullptr) {
        return nullptr;
    }
    Account.Inc(ModId, Actual); /* first: a lock waits for all writes before it */
    return _OV_MemGuard(Block, Actual);
}

/* Kept out of the way of the blocks that are whole. The two arrows differ, and both stay: they are
 * part of the texts. */
static void __attribute__((cold, noinline))
_ReportDamage(int32_t ModId, const char *Operation, void *Ptr, const MEM_GUARDS &Found)
{
    const CANCEL_SCOPE Whole; /* the caller is about to release the block */
    const char *Name = g_TraceMem[ModId].Name;
    const uint32_t Size = _OV_MemPrefix(Ptr)->Size;

    if (Found.State == MEM_GUARDS::PREFIX_DAMAGED) {
        OV_SYSLOG(LOG_ERR, "MODULE[%s]%s mem %p, prefix is corrupt(0x%X -> 0x%X), size=%u\n", Name,
                  Operation, Ptr, MEM_PREFIX_CANARY, Found.Canary, Size);
    } else {
        OV_SYSLOG(LOG_ERR, "MODULE[%s]%s mem %p, suffix is corrupt(0x%X -- > 0x%X), size=%u\n",
                  Name, Operation, Ptr, MEM_SUFFIX_CANARY, Found.Canary, Size);
    }
}

static void _CheckGuards(int32_t ModId, const char *Operation, void *Ptr)
{
    _OV_MEM_PREFIX *Prefix = _OV_MemPrefix(Ptr);
    const MEM_GUARDS Found = _OV_MemGuardsOf(Prefix, malloc_usable_size(Prefix));

    if (Found.State != MEM_GUARDS::INTACT) {
        _ReportDamage(ModId, Operation, Ptr, Found);
    }
}

/* A damaged block is released like any other, and its account goes down by the size that it bears
 * now: keeping it back would turn each damage into a leak as well. */
static void _Free(int32_t ModId, const MEM_ACCOUNT &Account, void *Ptr)
{
    if (!OV_MemIsModRegistered(ModId) || Ptr == nullptr) {
        return;
    }
    _CheckGuards(ModId, "free", Ptr);
    _OV_MEM_PREFIX *Block = _OV_MemPrefix(Ptr);
    Account.Dec(ModId, Block->Size);
    free(Block);
}

void *OV_MemAlloc(int32_t ModId, size_t Size, OV_GFP_T Flags)
{
    return _Alloc(ModId, MEM, Size, (Flags & OV_GFP_ZERO) != 0);
}

void *OV_MemZeroAlloc(int32_t ModId, size_t Size, OV_GFP_T /*Flags*/)
{
    return _Alloc(ModId, MEM, Size, true);
}

void OV_MemFree(int32_t ModId, void *Ptr)
{
    _Free(ModId, MEM, Ptr);
}

void *OV_MemRealloc(int32_t ModId, void *Ptr, size_t Size, uint32_t Flags)
{
    if (Size == 0) {
        OV_MemFree(ModId, Ptr);
        return nullptr;
    }
    if (!OV_MemIsModRegistered(ModId)) {
        return nullptr;
    }

    void *Old = nullptr;
    uint32_t OldSize = 0;
    if (Ptr != nullptr) {
        _CheckGuards(ModId, "realloc", Ptr);
        Old = _OV_MemPrefix(Ptr);
        OldSize = _OV_MemPrefix(Ptr)->Size;
    }
    const uint32_t Actual = _BlockSize(ModId, MEM, Size);
    void *Block = Actual == 0 ? nullptr : OV_PlatformMemRealloc(Old, Actual, Flags);
    if (Block == nullptr) {
        return nullptr;
    }
    if (Old != nullptr) {
        _OV_MemDec(ModId, OldSize);
    }
    _OV_MemInc(ModId, Actual);
    return _OV_MemGuard(Block, Actual);
}

char *OV_MemStrDup(const char *Str, int32_t ModId, OV_GFP_T Flags)
{
    const size_t Size = strlen(Str) + 1;
    char *Copy = static_cast<char *>(OV_MemZeroAlloc(ModId, Size, Flags));

    if (Copy == nullptr) {
        return nullptr;
    }
    if (OV_SafeStrCopy(Copy, Size, Str) >= Size) { /* Str grew meanwhile */
        OV_MemFree(ModId, Copy);
        return nullptr;
    }
    return Copy;
}

void *OV_VmemAlloc(int32_t ModId, size_t Size)
{
    return _Alloc(ModId, VMEM, Size, false);
}

void *OV_VmemZeroAlloc(int32_t ModId, size_t Size)
{
    return _Alloc(ModId, VMEM, Size, true);
}

void OV_VmemFree(int32_t ModId, void *Ptr)
{
    _Free(ModId, VMEM, Ptr);
}

/* The old block's own size decides how much is copied, whatever its guards say; but no more than
 * the platform gave. */
static size_t _BytesHeld(void *Ptr)
{
    const _OV_MEM_PREFIX *Prefix = _OV_MemPrefix(Ptr);
    const size_t Held = std::min<size_t>(Prefix->Size, malloc_usable_size(_OV_MemPrefix(Ptr)));

    return Held > MEM_OVERHEAD ? Held - MEM_OVERHEAD : 0;
}

void *OV_VmemRealloc(int32_t ModId, void *Ptr, size_t Size, size_t /*OldSize*/)
{
    if (!OV_MemIsModRegistered(ModId)) {
        return nullptr;
    }
    if (Size == 0) {
        OV_VmemFree(ModId, Ptr);
        return nullptr;
    }

    void *New = OV_VmemAlloc(ModId, Size);
    if (Ptr != nullptr && New != nullptr) {
        memcpy(New, Ptr, std::min(Size, _BytesHeld(Ptr)));
        OV_VmemFree(ModId, Ptr);
    }
    return New;
}

void OV_MemGetUsage(int32_t ModId, OV_USEAGE_INFO *Info)
{
    if (!OV_MemIsModRegistered(ModId)) {
        return;
    }
    _OV_MEM_USEAGE &Module = g_TraceMem[ModId];
    const LOCK_SCOPE Lock(Module.Lock);

    if (Module.State.load() == 0) {
        return; /* the module went meanwhile */
    }
    OV_SafeStrCopy(Info->Name, sizeof(Info->Name), Module.Name);
    Info->MemCounter = Module.MemCounter;
    Info->MemUsage = Module.MemUsage;
    Info->VmemCounter = Module.VmemCounter;
    Info->VmemUsage = Module.VmemUsage;
}

void _OV_MemDisown(int32_t ModId, void *Ptr)
{
    if (OV_MemIsModRegistered(ModId)) {
        _OV_MemDec(ModId, _OV_MemPrefix(Ptr)->Size);
    }
}

void _OV_MemFreeDisowned(void *Ptr)
{
    free(_OV_MemPrefix(Ptr));
}

void *OV_PlatformMemZeroAlloc(size_t Size, OV_GFP_T /*Flags*/)
{
    return calloc(1, Size);
}

void *OV_PlatformMemRealloc(void *Ptr, size_t Size, OV_GFP_T /*Flags*/)
{
    return realloc(Ptr, Size);
}
