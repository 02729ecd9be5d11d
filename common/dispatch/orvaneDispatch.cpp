#include "orvaneDispatch.h"

#include "orvaneAssert.h"
#include "orvaneDispatchInternal.h"
#include "orvaneForeignInternal.h"
#include "orvaneGateInternal.h"
#include "orvaneMemGuardInternal.h"
#include "orvaneMemInternal.h"
#include "orvaneMemPool.h"
#include "orvaneSocketInternal.h"

#include <algorithm>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

static constexpr uint32_t DESC_SIZE_MIN = 2048;
static constexpr uint8_t VERSION = 0;
static constexpr uint8_t NO_VERSION = UINT8_MAX; /* of what a failed receive leaves */
static constexpr uint8_t MODULE_MAX = 14;
static constexpr size_t HEADER_SIZE = sizeof(OV_DISPATCH_HDR);

/* What is cleared by writing zeros; more goes back to the kernel. */
static constexpr size_t CLEAR_BY_WRITING_MAX = 1U << 20;

static_assert(sizeof(OV_DISPATCH_HDR) == 8);
static_assert(offsetof(OV_DISPATCH_HDR, Version) == 0 && offsetof(OV_DISPATCH_HDR, Module) == 1);
static_assert(offsetof(OV_DISPATCH_HDR, Type) == 2 && offsetof(OV_DISPATCH_HDR, Length) == 4);

static constexpr const char *MODULE_NAME = "dispatch_client";

/* Both change while nobody is inside the gate. A forked child goes on with its parent's. */
static int32_t g_MemModId = -1;
static uint32_t s_Registration = 1; /* counts those of the module; never 0, and fits its bits */
static constexpr unsigned NAMED_BITS = 2;
static constexpr uint32_t REGISTRATION_MAX = UINT32_MAX >> NAMED_BITS;
static constinit GATE s_ModuleGate(GATE::OPEN_WHEN_NEW, nullptr);

OV_ERR_T _OV_DispatchRegister()
{
    s_ModuleGate.BeginStart();
    s_ModuleGate.WaitUntilEmpty();
    const int32_t ModId = OV_MemModRegister(MODULE_NAME, strlen(MODULE_NAME));
    if (ModId < 0) {
        s_ModuleGate.End();
        return ModId;
    }
    g_MemModId = ModId;
    s_ModuleGate.Commit();
    return 0;
}

void _OV_DispatchUnregister()
{
    s_ModuleGate.BeginStopOfAny();
    s_ModuleGate.WaitUntilEmpty();
    OV_MemModUnRegister(std::exchange(g_MemModId, -1));
    s_Registration = s_Registration % REGISTRATION_MAX + 1;
    s_ModuleGate.End();
}

/* The bits of a descriptor that have no name: under which registration its two blocks were charged.
 * They are 0 in a record that the caller made. */
static constexpr size_t BITS_OFFSET = offsetof(OV_DISPATCH_DESC, Size) + sizeof(uint32_t);
static_assert(BITS_OFFSET + sizeof(uint32_t) == offsetof(OV_DISPATCH_DESC, List));

static uint32_t _BitsOf(const OV_DISPATCH_DESC *Desc)
{
    uint32_t Bits;

    memcpy(&Bits, reinterpret_cast<const char *>(Desc) + BITS_OFFSET, sizeof(Bits));
    return Bits;
}

static uint32_t _RegistrationOf(const OV_DISPATCH_DESC *Desc)
{
    return _BitsOf(Desc) >> NAMED_BITS;
}

static void _NoteRegistration(OV_DISPATCH_DESC *Desc)
{
    const uint32_t Bits = _BitsOf(Desc) | s_Registration << NAMED_BITS;

    memcpy(reinterpret_cast<char *>(Desc) + BITS_OFFSET, &Bits, sizeof(Bits));
}

/* Keeps the module as it is while blocks are charged to it, or released. */
struct MODULE_SCOPE {
    const GATE_SCOPE Passed{s_ModuleGate};
    const int32_t Id = Passed.IsIn() ? g_MemModId : -1; /* -1: none */

    bool Owns(const OV_DISPATCH_DESC *Desc) const
    {
        return Id >= 0 && _RegistrationOf(Desc) == s_Registration;
    }
};

void _OV_DispatchDisown(OV_DISPATCH_DESC *Desc)
{
    _OV_MemDisown(g_MemModId, Desc->Buff);
    _OV_MemDisown(g_MemModId, Desc);
}

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
    const MODULE_SCOPE Module;
    const uint32_t Capacity = _Capacity(Size);
    void *Buff = Capacity == 0 ? nullptr : OV_MemAlloc(Module.Id, Capacity, OV_GFP_ZERO);
    auto *Desc = static_cast<OV_DISPATCH_DESC *>(
        OV_MemAlloc(Module.Id, sizeof(OV_DISPATCH_DESC), OV_GFP_ZERO));

    if (Buff == nullptr || Desc == nullptr) {
        OV_MemFree(Module.Id, Buff);
        OV_MemFree(Module.Id, Desc);
        return nullptr;
    }
    Desc->Buff = static_cast<uint8_t *>(Buff);
    Desc->Size = Capacity;
    _NoteRegistration(Desc);
    OV_InitListHead(&Desc->List);
    return Desc;
}

OV_DISPATCH_DESC *OV_DispatchVmemAllocDesc(uint32_t Size)
{
    const MODULE_SCOPE Module;
    const uint32_t Capacity = _Capacity(Size);
    void *Buff = Capacity == 0 ? nullptr : OV_VmemAlloc(Module.Id, Capacity);
    auto *Desc =
        static_cast<OV_DISPATCH_DESC *>(OV_VmemZeroAlloc(Module.Id, sizeof(OV_DISPATCH_DESC)));

    if (Buff == nullptr || Desc == nullptr) {
        OV_VmemFree(Module.Id, Buff);
        OV_VmemFree(Module.Id, Desc);
        return nullptr;
    }
    Desc->Buff = static_cast<uint8_t *>(Buff);
    Desc->Size = Capacity;
    Desc->useVmemAlloc = TRUE;
    _NoteRegistration(Desc);
    OV_InitListHead(&Desc->List);
    memset(Buff, 0, HEADER_SIZE); /* no message by chance */
    return Desc;
}

void OV_DispatchFreeDesc(OV_DISPATCH_DESC *Desc)
{
    if (Desc == nullptr) {
        return;
    }
    const MODULE_SCOPE Module;
    if (!Module.Owns(Desc)) {
        _OV_MemFreeDisowned(Desc->Buff);
        _OV_MemFreeDisowned(Desc);
        return;
    }
    const auto Free = Desc->useVmemAlloc ? OV_VmemFree : OV_MemFree;
    Free(Module.Id, Desc->Buff);
    Free(Module.Id, Desc);
}

static void *_ReallocDisowned(void *Buff, uint32_t NewSize)
{
    const uint32_t Actual = _OV_MemGuardedSize(NewSize);
    void *Block = Actual == 0 ? nullptr : OV_PlatformMemRealloc(_OV_MemPrefix(Buff), Actual, 0);

    return Block == nullptr ? nullptr : _OV_MemGuard(Block, Actual);
}

void *OV_DispatchRealloc(OV_DISPATCH_DESC *Desc, uint32_t NewSize)
{
    const MODULE_SCOPE Module;

    if (_RegistrationOf(Desc) == 0) {
        return nullptr; /* its buffer is none of ours */
    }
    if (!Module.Owns(Desc)) {
        return _ReallocDisowned(Desc->Buff, NewSize);
    }
    return Desc->useVmemAlloc ? OV_VmemRealloc(Module.Id, Desc->Buff, NewSize, Desc->Size)
                              : OV_MemRealloc(Module.Id, Desc->Buff, NewSize, 0);
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

bool _OV_DispatchIsWhole(OV_DISPATCH_DESC *Desc)
{
    const OV_DISPATCH_HDR *Header = OV_DispatchHeader(Desc);

    return Header->Version == VERSION && Header->Length >= HEADER_SIZE &&
           Header->Length <= Desc->Size;
}

OV_ERR_T OV_DispatchSend(OV_SOCKET Socket, OV_DISPATCH_DESC *Desc)
{
    const uint32_t Length = OV_DispatchHeader(Desc)->Length;
    if (Length > Desc->Size) {
        return -EINVAL;
    }
    const OV_LEN_ERR_T Sent = _OV_SocketSendAll(Socket, Desc->Buff, Length, _IsRetried);

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

    /* A length that is not borne out by what arrived must not reach who handles the message. What a
     * failure leaves must not go out as a message: not by itself, nor with a payload put to it. */
    if (Error < 0) {
        Header->Version = NO_VERSION;
    }
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
