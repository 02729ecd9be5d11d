/*
 * How events are made, whichever way they come: one function for a route, whether the kernel
 * announced it or a dump listed it. What is read is measured first; a record that is too short is
 * reported and refused.
 */
#ifndef LINUX_RTC_NOTIFY_INTERNAL_H
#define LINUX_RTC_NOTIFY_INTERNAL_H

#include "orvaneRtcNotify.h"

struct nlmsghdr;

/* What stands for the destination of a route that has none. */
struct MISSING_DESTINATION {
    const char *OfDefaultRoute; /* prefix length 0 */
    const char *OfOther;
};

/* Zeroes Notify and fills it from a route message (RTM_NEWROUTE: Event 1). false when the message
 * cannot be parsed, and when an attribute is too short, which is logged. */
bool _OV_RTCRouteNotifyBuild(struct nlmsghdr *Header, const MISSING_DESTINATION &Missing,
                             OV_RTC_MONITOR_NOTIFY *Notify);

#endif
