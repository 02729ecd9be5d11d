/*
 * A cellular (LTE) uplink, in one of two ways: a USB modem that pppd drives through a chat script,
 * one unit a link; or an ECM modem that its own tool, ECM_DEMO, brings up and down.
 *
 * For pppd, a unit n has a chat script (/etc/ppp/chat_4g_unit_n), options (/etc/ppp/peers/4g_n) and
 * a script for when the link comes up (/etc/ppp/ip-up.local.4gn), which reports the address to the
 * local agent's pipe. Create script and options, then enable.
 *
 * Access point and dial number follow from the Carrier: 1 "cmnet", 2 "3gnet", 3 "ctnet", each with
 * "*99#"; 4 those of the record; any other none, and "*99#". They and the interface name stand in
 * commands and scripts as they are. The link-up script is writable by all. /etc/ppp, /etc/ppp/peers
 * and /etc/corsin must be there.
 *
 * Processes are found by the text of their command lines in ps: a stop of unit 1 hits unit 10 too,
 * COLUMNS must not be set (ps would cut the lines), and the lines found go to standard output. A
 * stop that could not look, without ps or descriptors, says 0 as for one that found nothing.
 *
 * No state: any thread may call, one at a time for a unit and for the ECM modem. Unless said
 * otherwise the result is 0 when the command succeeded, else -1.
 */
#ifndef LINUX_RTC_4GMODULE_H
#define LINUX_RTC_4GMODULE_H

#include "orvaneTypes.h"

#include <assert.h>
#include <stddef.h>

OV_PUBLIC_BEGIN

/* The text fields end in a NUL; of one that does not, the first 31 characters count. */
typedef struct _OV_RTC_INTF_CONFIG_LTE {
    uint32_t Carrier;
    char DialNumber[32];
    char Apn[32];
} OV_RTC_INTF_CONFIG_LTE;

/* Writes the chat script and the link-up script, which acts for the interface ifname alone. Returns
 * 0, or -1 when a file could not be written or an argument is null. */
int OV_RTC4GmoduleCreateScript(const char *ifname, const OV_RTC_INTF_CONFIG_LTE *conf, int unit);

/* Writes the unit's pppd options; ifname is not looked at. */
int OV_RTC4GmoduleCreateOption(const char *ifname, int unit);

/* Empties the report file and starts pppd for the unit; one that runs is not stopped. It goes on by
 * itself in the background, so the result says only that it was started. It has the caller's
 * standard output. */
int OV_RTC4GmoduleEnable(int unit);

/* Makes the unit's link-up script not executable and kills its pppd; 0 also when none runs. */
int OV_RTC4GmoduleDisable(int unit);

/* Kills the modem's tool; 0 also when it does not run, or is gone by itself meanwhile. */
int OV_RTCEcmProcessDisable(void);

/* Brings the ECM modem's uplink up (enable other than 0) or down, after its tool was killed.
 * ifname is not looked at, and conf only for up (-EINVAL when it is null then). */
int OV_RTCEcm4GConfig(const char *ifname, const OV_RTC_INTF_CONFIG_LTE *conf, int enable);

OV_PUBLIC_END

/* Other programs fill this record: neither size nor place may move. */
static_assert(sizeof(OV_RTC_INTF_CONFIG_LTE) == 68, "OV_RTC_INTF_CONFIG_LTE");
static_assert(offsetof(OV_RTC_INTF_CONFIG_LTE, Carrier) == 0, "OV_RTC_INTF_CONFIG_LTE");
static_assert(offsetof(OV_RTC_INTF_CONFIG_LTE, DialNumber) == 4, "OV_RTC_INTF_CONFIG_LTE");
static_assert(offsetof(OV_RTC_INTF_CONFIG_LTE, Apn) == 36, "OV_RTC_INTF_CONFIG_LTE");

#endif
