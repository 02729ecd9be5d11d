#include "linuxRtcInit.h"

#include "linuxRtcBypass.h"
#include "linuxRtcMonitor.h"
#include "linuxRtcNetwork.h"
#include "orvaneDispatchClient.h"
#include "orvaneFlexMsg.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLibrtcMem.h"
#include "orvaneRtcVersion.h"
#include "orvaneScope.h"

#include <errno.h>
#include <string.h>

/* How often the base was started and not yet stopped; under the lock, like each of its starts and
 * stops. */
static uint16_t gs_RTCInitRef;

/* The connections are the parent's: a forked child has no base. */
static void _ForgetBase()
{
    gs_RTCInitRef = 0;
}
static constinit FORK_MUTEX gs_RTCRefLock(FORK_RANK_LIFECYCLE, HELD_FOR_LONG, _ForgetBase);

/* How far a start of the base came. */
struct BASE_STEPS {
    bool IsMemoryRegistered;
    bool IsDispatchStarted;
    bool IsConfClientStarted;
};

static OV_ERR_T _StartBase(BASE_STEPS *Steps)
{
    OV_RtcVersionDump(OV_DumpInfo);

    OV_ERR_T Result = OV_LibrtcMemModuleRegister();
    if (Result < 0) {
        OV_LOG_WARN("register memory failed.");
        return Result;
    }
    Steps->IsMemoryRegistered = true;

    if (OV_RTCisSocketConfig()) {
        Result = OV_DispatchClientInit();
        if (Result < 0) {
            OV_LOG_WARN("failed to init dispatch client");
            return Result;
        }
        Steps->IsDispatchStarted = true;
    }

    Result = OV_ImcConfClientInit();
    if (Result < 0) {
        OV_LOG_WARN("failed to OV_ImcConfClientInit: %s", strerror(-Result));
        return Result;
    }
    Steps->IsConfClientStarted = true;
    return 0;
}

static void _StopBase(const BASE_STEPS &Steps)
{
    if (Steps.IsDispatchStarted) {
        OV_DispatchClientExit();
    }
    if (Steps.IsConfClientStarted) {
        OV_ImcConfClientRelease();
    }
    if (Steps.IsMemoryRegistered) {
        OV_LibrtcMemModuleUnregister();
    }
}

OV_ERR_T OV_RTCBaseInit(const char *)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(gs_RTCRefLock);
    BASE_STEPS Steps = {};

    if (gs_RTCInitRef == UINT16_MAX) {
        return -EOVERFLOW;
    }
    if (gs_RTCInitRef != 0) {
        gs_RTCInitRef++;
        OV_LOG_WARN("librtc already init(%u)", gs_RTCInitRef);
        return 0;
    }
    const OV_ERR_T Result = _StartBase(&Steps);
    if (Result < 0) {
        _StopBase(Steps); /* before somebody else's start has what this one took */
        return Result;
    }
    gs_RTCInitRef = 1;
    OV_LOG_INFO("librtc init(%u)", gs_RTCInitRef);
    return 0;
}

void OV_RTCBaseExit(void)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Lock(gs_RTCRefLock);

    if (gs_RTCInitRef == 0) {
        OV_LOG_WARN("librtc already exit(%u)", gs_RTCInitRef);
        return;
    }
    if (gs_RTCInitRef > 1) {
        gs_RTCInitRef--;
        OV_LOG_INFO("librtc exit(%u)", gs_RTCInitRef);
        return;
    }
    _StopBase({true, OV_RTCisSocketConfig() != FALSE, true});
    OV_LOG_INFO("librtc exit(%u)", gs_RTCInitRef);
    gs_RTCInitRef = 0;
}

OV_ERR_T OV_RTCInit(const char *LogFile)
{
    const CANCEL_SCOPE Whole;
    OV_ERR_T Result = OV_FlexMsgInit();
    if (Result < 0) {
        OV_LOG_ERROR("OV_FlexMsgInit(err: %d)", Result);
        return Result;
    }
    Result = OV_RTCBaseInit(LogFile);
    if (Result < 0) {
        return Result;
    }
    OV_RTCBypass(0);
    OV_RTCNetIpRuleOrderInit();
    Result = OV_RTCMonitorInit();
    if (Result < 0) {
        OV_LOG_ERROR("OV_RTCMonitorInit(err: %d)", Result);
    }
    return Result;
}

void OV_RTCExit(void)
{
    const CANCEL_SCOPE Whole;

    OV_RTCBaseExit();
    OV_FlexMsgRelease();
    OV_RTCMonitorUninit();
}
