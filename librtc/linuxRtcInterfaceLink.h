/*
 * The link parameters of an interface. Each setter runs one command (ifconfig, ethtool); names go
 * through the shell as they stand, and a command line that does not fit is not run. Unless said
 * otherwise the result is 0 when the command succeeded, else -1, also for a name that is null or
 * empty.
 *
 * Setters marked "compared" first read the present value. When it is the one asked for they say so
 * in the log and return 0 without a command, for setting it would bounce the link. A value that
 * cannot be read counts as another: auto-negotiation of interfaces with names of 13 characters or
 * more, queue lengths of more than six digits, the speed and duplex of a link that is down.
 *
 * No state: any thread may call, one at a time for an interface.
 */
#ifndef LINUX_RTC_INTERFACE_LINK_H
#define LINUX_RTC_INTERFACE_LINK_H

#include "orvaneTypes.h"

OV_PUBLIC_BEGIN

/* Up or down. Up also spreads the receive queues of the interface (linuxRtcInterfaceSteering.h);
 * that this failed is a warning in the log and not in the result. */
int rtc_if_up(const char *ifname);
int rtc_if_down(const char *ifname);

/* mac: six groups with colons; an empty one changes nothing and is 0. */
int rtc_if_set_mac(const char *ifname, const char *mac);

/* Bytes; compared. -EINVAL for a negative Mtu and a name that is null or of 16 characters or more.
 */
int rtc_if_set_mtu(const char *Ifname, int32_t Mtu);

/* Mb/s; compared. */
int rtc_if_set_speed(const char *ifname, int speed);

/* Full for other than 0, half for 0; compared. */
int rtc_if_set_mode(const char *ifname, int duplex);

/* Auto-negotiation: on for other than 0; compared. */
int rtc_if_set_nego(const char *ifname, int autoneg);

/* Full (TRUE) or half duplex together with the speed in Mb/s; compared, both. -EFAULT for a command
 * of 63 characters or more. */
OV_ERR_T OV_IntfSetDuplexAndSpeed(const char *Ifname, BOOL Duplex, uint32_t Speed);

/* Length of the transmit queue in packets, not 0 (-1); compared. */
OV_ERR_T OV_RTCIfTxQueueLenSet(const char *IfName, uint32_t TxQueueLen);

/* Receive checksum offload. -EOVERFLOW for a command of 512 characters or more. */
OV_ERR_T OV_RTCSetRxCheckSum(const char *IfName, BOOL Enable);

OV_PUBLIC_END

#endif
