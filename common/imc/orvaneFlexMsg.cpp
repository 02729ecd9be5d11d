#include "orvaneFlexMsg.h"

#include "orvaneForeignInternal.h"
#include "orvaneMem.h"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

static constexpr const char *MODULE_NAME = "FlexMsg";
static constexpr size_t INITIAL_SIZE = 4096;

/* Both are written under the lock, at starts and stops only. */
static std::atomic<int32_t> sg_FlexMsgMemId = -1; /* -1: not registered; allocations then fail */
static uint32_t sg_FlexMsgInitCount;              /* initialisations not yet released */
static constinit FORK_MUTEX s_FlexMsgLock(FORK_RANK_FLEX_MSG, HELD_FOR_A_MOMENT);

OV_ERR_T OV_FlexMsgInit(void)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(s_FlexMsgLock);

    if (sg_FlexMsgMemId == -1) {
        const int32_t ModId = OV_MemModRegister(MODULE_NAME, strlen(MODULE_NAME));

        if (ModId < 0) {
            OV_SYSLOG(LOG_ERR, "Failed to register %s memory!\n", MODULE_NAME);
            return -ENOMEM;
        }
        sg_FlexMsgMemId = ModId;
    }
    sg_FlexMsgInitCount++;
    return 0;
}

void OV_FlexMsgRelease(void)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(s_FlexMsgLock);

    if (sg_FlexMsgMemId == -1) {
        return;
    }
    sg_FlexMsgInitCount--;
    if (sg_FlexMsgInitCount == 0) {
        OV_MemModUnRegister(sg_FlexMsgMemId);
        sg_FlexMsgMemId = -1;
    }
}

/* These two lines name a thread of the configuration client's, whoever the caller is, and stay so:
 * who reads them must not look for that thread. */
static void _LogAllocFailure()
{
    OV_SYSLOG(LOG_ERR, "_OV_ImcConfClientThread alloc memory failed\n");
}

static void _LogReallocFailure()
{
    OV_SYSLOG(LOG_ERR, "_OV_ImcConfClientThread realloc memory failed\n");
}

/* Zeroed: a message has bytes that nobody writes, such as a header's reserved ones, and it leaves
 * the process with them. */
static bool _SetFreshBuffer(OV_FLEXIBLE_MSG *Msg)
{
    void *Buffer = OV_VmemZeroAlloc(sg_FlexMsgMemId, INITIAL_SIZE);

    if (Buffer == nullptr) {
        return false;
    }
    Msg->FlexBuf = static_cast<char *>(Buffer);
    Msg->Size = INITIAL_SIZE;
    Msg->Pos = 0;
    return true;
}

OV_FLEXIBLE_MSG *OV_FlexMsgAlloc(void)
{
    OV_FLEXIBLE_MSG *Msg =
        static_cast<OV_FLEXIBLE_MSG *>(OV_VmemAlloc(sg_FlexMsgMemId, sizeof(OV_FLEXIBLE_MSG)));

    if (Msg == nullptr || !_SetFreshBuffer(Msg)) {
        OV_VmemFree(sg_FlexMsgMemId, Msg);
        _LogAllocFailure();
        return nullptr;
    }
    OV_InitListHead(&Msg->List);
    return Msg;
}

void OV_FlexMsgFree(OV_FLEXIBLE_MSG *Msg)
{
    if (Msg == nullptr) {
        return;
    }
    OV_VmemFree(sg_FlexMsgMemId, Msg->FlexBuf);
    OV_VmemFree(sg_FlexMsgMemId, Msg);
}

void *OV_FlexMsgAllocData(OV_FLEXIBLE_MSG *Msg)
{
    if (!_SetFreshBuffer(Msg)) {
        _LogAllocFailure();
        return nullptr;
    }
    return Msg->FlexBuf;
}

void *OV_FlexMsgReallocData(OV_FLEXIBLE_MSG *Msg, size_t NewSize)
{
    void *Buffer = OV_VmemRealloc(sg_FlexMsgMemId, Msg->FlexBuf, NewSize, Msg->Size);

    if (Buffer == nullptr && NewSize != 0) {
        _LogReallocFailure();
        return nullptr;
    }
    Msg->FlexBuf = static_cast<char *>(Buffer);
    const size_t NewlyInUse = std::min(Msg->Pos, NewSize);
    if (NewlyInUse > Msg->Size) {
        memset(Msg->FlexBuf + Msg->Size, 0, NewlyInUse - Msg->Size);
    }
    Msg->Size = NewSize;
    return Msg->FlexBuf;
}

BOOL OV_FlexMsgDataMaybePull(OV_FLEXIBLE_MSG *Msg, size_t Size)
{
    /* A sum that would wrap asks for what no allocation grants. */
    const size_t Needed = Size > SIZE_MAX - Msg->Pos ? SIZE_MAX : Msg->Pos + Size;

    return Needed <= Msg->Size || OV_FlexMsgReallocData(Msg, Needed) != nullptr;
}

void OV_FlexMsgUnsafeSetData(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size)
{
    if (Size == 0) {
        return;
    }
    memcpy(Msg->FlexBuf + Msg->Pos, Data, Size);
    Msg->Pos += Size;
}

OV_ERR_T OV_FlexMsgSafeSetData(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size)
{
    if (!OV_FlexMsgDataMaybePull(Msg, Size)) {
        return -ENOMEM;
    }
    OV_FlexMsgUnsafeSetData(Msg, Data, Size);
    return 0;
}

static bool _DoubleCapacity(OV_FLEXIBLE_MSG *Msg)
{
    /* Sizes stay below 4 GiB, so the double does not wrap; nothing, doubled, would stay nothing. */
    const size_t NewSize = Msg->Size == 0 ? INITIAL_SIZE : Msg->Size * 2;

    if (OV_FlexMsgReallocData(Msg, NewSize) == nullptr) {
        return false;
    }
    OV_SYSLOG(LOG_DEBUG, "realloc maxSize: %zd, pos : %zd\n", static_cast<ssize_t>(Msg->Size),
              static_cast<ssize_t>(Msg->Pos));
    return true;
}

static OV_ERR_T OV_PRINTF_LIKE(2, 0)
    _SetFormatData(OV_FLEXIBLE_MSG *Msg, const char *Format, va_list Args)
{
    if (!OV_FlexMsgDataMaybePull(Msg, 0)) { /* Pos may lie past Size */
        return -ENOMEM;
    }
    do {
        va_list Copy;
        const size_t Free = Msg->Size - Msg->Pos;

        va_copy(Copy, Args);
        const int Length = vsnprintf(Msg->FlexBuf + Msg->Pos, Free, Format, Copy);
        va_end(Copy);
        if (Length < 0) { /* more room would not help */
            return -ENOMEM;
        }
        if (Free > static_cast<size_t>(Length)) {
            Msg->Pos += static_cast<size_t>(Length);
            return 0;
        }
    } while (_DoubleCapacity(Msg));
    return -ENOMEM;
}

OV_ERR_T OV_FlexMsgSetFormatData(OV_FLEXIBLE_MSG *Msg, const char *Format, ...)
{
    va_list Args;

    va_start(Args, Format);
    const OV_ERR_T Result = _SetFormatData(Msg, Format, Args);
    va_end(Args);
    return Result;
}

void *OV_FlexMsgDataHead(const OV_FLEXIBLE_MSG *Msg)
{
    return Msg->FlexBuf;
}

void OV_FlexMsgSetDataLen(OV_FLEXIBLE_MSG *Msg, size_t Bytes)
{
    Msg->Pos = Bytes;
}

void OV_FlexMsgResetDataLen(OV_FLEXIBLE_MSG *Msg)
{
    Msg->Pos = 0;
}
