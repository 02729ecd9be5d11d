/* Everything that the library exports: include this one, or the header of the area you use. Only
 * orvanePlatformRcu.h stands apart: it needs liburcu's own headers. */
#ifndef ORVANE_LIBRTC_H
#define ORVANE_LIBRTC_H

#include "linuxRtc.h"
#include "linuxRtcBypass.h"
#include "linuxRtcGenlMonitor.h"
#include "linuxRtcMonitor.h"
#include "linuxRtcSockMonitor.h"
#include "orvaneAssert.h"
#include "orvaneDispatch.h"
#include "orvaneDispatchClient.h"
#include "orvaneFlexMsg.h"
#include "orvaneImc.h"
#include "orvaneImcConfClient.h"
#include "orvaneInetTypes.h"
#include "orvaneIo.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLibrtcMem.h"
#include "orvaneLogFile.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "orvanePlatformMutex.h"
#include "orvanePlatformResult.h"
#include "orvanePlatformSpinlock.h"
#include "orvaneRtcConf.h"
#include "orvaneRtcIpRule.h"
#include "orvaneRtcLibnl.h"
#include "orvaneRtcNotify.h"
#include "orvaneRtcRoute.h"
#include "orvaneSafeStr.h"
#include "orvaneSocket.h"
#include "orvaneThread.h"
#include "orvaneTypes.h"

#endif
