/*
 * The configuration monitor: turns what the data path reports over the dispatch service into
 * events (orvaneRtcNotify.h) for one callback, and sends connection states back that way.
 *
 * It handles five modules of the dispatch client (orvaneDispatchClient.h), which must have been
 * started. Events are delivered on that client's thread, one at a time; one that arrives while
 * there is no callback is logged and lost. A record that is too short or lies about its length is
 * logged and dropped. Agents use linuxRtcMonitor.h, which joins this one with the netlink monitor.
 */
#ifndef LINUX_RTC_SOCK_MONITOR_H
#define LINUX_RTC_SOCK_MONITOR_H

#include "orvaneRtcNotify.h"

/* Modules of the dispatch service. */
typedef enum _OV_DISPATCH_MOD {
    OV_DISPATCH_MOD_OVCONN = 2,
    OV_DISPATCH_MOD_DATAPATH = 3,
    OV_DISPATCH_MOD_NETIO = 4,
    OV_DISPATCH_MOD_RATELIMIT = 9,
    OV_DISPATCH_MOD_SECURITY = 13
} OV_DISPATCH_MOD;

/* Types of their notifications. */
typedef enum _OV_DISPATCH_TYPE {
    OV_DISPATCH_TYPE_NETIO_NOTIFY_IF = 14,           /* netio: OV_NETIO_STATE_NOTIFY */
    OV_DISPATCH_TYPE_CONN_NOTIFY_STATE = 240,        /* ovconn: OV_CON_STATE_NOTIFY */
    OV_DISPATCH_TYPE_PEER_HOST_REACHABLE_STATE = 241 /* ovconn: OV_PEER_HOST_NOTIFY */
} OV_DISPATCH_TYPE;

OV_PUBLIC_BEGIN

/* Takes the five modules: 0, or -EBADE when one has a handler; those taken before it stay so. */
OV_ERR_T OV_RTCSockMonitorInit(void);

/* Gives the modules back; the callback stays. An event may still be under way. */
void OV_RTCSockMonitorExit(void);

/* The first callback is kept until it is unregistered; a further one is ignored. Always 0. */
OV_ERR_T OV_RTCSockMonitorRegCallback(NotifyCallback Callback);

/* The callback may still be running when this returns. */
void OV_RTCSockMonitorUnregCallback(void);

/* Pushes a connection state to the dispatch service, if that is connected: nothing is reported. 0,
 * or -EINVAL for null. */
OV_ERR_T OV_RTCSockMonitorSendPtxNotify(OV_CON_STATE_NOTIFY *Notify);

OV_PUBLIC_END

#endif
