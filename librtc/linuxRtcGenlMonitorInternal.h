/* What the netlink monitor and the parser of the connection-state family have of each other, and
 * the monitor's parsers, which take whatever bytes arrive. */
#ifndef LINUX_RTC_GENL_MONITOR_INTERNAL_H
#define LINUX_RTC_GENL_MONITOR_INTERNAL_H

#include "linuxRtcGenlMonitor.h"

struct nl_msg;

static constexpr const char *OV_CON_FAMILY_NAME = "ov_con_family";
static constexpr const char *OV_CON_GROUP_NAME = "ov_con_mcgrp";

/* Hands an event to all callbacks. On the monitor thread. */
void _RTCMonitorNotify(OV_RTC_MONITOR_NOTIFY *NotifyInfo);

/* libnl's callbacks for a valid message: of the routing socket (NL_OK, or -1 for an error message),
 * and of the family's (always NL_OK). */
int _RTCMonitorParseNlMsg(struct nl_msg *Message, void *Arg);
int _RTCMonitorParseGenlMsg(struct nl_msg *Message, void *Arg);

#endif
