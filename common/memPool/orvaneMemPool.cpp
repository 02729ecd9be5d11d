#include "orvaneMemPool.h"

#include "orvaneMemGuardInternal.h"
#include "orvanePlatformRcu.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <atomic>
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>
#include <syslog.h>

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
static OV_SPINLOCK_T sg_MempoolsLock;
static pthread_once_t sg_MempoolsLockInited = PTHREAD_ONCE_INIT;

static void _InitLock()
{
    OV_SpinlockInit(&sg_MempoolsLock);
    syslog(LOG_DEBUG, "[%s]\n", "OV_MemPoolCreate");
}

static OV_SPINLOCK_T *_TableLock()
{
    pthread_once(&sg_MempoolsLockInited, _InitLock);
    return &sg_MempoolsLock;
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
        syslog(LOG_ERR, "malloc memPool failed, no enough memory.\n");
        _DiscardPool(Pool);
        return nullptr;
    }

    OV_SafeStrCopy(Pool->Name, sizeof(Pool->Name), Name);
    Pool->Pool = OV_MemPoolPlatformCreate(Pool, BlockNum);
    if (Pool->Pool == nullptr) {
        syslog(LOG_ERR, "Create kmemcache failed.\n");
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
    const SPINLOCK_SCOPE Lock(*_TableLock());
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
    const CANCEL_SCOPE Whole; /* a published pool must reach who asked for it */
    _TableLock();             /* a refused creation, too, is the first use */
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
    syslog(LOG_DEBUG, "mempool creat success,id=%d,name=%s\n", Id, PoolName);
    return Id;
}

void OV_MemPoolDestroy(int32_t Id)
{
    /* No check of the range: the one that the interface has (below 0 and above 31 at once) never
     * refuses, and what destroys a pool must be its owner, who has a valid id. */
    OV_MEMPOOL *Pool = nullptr;
    {
        const SPINLOCK_SCOPE Lock(*_TableLock());
        Pool = sg_Mempools[Id].exchange(nullptr);
    }
    if (OV_IS_ERR_OR_NULL(Pool)) {
        return;
    }
    OV_SynchronizeRcu();
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

/* Kept out of the way of the frees that find nothing. */
static void __attribute__((cold, noinline)) _ReportDamage(int32_t Id, const char *Name, void *Ptr)
{
    const CANCEL_SCOPE Whole; /* the block is about to be released */
    const _OV_MEM_PREFIX *Prefix = _OV_MemPrefix(Ptr);
    MEM_BLOCK_HEADER_S *Header = reinterpret_cast<MEM_BLOCK_HEADER_S *>(_OV_MemPrefix(Ptr)) - 1;
    const size_t Room = malloc_usable_size(Header) - sizeof(*Header);
    const MEM_GUARDS Found = _OV_MemGuardsOf(Prefix, Room);

    if (Found.State == MEM_GUARDS::PREFIX_DAMAGED) {
        syslog(LOG_ERR, "MODULE %s[%d] memory was overflowed, size=%u, Canary=0x%x\n", Name, Id,
               Prefix->Size, Found.Canary);
    } else if (Found.State == MEM_GUARDS::SUFFIX_DAMAGED) {
        syslog(LOG_ERR, "MODULE %s[%d] overflow other memory, size=%u\n", Name, Id, Prefix->Size);
    }
}

void OV_MemPoolFree(int32_t Id, void *Ptr)
{
    if (Id < 0 || Id >= OV_MEMPOOL_COUNT || Ptr == nullptr) {
        return;
    }

    const RCU_READ_SCOPE Reading;
    OV_MEMPOOL *Pool = _Pool(Id);
    if (Pool == nullptr) {
        _ReportDamage(Id, "", Ptr); /* a block that stays lost is looked at all the same */
        return;
    }
    if (!_OV_MemIsIntact(_OV_MemPrefix(Ptr), _OV_MemGuardedSize(Pool->BlockSize))) {
        _ReportDamage(Id, Pool->Name, Ptr);
    }
    Pool->PerCpuPool->BlockNum--;
    OV_MemPooLPlatformFree(_OV_MemPrefix(Ptr));
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
