#include "orvaneDispatch.h"

#include "orvaneAssert.h"
#include "orvaneDispatchInternal.h"
#include "orvaneForeignInternal.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "orvaneSocketInternal.h"

#include <algorithm>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static constexpr uint32_t DESC_SIZE_MIN = 2048;
static constexpr uint8_t VERSION = 0;
static constexpr uint8_t MODULE_MAX = 14;
static constexpr size_t HEADER_SIZE = sizeof(OV_DISPATCH_HDR);

/* What is cleared by writing zeros; more goes back to the kernel. */
static constexpr size_t CLEAR_BY_WRITING_MAX = 1U << 20;

static_assert(sizeof(OV_DISPATCH_HDR) == 8);
static_assert(offsetof(OV_DISPATCH_HDR, Version) == 0 && offsetof(OV_DISPATCH_HDR, Module) == 1);
static_assert(offsetof(OV_DISPATCH_HDR, Type) == 2 && offsetof(OV_DISPATCH_HDR, Length) == 4);

std::atomic<int32_t> g_MemModId{-1};

/* The dispatch loops go on at once when a socket that must not block has nothing to do. */
static bool _IsRetried(OV_ERR_T Error)
{
    return Error == -EAGAIN;
}

void _OV_DispatchClear(void *Start, size_t Size)
{
    const size_t Page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *Begin = static_cast<char *>(Start);
    char *End = Begin + Size;

    if (Size > CLEAR_BY_WRITING_MAX) {
        /* A length field alone makes a buffer large. Whole pages are exchanged for the kernel's
         * zero page, so that what never arrived costs no memory now either. */
        char *Pages = Begin + (Page - reinterpret_cast<uintptr_t>(Begin) % Page) % Page;
        const size_t PagesSize = static_cast<size_t>(End - Pages) / Page * Page;

        if (madvise(Pages, PagesSize, MADV_DONTNEED) == 0) {
            memset(Begin, 0, static_cast<size_t>(Pages - Begin));
            Begin = Pages + PagesSize;
        }
    }
    memset(Begin, 0, static_cast<size_t>(End - Begin));
}

/* Size is the wanted payload room; 0: more than a buffer can have. */
static uint32_t _Capacity(uint32_t Size)
{
    if (Size <= DESC_SIZE_MIN) {
        return DESC_SIZE_MIN;
    }
    return Size > UINT32_MAX - HEADER_SIZE ? 0 : Size + static_cast<uint32_t>(HEADER_SIZE);
}

OV_DISPATCH_DESC *OV_DispatchAllocDesc(uint32_t Size)
{
    const int32_t ModId = g_MemModId;
    const uint32_t Capacity = _Capacity(Size);
    void *Buff = Capacity == 0 ? nullptr : OV_MemAlloc(ModId, Capacity, OV_GFP_ZERO);
    auto *Desc =
        static_cast<OV_DISPATCH_DESC *>(OV_MemAlloc(ModId, sizeof(OV_DISPATCH_DESC), OV_GFP_ZERO));

    if (Buff == nullptr || Desc == nullptr) {
        OV_MemFree(ModId, Buff);
        OV_MemFree(ModId, Desc);
        return nullptr;
    }
    Desc->Buff = static_cast<uint8_t *>(Buff);
    Desc->Size = Capacity;
    OV_InitListHead(&Desc->List);
    return Desc;
}

OV_DISPATCH_DESC *OV_DispatchVmemAllocDesc(uint32_t Size)
{
    const int32_t ModId = g_MemModId;
    const uint32_t Capacity = _Capacity(Size);
    void *Buff = Capacity == 0 ? nullptr : OV_VmemAlloc(ModId, Capacity);
    auto *Desc = static_cast<OV_DISPATCH_DESC *>(OV_VmemZeroAlloc(ModId, sizeof(OV_DISPATCH_DESC)));

    if (Buff == nullptr || Desc == nullptr) {
        OV_VmemFree(ModId, Buff);
        OV_VmemFree(ModId, Desc);
        return nullptr;
    }
    Desc->Buff = static_cast<uint8_t *>(Buff);
    Desc->Size = Capacity;
    Desc->useVmemAlloc = TRUE;
    OV_InitListHead(&Desc->List);
    return Desc;
}

void OV_DispatchFreeDesc(OV_DISPATCH_DESC *Desc)
{
    if (Desc == nullptr) {
        return;
    }
    const auto Free = Desc->useVmemAlloc ? OV_VmemFree : OV_MemFree;
    const int32_t ModId = g_MemModId;

    Free(ModId, Desc->Buff);
    Free(ModId, Desc);
}

void *OV_DispatchRealloc(OV_DISPATCH_DESC *Desc, uint32_t NewSize)
{
    return Desc->useVmemAlloc ? OV_VmemRealloc(g_MemModId, Desc->Buff, NewSize, Desc->Size)
                              : OV_MemRealloc(g_MemModId, Desc->Buff, NewSize, 0);
}

static bool _Resize(OV_DISPATCH_DESC *Desc, uint32_t NewSize)
{
    void *Buff = OV_DispatchRealloc(Desc, NewSize);

    if (Buff == nullptr) {
        return false;
    }
    Desc->Buff = static_cast<uint8_t *>(Buff);
    Desc->Size = NewSize;
    return true;
}

/* Doubles the capacity until it exceeds Needed. */
static bool _GrowBeyond(OV_DISPATCH_DESC *Desc, uint64_t Needed)
{
    uint64_t Capacity = Desc->Size == 0 ? DESC_SIZE_MIN : Desc->Size; /* nothing doubled stays so */

    while (Capacity <= Needed) {
        Capacity *= 2;
    }
    return Capacity <= UINT32_MAX && _Resize(Desc, static_cast<uint32_t>(Capacity));
}

void OV_DispatchInitHdr(OV_DISPATCH_DESC *Desc, uint8_t Module, uint16_t Type)
{
    *OV_DispatchHeader(Desc) = {VERSION, Module, Type, HEADER_SIZE};
}

OV_DISPATCH_HDR *OV_DispatchHeader(OV_DISPATCH_DESC *Desc)
{
    return reinterpret_cast<OV_DISPATCH_HDR *>(Desc->Buff);
}

void *OV_DispatchPayload(OV_DISPATCH_DESC *Desc)
{
    return Desc->Buff + HEADER_SIZE;
}

int32_t OV_DispatchSize(OV_DISPATCH_DESC *Desc)
{
    return static_cast<int32_t>(Desc->Size);
}

/* The end of the message in its buffer, whatever its length field claims. */
static uint32_t _End(OV_DISPATCH_DESC *Desc)
{
    return std::min(OV_DispatchHeader(Desc)->Length, Desc->Size);
}

int32_t OV_DispathUsedSize(OV_DISPATCH_DESC *Desc)
{
    const uint32_t End = std::min<uint32_t>(_End(Desc), INT32_MAX);

    return End <= HEADER_SIZE ? 0 : static_cast<int32_t>(End - HEADER_SIZE);
}

OV_ERR_T OV_DispatchPut(OV_DISPATCH_DESC *Desc, const void *Data, int32_t Size)
{
    /* The new capacity as it was last computed: none yet, since this buffer never gets one. */
    static constexpr int NEEDED_SIZE = 0;

    if (Size < 0) {
        return -ENOMEM;
    }
    const uint64_t End = static_cast<uint64_t>(_End(Desc)) + static_cast<uint32_t>(Size);
    if (End >= Desc->Size) {
        if (Desc->useVmemAlloc) { /* the line number is part of the text */
            OV_SYSLOG(LOG_WARNING,
                      "[%s:%d] Use memory from pool, but the size is not enough, bufsize=%u, "
                      "needsize=%d.\n",
                      "OV_DispatchPut", 672, Desc->Size, NEEDED_SIZE);
            return -ENOMEM;
        }
        if (!_GrowBeyond(Desc, End)) {
            return -ENOMEM;
        }
    }
    if (Size > 0) {
        memcpy(Desc->Buff + _End(Desc), Data, static_cast<uint32_t>(Size));
    }
    OV_DispatchHeader(Desc)->Length = static_cast<uint32_t>(End);
    return 0;
}

/* A text that did not go in leaves its beginning behind the message; the message ends before. */
static OV_LEN_ERR_T _Unprinted(OV_DISPATCH_DESC *Desc)
{
    if (_End(Desc) < Desc->Size) {
        Desc->Buff[_End(Desc)] = '\0';
    }
    return -ENOMEM;
}

static OV_LEN_ERR_T OV_PRINTF_LIKE(2, 0)
    _PrintV(OV_DISPATCH_DESC *Desc, const char *Format, va_list Args)
{
    for (;;) {
        const uint32_t End = _End(Desc);
        va_list Again;

        va_copy(Again, Args);
        const int Printed =
            vsnprintf(reinterpret_cast<char *>(Desc->Buff) + End, Desc->Size - End, Format, Again);
        va_end(Again);
        if (Printed < 0) {
            return _Unprinted(Desc); /* no room would be enough */
        }
        const uint64_t NewEnd = static_cast<uint64_t>(End) + static_cast<uint32_t>(Printed);
        if (NewEnd < Desc->Size) {
            OV_DispatchHeader(Desc)->Length = static_cast<uint32_t>(NewEnd);
            return Printed;
        }
        if (!_GrowBeyond(Desc, NewEnd)) {
            return _Unprinted(Desc);
        }
    }
}

OV_LEN_ERR_T OV_DispatchPrintf(OV_DISPATCH_DESC *Desc, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    const OV_LEN_ERR_T Result = _PrintV(Desc, Format, Args);
    va_end(Args);
    return Result;
}

void OV_DispatchResetPayload(OV_DISPATCH_DESC *Desc)
{
    OV_DISPATCH_HDR *dispatchHdr = OV_DispatchHeader(Desc);

    OV_ASSERT_AT(dispatchHdr->Length >= HEADER_SIZE,
                 "(dispatchHdr->Length >= sizeof(OV_DISPATCH_HDR))", "orvaneDispatch", __LINE__,
                 __func__);
    _OV_DispatchClear(OV_DispatchPayload(Desc), _End(Desc) - HEADER_SIZE);
    dispatchHdr->Length = HEADER_SIZE;
}

void OV_DispatchSetRetCode(OV_DISPATCH_DESC *Desc, int32_t RetCode)
{
    OV_DispatchResetPayload(Desc);
    OV_DispatchPut(Desc, &RetCode, sizeof(RetCode)); /* room for it is in every buffer */
}

int32_t OV_DispatchGetRetCode(OV_DISPATCH_DESC *Desc)
{
    int32_t RetCode;

    memcpy(&RetCode, OV_DispatchPayload(Desc), sizeof(RetCode));
    return RetCode;
}

OV_ERR_T OV_DispatchSend(OV_SOCKET Socket, OV_DISPATCH_DESC *Desc)
{
    const OV_LEN_ERR_T Sent = _OV_SocketSendAll(Socket, Desc->Buff, _End(Desc), _IsRetried);

    return Sent > 0 ? 0 : Sent;
}

static OV_ERR_T _Receive(OV_SOCKET Socket, OV_DISPATCH_DESC *Desc)
{
    if (_OV_SocketReceiveExactly(Socket, Desc->Buff, HEADER_SIZE, _IsRetried) <= 0) {
        return -EREMOTEIO;
    }

    const OV_DISPATCH_HDR Header = *OV_DispatchHeader(Desc);
    if (Header.Version != VERSION || Header.Module > MODULE_MAX) {
        return -EBADR;
    }
    if (Header.Length >= Desc->Size) {
        if (Header.Length == UINT32_MAX || !_Resize(Desc, Header.Length + 1)) {
            return -ENOMEM;
        }
        Desc->Buff[Header.Length] = '\0';
    }
    if (Header.Length > HEADER_SIZE &&
        _OV_SocketReceiveExactly(Socket, OV_DispatchPayload(Desc), Header.Length - HEADER_SIZE,
                                 _IsRetried) <= 0) {
        return -EREMOTEIO;
    }
    return 0;
}

OV_ERR_T OV_DispatchRecv(OV_SOCKET Socket, OV_DISPATCH_DESC *Desc)
{
    const OV_ERR_T Error = _Receive(Socket, Desc);
    OV_DISPATCH_HDR *Header = OV_DispatchHeader(Desc);

    /* A length that is not borne out by what arrived must not reach who handles the message. */
    if (Error < 0 || Header->Length < HEADER_SIZE) {
        Header->Length = HEADER_SIZE;
    }
    return Error;
}

OV_DISPATCH_DESC *OV_DispatchGetMemUsage(OV_DISPATCH_DESC *Desc)
{
    for (int32_t ModId = 0; ModId < OV_MEM_MODULE_COUNT; ModId++) {
        OV_USEAGE_INFO Info = {};

        OV_MemGetUsage(ModId, &Info);
        if (Info.Name[0] != '\0') {
            OV_DispatchPrintf(Desc, "%s %d %d %d %d\n", Info.Name, Info.MemUsage, Info.MemCounter,
                              Info.VmemUsage, Info.VmemCounter);
        }
    }
    return Desc;
}

OV_DISPATCH_DESC *OV_DispatchGetMemPoolUsage(OV_DISPATCH_DESC *Desc)
{
    for (int32_t Id = 0; Id < OV_MEMPOOL_COUNT; Id++) {
        MEMPOOL_INFO Info = {};

        OV_MemPoolUsageById(Id, &Info);
        if (Info.Name[0] != '\0') {
            OV_DispatchPrintf(Desc, "%s %lu %lu\n", Info.Name,
                              static_cast<unsigned long>(Info.BlockSize),
                              static_cast<unsigned long>(Info.BlockNum));
        }
    }
    return Desc;
}

OV_DISPATCH_DESC *OV_DispatchGetVersion(OV_DISPATCH_DESC *Desc)
{
    OV_DispatchPrintf(Desc, "Version:%s\n", RTC_VERSION);
    return Desc;
}
