/*
 * Policy rules of the kernel: "traffic from this source looks up that table", by priority.
 *
 * A call opens its own netlink socket, reads all rules, asks or changes one thing and closes the
 * socket: its cost grows with the number of rules. No state: any thread may call. A thread that is
 * cancelled meanwhile ends after the call. What goes out is logged at info level, failures at error
 * level.
 */
#ifndef ORVANE_RTC_IP_RULE_H
#define ORVANE_RTC_IP_RULE_H

#include "orvaneRtcConf.h"

typedef struct _OV_RTC_IP_RULE_CONF {
    OV_IN_ADDR_TYPE IpType;    /* the family of the rule */
    uint16_t Priority;         /* lower ones are looked at first */
    uint32_t TableId;          /* 0: not set */
    OV_CONF_IP_MASK SrcPrefix; /* a zero address is every source; its IpType is not read */
} OV_RTC_IP_RULE_CONF;

OV_PUBLIC_BEGIN

/* Return 0 or a negative errno value: -EINVAL for a null IpRuleConf, an IpType other than IPv4 and
 * IPv6, and what the kernel finds invalid; the kernel's own where libnl knows it, else -254. */

/* -EINVAL also for TableId 0; -EEXIST for a rule that is there. */
OV_ERR_T OV_RTCIpRuleAdd(const OV_RTC_IP_RULE_CONF *IpRuleConf);

/* Deletes the first rule of that family and priority; TableId 0 and a zero source match any. With
 * priority 0 that may be the kernel's own rule for its local table. -ENOENT when there is none. */
OV_ERR_T OV_RTCIpRuleDel(const OV_RTC_IP_RULE_CONF *IpRuleConf);

/* TRUE when a rule has the priority and, as far as they are set, table, family (IPv4 or IPv6; any
 * other IpType compares neither family nor source) and source; what else a rule selects by is not
 * compared. FALSE also on a failure. IpRuleConf is not checked. */
BOOL OV_IsIpRuleExist(const OV_RTC_IP_RULE_CONF *IpRuleConf);

OV_PUBLIC_END

/* Other programs fill this record: neither size nor place may move. */
static_assert(sizeof(OV_RTC_IP_RULE_CONF) == 32, "OV_RTC_IP_RULE_CONF");
static_assert(offsetof(OV_RTC_IP_RULE_CONF, IpType) == 0, "OV_RTC_IP_RULE_CONF");
static_assert(offsetof(OV_RTC_IP_RULE_CONF, Priority) == 4, "OV_RTC_IP_RULE_CONF");
static_assert(offsetof(OV_RTC_IP_RULE_CONF, TableId) == 8, "OV_RTC_IP_RULE_CONF");
static_assert(offsetof(OV_RTC_IP_RULE_CONF, SrcPrefix) == 12, "OV_RTC_IP_RULE_CONF");

#endif
