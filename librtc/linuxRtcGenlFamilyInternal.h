/*
 * The data path's generic-netlink family: what both ends agree on, and the steps of the operations
 * on it. It multicasts events to the library; the library sends connection states back.
 *
 *   | nlmsghdr | genlmsghdr | attributes, each | nla_len | nla_type | one record |
 */
#ifndef LINUX_RTC_GENL_FAMILY_INTERNAL_H
#define LINUX_RTC_GENL_FAMILY_INTERNAL_H

#include "linuxRtcGenlMonitorInternal.h"

#include <linux/genetlink.h>

struct nl_sock;

enum _OV_CON_GENL_OP {
    OV_CON_GENL_UNSPEC = 0,
    OV_CON_GENL_OP_MULTICAST = 1,  /* to the library */
    OV_CON_GENL_OP_STATEREPLY = 2, /* to the family */
    __OV_CON_GENL_OP_MAX = 3
};

enum _OV_CON_GENL_ATTR {
    OV_CON_GENL_ATTR_UNSPEC = 0,
    OV_CON_GENL_ATTR_STATE_NOTIFY = 1,       /* OV_CON_STATE_NOTIFY */
    OV_CON_GENL_ATTR_FLOW_URL_NOTIFY = 2,    /* OV_FLOW_URL_NOTIFY_INFO, the URL with its NUL */
    OV_CON_GENL_ATTR_NETIO_NOTIFY = 3,       /* OV_NETIO_STATE_NOTIFY */
    OV_CON_GENL_ATTR_DP_REPORT = 4,          /* OV_DP_REPORT_HEADER, the data */
    OV_GENL_ATTR_RATELIMIT_STATE_NOTIFY = 5, /* OV_RATE_LIMIT_STATE_NOTIFY */
    __OV_CON_GENL_ATTR_MAX = 6
};

/* What is sent: Buf holds one attribute. */
struct _OV_RTC_GENL_HDR {
    struct genlmsghdr GenlHdr;
    char Buf[254];
};
static_assert(sizeof(_OV_RTC_GENL_HDR) == 258);
static_assert(offsetof(_OV_RTC_GENL_HDR, GenlHdr.version) == 1);
static_assert(offsetof(_OV_RTC_GENL_HDR, GenlHdr.reserved) == 2);
static_assert(offsetof(_OV_RTC_GENL_HDR, Buf) == 4);

/* The steps of OV_RTCGenlMonitorSendPtxNotify, on a socket for one notification: made (null when
 * that failed), asked for the family's id (-1 when the family is absent), and sent on (0 or -1).
 * They share the id: one thread at a time. */
struct nl_sock *_RTCMonitorCreateGenl();
int _RTCMonitorGenlGetPtxFamilyId(struct nl_sock *Sock);
int _OV_RTCMonitorGenlSendPtxNotify(struct nl_sock *Sock, const OV_CON_STATE_NOTIFY *Notify);

/* libnl's callback for a route of a dump; Arg is the NotifyCallback, or null. */
int _RTCMonitorAllRouteParse(struct nl_msg *Message, void *Arg);

#endif
