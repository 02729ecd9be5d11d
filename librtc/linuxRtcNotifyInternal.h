/*
 * How events are made, whichever way they come: one function for a route, whether the kernel
 * announced it or a dump listed it, and one for each record that arrives over the family and over
 * the dispatch service alike. What is read is measured first; a record that is too short, or lies
 * about its length, is reported and refused.
 */
#ifndef LINUX_RTC_NOTIFY_INTERNAL_H
#define LINUX_RTC_NOTIFY_INTERNAL_H

#include "orvaneLibrtcMemInternal.h"
#include "orvaneMemInternal.h"
#include "orvaneRtcNotify.h"

#include <memory>
#include <span>

struct nlattr;
struct nlmsghdr;

/* Whether something has that many bytes at least; logged when not, by its kind and number. */
bool _OV_RTCRecordHolds(const char *Kind, int Number, int Size, int Came);
bool _OV_RTCAttributeHolds(const char *Kind, const struct nlattr *Attribute, int Size);

/* What stands for the destination of a route that has none. */
struct MISSING_DESTINATION {
    const char *OfDefaultRoute; /* prefix length 0 */
    const char *OfOther;
};

/* Zeroes Notify and fills it from a route message (RTM_NEWROUTE: Event 1). Socket, any that is open
 * or -1, is asked for the interface's name. false when the message cannot be parsed, and when an
 * attribute is too short, which is logged. */
bool _OV_RTCRouteNotifyBuild(struct nlmsghdr *Header, const MISSING_DESTINATION &Missing,
                             int Socket, OV_RTC_MONITOR_NOTIFY *Notify);

/* A record as it came; it may be longer than what is known of it, and need not be aligned. */
using RECORD = std::span<const uint8_t>;

/* Fills *Notify: the record stands in the union, all else is zero. */
void _OV_RTCNotifyInit(OV_RTC_MONITOR_NOTIFY *Notify, OV_RTC_MONITOR_TYPE Type, RECORD Record);

/* The library may be stopped during the callback, and started again: the block is then in no
 * account any more. */
struct NOTIFY_RELEASE {
    uint32_t ModStart; /* the account that the block was charged to */

    void operator()(OV_RTC_MONITOR_NOTIFY *Notify) const
    {
        if (ModStart == g_LibrtcModStart && g_LibrtcModID != -1) {
            OV_LibrtcMemFree(Notify);
        } else {
            _OV_MemFreeDisowned(Notify);
        }
    }
};
using NOTIFY_SCOPE = std::unique_ptr<OV_RTC_MONITOR_NOTIFY, NOTIFY_RELEASE>;

/* The same in a block that is Extra bytes larger than an event: the record may reach that far
 * beyond the union. Null for want of memory. */
NOTIFY_SCOPE _OV_RTCNotifyAlloc(OV_RTC_MONITOR_TYPE Type, RECORD Record, size_t Extra);

/* Hands an event to whoever is registered. */
using NOTIFY_DELIVER = void (*)(OV_RTC_MONITOR_NOTIFY *Notify);

/* Makes the event of a record, which holds its fixed fields at least, and delivers it. Returns 0;
 * -EBADMSG for a record that lies about its length (logged); -EINVAL for one of a wrong kind
 * (logged); -ENOMEM (left to the caller to log). */
using RECORD_HANDLER = OV_ERR_T (*)(RECORD Record, NOTIFY_DELIVER Deliver);

OV_ERR_T _OV_RTCUrlFlowHandle(RECORD Record, NOTIFY_DELIVER Deliver);
OV_ERR_T _OV_RTCReportHandle(RECORD Record, NOTIFY_DELIVER Deliver);
OV_ERR_T _OV_RTCNetioHandle(RECORD Record, NOTIFY_DELIVER Deliver);

#endif
