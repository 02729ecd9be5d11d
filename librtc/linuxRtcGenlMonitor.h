/*
 * The netlink monitor: turns what the kernel and the appliance's data-path module announce into
 * events (orvaneRtcNotify.h) for up to 16 callbacks.
 *
 * Its monitor thread hears link and IPv4 route changes, and the module's generic-netlink family
 * "ov_con_family" while that exists; its check thread looks for the family every 3 seconds, and
 * every 15 once it is joined. Whoever registers first after a start is told of all links, once.
 * Kernel events that came faster than the callbacks took them, beyond 30 MiB,
 * are lost: the log says "csnnl: error occured" or "nl_recvmsgs failed".
 *
 * Callbacks run on the monitor thread, one event at a time, in the order of their ids. A callback
 * delays all events after it. It must not start, stop, register or unregister: that is refused with
 * -EDEADLK, the start with -EEXIST. Agents use linuxRtcMonitor.h, which adds the events that arrive
 * over the dispatch service.
 */
#ifndef LINUX_RTC_GENL_MONITOR_H
#define LINUX_RTC_GENL_MONITOR_H

#include "orvaneRtcNotify.h"

OV_PUBLIC_BEGIN

/* Starts both threads: 0, or -EEXIST when it runs already. Changes from then on are heard, and told
 * to who has registered when their turn comes. What fails in the threads is logged only. In a
 * forked child it is stopped, without callbacks, and may be started. */
int OV_RTCGenlMonitorInit(void);

/* Stops both threads and drops all callbacks. It waits for a callback that runs: no lock that a
 * callback takes may be held here. 0, also when it does not run. */
int OV_RTCGenlMonitorUninit(void);

/* Both wait for a callback that runs: no lock that a callback takes may be held. Reg returns the
 * id, 0 to 15: the lowest that is free; -1 while stopped; -2 when none is free. A function may be
 * registered several times and is then called as often. */
int OV_RTCGenlMonitorRegCallback(NotifyCallback Callback);

/* 0 (also for an id that is free), -1 for an id that is none, -2 while stopped. The callback is not
 * called any more when this returns. */
int OV_RTCGenlMonitorUnregCallback(int RegId);

/* Sends a connection state to the data-path module, from the caller's thread: 0, or -1 (logged; the
 * module may be absent). */
int OV_RTCGenlMonitorSendPtxNotify(OV_CON_STATE_NOTIFY *Notify);

/* Calls CallBack on the caller's thread with each IPv4 route of all tables, as an added one; a
 * default route's Dst is "default". Needs no started monitor. Returns 0 (also for null, which is
 * not called) or libnl's negative error. */
int OV_RTCGenlMonitorGetAllRoute(const NotifyCallback CallBack);

/* Asks the kernel for all addresses over the running monitor's socket. The answers are dropped:
 * nothing is delivered. The kernel refuses the request while another dump runs (logged); events are
 * not delayed by that. */
void OV_RTCMonitorSendAddrRequest(void);

OV_PUBLIC_END

#endif
