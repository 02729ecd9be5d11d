#include "linuxRtcMonitor.h"

#include "linuxRtcGenlMonitor.h"
#include "linuxRtcSockMonitor.h"
#include "orvaneLibrtcMem.h"

int OV_RTCMonitorInit(void)
{
    const OV_ERR_T Error = OV_RTCSockMonitorInit();

    return Error < 0 ? Error : OV_RTCGenlMonitorInit();
}

int OV_RTCMonitorUninit(void)
{
    OV_RTCSockMonitorExit();
    return OV_RTCGenlMonitorUninit();
}

int OV_RTCMonitorRegCallback(NotifyCallback Callback)
{
    const OV_ERR_T Error = OV_RTCSockMonitorRegCallback(Callback);

    return Error < 0 ? Error : OV_RTCGenlMonitorRegCallback(Callback);
}

int OV_RTCMonitorUnregCallback(int RegId)
{
    OV_RTCSockMonitorUnregCallback();
    return OV_RTCGenlMonitorUnregCallback(RegId);
}

int OV_RTCMonitorGenlSendPtxNotify(OV_CON_STATE_NOTIFY *Notify)
{
    return OV_RTCisSocketConfig() != 0 ? OV_RTCSockMonitorSendPtxNotify(Notify)
                                       : OV_RTCGenlMonitorSendPtxNotify(Notify);
}

int OV_RTCMonitorGetAllRoute(const NotifyCallback CallBack)
{
    return OV_RTCGenlMonitorGetAllRoute(CallBack);
}
