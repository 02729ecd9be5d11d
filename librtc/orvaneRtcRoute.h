/*
 * Routes of the kernel: one call adds, replaces or deletes one route with up to 16 nexthops, or
 * reads all IPv4 routes.
 *
 * A call opens its own netlink socket, sends one request and closes the socket. No state: any
 * thread may call. A thread that is cancelled meanwhile ends after the call. What goes out is
 * logged at info level, failures at error level.
 */
#ifndef ORVANE_RTC_ROUTE_H
#define ORVANE_RTC_ROUTE_H

#include "orvaneRtcNotify.h"

#define OV_RTC_ROUTE_NEXTHOP_MAX 16

/* A route. Nexthop and IfName of the same place belong together: a gateway (reached where the
 * kernel finds it), an interface (the destination is on it), or both. All paths weigh the same. */
typedef struct _OV_RTC_ROUTE_CONF {
    uint32_t TableId;         /* 0: the main table */
    OV_CONF_IP_MASK TargetIp; /* the destination; its IpType is the family of the whole route */
    uint16_t NexthopNum;      /* at most 16 */
    OV_CONF_IP_MASK Nexthop[OV_RTC_ROUTE_NEXTHOP_MAX]; /* zero: none; IpType, Mask are not read */
    char IfName[OV_RTC_ROUTE_NEXTHOP_MAX][OV_RTC_IF_NAME_SIZE]; /* empty: none */
} OV_RTC_ROUTE_CONF;

/* Receives one route; both arguments are valid during the call only, Arg is the caller's. What it
 * returns is not looked at. */
typedef int (*RouteNotifyCallback)(OV_RTC_MONITOR_NOTIFY *Notify, void *Arg);

typedef struct _OV_RTC_ROUTE_CALLBACK_WITH_ARG {
    RouteNotifyCallback Callback;
    void *Arg;
} OV_RTC_ROUTE_CALLBACK_WITH_ARG;

OV_PUBLIC_BEGIN

/* The three return 0 or a negative errno value: -EINVAL for a null RouteConf, a TargetIp.IpType
 * other than 0 and 1, more than 16 nexthops, one with neither gateway nor interface, and what the
 * kernel finds invalid; -ENODEV for an interface that does not exist; the kernel's own where libnl
 * knows it, else -254 (an unreachable gateway). The scope is "link" when the first nexthop has no
 * gateway or there is none, else "universe". */

/* -EINVAL also without a nexthop; -EEXIST for a route that is there. */
OV_ERR_T OV_RTCRouteAdd(const OV_RTC_ROUTE_CONF *RouteConf);

/* Adds the route, or puts it in the place of the one with that destination. */
OV_ERR_T OV_RTCRouteReplace(const OV_RTC_ROUTE_CONF *RouteConf);

/* Deletes a route of any protocol and scope; nexthops, which may be left out, must be its own. Of
 * an IPv6 destination all routes that match go, also those that somebody adds meanwhile. -ENOENT
 * when there is none. */
OV_ERR_T OV_RTCRouteDel(const OV_RTC_ROUTE_CONF *RouteConf);

/* Calls Callback on the caller's thread with each IPv4 route of all tables, as an added one; a
 * default route has the Dst "0.0.0.0". Returns 0, -EINVAL for a null Callback (not logged), or
 * libnl's error as above. */
OV_ERR_T OV_RTCRouteGetAll(const RouteNotifyCallback Callback, void *Arg);

/* Called at the start and the stop of the monitor; they do nothing. Init returns 0. */
OV_ERR_T OV_RTCRouteInit(void);
void OV_RTCRouteRelease(void);

OV_PUBLIC_END

/* Other programs fill this record: neither size nor place may move. */
static_assert(sizeof(OV_RTC_ROUTE_CONF) == 604, "OV_RTC_ROUTE_CONF");
static_assert(offsetof(OV_RTC_ROUTE_CONF, TableId) == 0, "OV_RTC_ROUTE_CONF");
static_assert(offsetof(OV_RTC_ROUTE_CONF, TargetIp) == 4, "OV_RTC_ROUTE_CONF");
static_assert(offsetof(OV_RTC_ROUTE_CONF, NexthopNum) == 24, "OV_RTC_ROUTE_CONF");
static_assert(offsetof(OV_RTC_ROUTE_CONF, Nexthop) == 28, "OV_RTC_ROUTE_CONF");
static_assert(offsetof(OV_RTC_ROUTE_CONF, IfName) == 348, "OV_RTC_ROUTE_CONF");

#endif
