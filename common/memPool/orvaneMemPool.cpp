#include "orvaneMemPool.h"

#include "orvaneForeignInternal.h"
#include "orvaneMemGuardInternal.h"
#include "orvaneSafeStr.h"

#include <atomic>
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>

struct _OV_PERCPU_MEMPOOL {
    std::atomic<uint32_t> BlockNum; /* blocks that are out */
};

struct _OV_PLATFORM_MEMPOOL {
    OV_LIST_HEAD FreeList; /* where a build that keeps blocks in store has them: empty */
};

/* Read under RCU; but for the counter nothing changes once it is published. */
struct _OV_MEMPOOL {
    char Name[OV_MEMPOOL_NAME_SIZE];
    OV_GFP_T GfpMask;
    uint32_t BlockSize;
    _OV_PERCPU_MEMPOOL *PerCpuPool;
    _OV_PLATFORM_MEMPOOL *Pool; /* points at PlatformPool once that is made */
    _OV_PLATFORM_MEMPOOL PlatformPool;
};
using OV_MEMPOOL = _OV_MEMPOOL;

enum _MEM_BLOCK_ORIGIN { MEM_BLOCK_ORIGIN_INIT = 0, MEM_BLOCK_ORIGIN_OS = 1 };

struct _MEM_BLOCK_HEADER {
    OV_LIST_HEAD Head;
    _MEM_BLOCK_ORIGIN Origin;
};
using MEM_BLOCK_HEADER_S = _MEM_BLOCK_HEADER;
static_assert(sizeof(MEM_BLOCK_HEADER_S) == 24);

/* Slots are written under sg_MempoolsLock and read under RCU. */
static std::atomic<OV_MEMPOOL *> sg_Mempools[OV_MEMPOOL_COUNT];
static constinit FORK_SPINLOCK<FORK_RANK_POOLS> sg_MempoolsLock;

static void _LogFirstUse()
{
    OV_SYSLOG(LOG_DEBUG, "[%s]\n", "OV_MemPoolCreate");
}

static _OV_PLATFORM_MEMPOOL *OV_MemPoolPlatformCreate(OV_MEMPOOL *Pool, uint32_t /*BlockNum*/)
{
    OV_InitListHead(&Pool->PlatformPool.FreeList);
    return &Pool->PlatformPool;
}

static void OV_MemPoolPlatformDestroy(_OV_PLATFORM_MEMPOOL * /*Pool*/) {}

static void *_WithHeader(void *Block)
{
    MEM_BLOCK_HEADER_S *Header = static_cast<MEM_BLOCK_HEADER_S *>(Block);

    if (Header == nullptr) {
        return nullptr;
    }
    OV_InitListHead(&Header->Head);
    Header->Origin = MEM_BLOCK_ORIGIN_OS;
    return Header + 1;
}

static void *OV_MemPoolPlatformNewAlloc(size_t Size)
{
    return _WithHeader(malloc(Size + sizeof(MEM_BLOCK_HEADER_S)));
}

static void *OV_MemPoolPlatformNewZeroAlloc(size_t Size)
{
    return _WithHeader(OV_PlatformMemZeroAlloc(Size + sizeof(MEM_BLOCK_HEADER_S), 0));
}

static void OV_MemPooLPlatformFree(void *Block)
{
    free(static_cast<MEM_BLOCK_HEADER_S *>(Block) - 1);
}

static void _DiscardPool(OV_MEMPOOL *Pool)
{
    if (Pool != nullptr) {
        free(Pool->PerCpuPool);
        free(Pool);
    }
}

/* Null when memory or the platform's pool cannot be had. */
static OV_MEMPOOL *_MakePool(const char *Name, size_t BlockSize, uint32_t BlockNum,
                             OV_GFP_T GfpMask)
{
    auto *Pool = static_cast<OV_MEMPOOL *>(OV_PlatformMemZeroAlloc(sizeof(OV_MEMPOOL), 0));
    if (Pool != nullptr) {
        Pool->PerCpuPool = static_cast<_OV_PERCPU_MEMPOOL *>(
            OV_PlatformMemZeroAlloc(sizeof(_OV_PERCPU_MEMPOOL), 0));
    }
    if (Pool == nullptr || Pool->PerCpuPool == nullptr || _OV_MemGuardedSize(BlockSize) == 0) {
        OV_SYSLOG(LOG_ERR, "malloc memPool failed, no enough memory.\n");
        _DiscardPool(Pool);
        return nullptr;
    }

    OV_SafeStrCopy(Pool->Name, sizeof(Pool->Name), Name);
    Pool->Pool = OV_MemPoolPlatformCreate(Pool, BlockNum);
    if (Pool->Pool == nullptr) {
        OV_SYSLOG(LOG_ERR, "Create kmemcache failed.\n");
        _DiscardPool(Pool);
        return nullptr;
    }
    Pool->GfpMask = GfpMask;
    Pool->BlockSize = static_cast<uint32_t>(BlockSize);
    Pool->PerCpuPool->BlockNum.store(0);
    return Pool;
}

/* The id under which a pool of the new one's name stands now, -1 when there is no room for one;
 * *Published tells whether that is the new one. */
static int32_t _Publish(OV_MEMPOOL *New, size_t NameSize, bool *Published)
{
    const LOCK_SCOPE Lock(sg_MempoolsLock);
    int32_t Free = -1;

    *Published = false;
    for (int32_t Id = 0; Id < OV_MEMPOOL_COUNT; Id++) {
        const OV_MEMPOOL *Pool = sg_Mempools[Id].load();

        if (Pool == nullptr) {
            Free = Free < 0 ? Id : Free;
        } else if (strlen(Pool->Name) == strlen(New->Name) &&
                   strncmp(Pool->Name, New->Name, NameSize) == 0) {
            return Id;
        }
    }
    if (Free >= 0) {
        sg_Mempools[Free].store(New); /* a full barrier: readers find the record complete */
        *Published = true;
    }
    return Free;
}

int32_t OV_MemPoolCreate(const char *Name, size_t NameSize, size_t BlockSize, uint32_t BlockNum,
                         OV_GFP_T GfpMask)
{
    static pthread_once_t IsUsed = PTHREAD_ONCE_INIT;
    const CANCEL_SCOPE Whole; /* a published pool must reach who asked for it */

    pthread_once(&IsUsed, _LogFirstUse); /* a refused creation, too, is the first use */
    if (Name == nullptr || NameSize > OV_MEMPOOL_NAME_SIZE) {
        return -EINVAL;
    }
    OV_MEMPOOL *New = _MakePool(Name, BlockSize, BlockNum, GfpMask);
    if (New == nullptr) {
        return -ENOEXEC;
    }

    char PoolName[OV_MEMPOOL_NAME_SIZE]; /* once published, the record may go at any time */
    OV_SafeStrCopy(PoolName, sizeof(PoolName), New->Name);
    bool Published = false;
    const int32_t Id = _Publish(New, NameSize, &Published);
    if (Id < 0) {
        return -EINVAL; /* New is not released: the table is sized so that this does not happen */
    }
    if (!Published) {
        _DiscardPool(New);
    }
    OV_SYSLOG(LOG_DEBUG, "mempool creat success,id=%d,name=%s\n", Id, PoolName);
    return Id;
}

void OV_MemPoolDestroy(int32_t Id)
{
    /* No check of the range: the one that the interface has (below 0 and above 31 at once) never
     * refuses, and what destroys a pool must be its owner, who has a valid id. */
    const CANCEL_SCOPE Whole; /* the pool is nobody else's any more */
    OV_MEMPOOL *Pool = nullptr;
    {
        const LOCK_SCOPE Lock(sg_MempoolsLock);
        Pool = sg_Mempools[Id].exchange(nullptr);
    }
    if (OV_IS_ERR_OR_NULL(Pool)) {
        return;
    }
    if (!_OV_RcuWaitForReaders()) {
        return; /* a reader may still see it: it stays */
    }
    OV_MemPoolPlatformDestroy(Pool->Pool);
    _DiscardPool(Pool);
}

/* Inside a read section; null: no such pool. */
static OV_MEMPOOL *_Pool(int32_t Id)
{
    if (Id < 0 || Id >= OV_MEMPOOL_COUNT) {
        return nullptr;
    }
    OV_MEMPOOL *Pool = sg_Mempools[Id].load(std::memory_order_acquire);
    return Pool == nullptr || Pool->Pool == nullptr ? nullptr : Pool;
}

static void *_AllocFrom(int32_t Id, bool Zeroed)
{
    const RCU_READ_SCOPE Reading;
    OV_MEMPOOL *Pool = _Pool(Id);
    if (Pool == nullptr) {
        return nullptr;
    }

    /* Counted before the block is written: an atomic step waits for all writes before it. */
    Pool->PerCpuPool->BlockNum++;
    const uint32_t Size = _OV_MemGuardedSize(Pool->BlockSize);
    void *Start = Zeroed || (Pool->GfpMask & OV_GFP_ZERO) != 0
                      ? OV_MemPoolPlatformNewZeroAlloc(Size)
                      : OV_MemPoolPlatformNewAlloc(Size);
    if (Start == nullptr) {
        Pool->PerCpuPool->BlockNum--;
        return nullptr;
    }
    return _OV_MemGuard(Start, Size);
}

void *OV_MemPoolAlloc(int32_t Id)
{
    return _AllocFrom(Id, false);
}

void *OV_MemPoolZeroAlloc(int32_t Id)
{
    return _AllocFrom(Id, true);
}

/* What is wrong with a block, and the pool's name: read before the block is released. */
struct BLOCK_DAMAGE {
    MEM_GUARDS Found;
    uint32_t Size;
    char PoolName[OV_MEMPOOL_NAME_SIZE];
};

/* Kept out of the way of the frees that find nothing. */
static void __attribute__((cold, noinline))
_ReadDamage(void *Ptr, const char *PoolName, BLOCK_DAMAGE *Damage)
{
    const _OV_MEM_PREFIX *Prefix = _OV_MemPrefix(Ptr);
    MEM_BLOCK_HEADER_S *Header = reinterpret_cast<MEM_BLOCK_HEADER_S *>(_OV_MemPrefix(Ptr)) - 1;

    Damage->Found = _OV_MemGuardsOf(Prefix, malloc_usable_size(Header) - sizeof(*Header));
    Damage->Size = Prefix->Size;
    OV_SafeStrCopy(Damage->PoolName, sizeof(Damage->PoolName), PoolName);
}

static void __attribute__((cold, noinline)) _ReportDamage(int32_t Id, const BLOCK_DAMAGE &Damage)
{
    if (Damage.Found.State == MEM_GUARDS::PREFIX_DAMAGED) {
        OV_SYSLOG(LOG_ERR, "MODULE %s[%d] memory was overflowed, size=%u, Canary=0x%x\n",
                  Damage.PoolName, Id, Damage.Size, Damage.Found.Canary);
    } else if (Damage.Found.State == MEM_GUARDS::SUFFIX_DAMAGED) {
        OV_SYSLOG(LOG_ERR, "MODULE %s[%d] overflow other memory, size=%u\n", Damage.PoolName, Id,
                  Damage.Size);
    }
}

/* true: there is something to report. A block whose pool is gone stays lost, and is looked at all
 * the same. */
static bool _Release(int32_t Id, void *Ptr, BLOCK_DAMAGE *Damage)
{
    const RCU_READ_SCOPE Reading;
    OV_MEMPOOL *Pool = _Pool(Id);
    if (Pool == nullptr) {
        _ReadDamage(Ptr, "", Damage);
        return true;
    }

    const bool IsIntact = _OV_MemIsIntact(_OV_MemPrefix(Ptr), _OV_MemGuardedSize(Pool->BlockSize));
    if (!IsIntact) {
        _ReadDamage(Ptr, Pool->Name, Damage);
    }
    Pool->PerCpuPool->BlockNum--;
    OV_MemPooLPlatformFree(_OV_MemPrefix(Ptr));
    return !IsIntact;
}

/* The report waits until the read section is over: the system log may take its time, and a
 * destruction waits for readers. */
void OV_MemPoolFree(int32_t Id, void *Ptr)
{
    BLOCK_DAMAGE Damage;

    if (Id < 0 || Id >= OV_MEMPOOL_COUNT || Ptr == nullptr) {
        return;
    }
    if (_Release(Id, Ptr, &Damage)) {
        _ReportDamage(Id, Damage);
    }
}

void OV_MemPoolUsageById(int32_t Id, MEMPOOL_INFO *Info)
{
    const RCU_READ_SCOPE Reading;
    const OV_MEMPOOL *Pool = _Pool(Id);

    if (Pool != nullptr && Pool->Name[0] != '\0') {
        Info->BlockSize = Pool->BlockSize;
        Info->BlockNum = Pool->PerCpuPool->BlockNum.load();
        OV_SafeStrCopy(Info->Name, sizeof(Info->Name), Pool->Name);
    }
}
