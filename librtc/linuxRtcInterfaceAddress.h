/*
 * How an interface gets its addresses: static ones, by PPPoE, by DHCP. Each operation runs the
 * machine's own tools; names go through the shell as they stand, and a command line that does not
 * fit is not run. Unless said otherwise the result is 0 when the command succeeded, else -1, also
 * for a name that is null or empty. No state: any thread may call, one at a time for an interface.
 *
 * IPv4 addresses are in host byte order (the first octet in the most significant byte); Mask is a
 * prefix length.
 *
 * The pppd unit of an interface is the number behind its first three characters, its low 8 bits:
 * eth1 has unit 1 and the link ppp1. pppd reads its options from /etc/ppp/peers/NAME. When the link
 * comes up it runs /etc/ppp/ip-up.local.NAME, a script for bash, which reports the route to the
 * appliance; after a stop that file is not executable any more. The options hold the password and
 * have the mode that the umask leaves; the script is writable by all.
 *
 * Processes are found by the text of their command lines in ps: a stop for eth1 hits those of eth10
 * too, and COLUMNS must not be set, or ps cuts these lines.
 */
#ifndef LINUX_RTC_INTERFACE_ADDRESS_H
#define LINUX_RTC_INTERFACE_ADDRESS_H

#include "orvaneInetTypes.h"

OV_PUBLIC_BEGIN

/* Sets an address, with the broadcast address of its network; other addresses stay. Mask is taken
 * as it stands, 0 too. */
int rtc_if_set_ip(const char *IfName, uint32_t Ip, uint8_t Mask);

/* Deletes an address; -1 also for the address 0. */
OV_ERR_T OV_RTCIntfDelIP(const char *IfName, uint32_t Ip, uint8_t Mask);

/* Drop addresses of the interface: the first all of them, of IPv6 and link-local ones too, the
 * second those of IPv6. */
int rtc_if_flush_ip(const char *IfName);
OV_ERR_T OV_RTCIntfFlushIpv6Addr(const char *IfName);

/* Does nothing; returns 0. */
int rtc_if_set_method(const char *IfName);

/* Writes the pppd options of the interface: those of every session, then Options, lines that each
 * end in a newline (the shell sees them inside double quotes). */
int rtc_if_pppoe_set(const char *Options, const char *IfName);

/* Stops the session of the interface and starts it anew, with the options that were set before.
 * pppd goes on by itself in the background, so the result says only that it was started. */
int rtc_if_pppoe_start(const char *IfName);

/* Kills the session's pppd; 0 also when none runs. The options stay. */
int OV_StopPPPDProcess(const char *IfName);

/* Meant to return 0 when the PPP link of the interface is there. The link's name is cut short,
 * though: for a name of four characters (eth1) all links are asked for, which succeeds always; for
 * up to three "ppp", for five to seven "p", "pp" or "ppp", which fails, as a rule; for longer ones
 * a part of the name, maybe another's link (eth12345: ppp1). */
int rtc_is_inf_pppoe(const char *IfName);

/* Starts a DHCP client, which goes to the background at once; one that runs is killed first, as far
 * as the operation below can. */
int rtc_if_dhcpclient_enable(const char *IfName);

/* Kills the interface's DHCP clients. Returns 0, also when none was found (their numbers must fit
 * in 255 characters), or -1 when one could not be killed. */
int rtc_if_dhcpclient_disable(const char *IfName);

OV_PUBLIC_END

#endif
