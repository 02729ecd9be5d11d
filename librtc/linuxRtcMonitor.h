/*
 * The events of the appliance in one place: what the kernel and its data-path module announce (the
 * netlink monitor, linuxRtcGenlMonitor.h) and what the dispatch service relays (the configuration
 * monitor, linuxRtcSockMonitor.h). Both hand an OV_RTC_MONITOR_NOTIFY to the same kind of callback,
 * each on a thread of its own: a callback that is registered here may run on both at once.
 *
 * The netlink monitor has 16 places, the configuration monitor one: of several callbacks the first
 * has the relayed events. Start the dispatch client first, or no events are relayed.
 */
#ifndef LINUX_RTC_MONITOR_H
#define LINUX_RTC_MONITOR_H

#include "orvaneRtcNotify.h"

OV_PUBLIC_BEGIN

/* Starts the configuration monitor, then the netlink monitor. 0, or a negative errno value: -EBADE
 * when it was started before. What was started by then stays: call OV_RTCMonitorUninit. */
int OV_RTCMonitorInit(void);

/* Stops both, and drops the callbacks of the netlink monitor; the configuration monitor keeps its
 * own. Waits for a callback that the netlink monitor runs. 0, or -EDEADLK from such a callback: the
 * configuration monitor is then stopped all the same. */
int OV_RTCMonitorUninit(void);

/* Registers with both monitors, once they are started. Returns the id in the netlink monitor, 0 to
 * 15; -1 while stopped, -2 when all are taken: relayed events come all the same. */
int OV_RTCMonitorRegCallback(NotifyCallback Callback);

/* Unregisters the id from the netlink monitor, and the configuration monitor's callback whatever
 * the id is. 0, -1 for an id that is none, -2 while stopped. */
int OV_RTCMonitorUnregCallback(int RegId);

/* Sends a connection state to the data path: through the dispatch service (0, delivered or not;
 * -EINVAL for null) when configuration arrives that way, else to its kernel module (0 or -1). */
int OV_RTCMonitorGenlSendPtxNotify(OV_CON_STATE_NOTIFY *Notify);

/* Calls CallBack on the caller's thread with each IPv4 route of all tables: see
 * OV_RTCGenlMonitorGetAllRoute. */
int OV_RTCMonitorGetAllRoute(const NotifyCallback CallBack);

OV_PUBLIC_END

#endif
