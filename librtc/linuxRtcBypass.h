/*
 * The hardware bypass and the watchdog that holds the appliance out of it.
 *
 * The bypass relay joins two network ports straight through. OV_RTCBypass moves it; the daemon
 * `feeddog` feeds the board's watchdog, which lets the board fall into bypass when the appliance
 * hangs. Both drive the same chip and nothing locks it; they keep apart by this protocol:
 *
 *   /var/run/feeddog.pid  the daemon's process id, by which it is found
 *   /etc/feeddog.conf     "feeddog=1" or "feeddog=0": is feeding wanted
 *   SIGUSR1, SIGUSR2      to the daemon: feed, and stop feeding (sent before the relay is moved)
 *
 * Port I/O needs root. The calls are not for several threads or processes at once.
 *
 * A sequence on the chip is never left half done: signals to the calling thread (but those of a
 * fault, and SIGKILL) and its cancellation wait until it is over. Signals to a process of several
 * threads wait only where the others block them, too.
 */
#ifndef LINUX_RTC_BYPASS_H
#define LINUX_RTC_BYPASS_H

#include "orvaneTypes.h"

OV_PUBLIC_BEGIN

/* Asks DMI for the mainboard and returns its platform number: 1 QiYang-J1900, 2 Huier-J1900,
 * 3 Huier-H61, 4 LiHua-8865, 5 LiHua-8895 (no driver), 6 any other board, or -1. */
int32_t OV_RTCBypassPlatFormGet(void);

/* Silences a running daemon, then moves the relay: 0 no-bypass, 1 bypass. Returns the driver's
 * result, -EINVAL when the board cannot be detected, -ENOENT when it has no bypass, or -1 when the
 * daemon could not be told (the relay is then not touched). Takes a second where the relay
 * wants a pulse. Signals wait from before the daemon is silenced until the outcome is in the log,
 * not while the board is detected. On the QiYang board the call repeats giving up the port rights
 * until that succeeds: between the attempts signals act. */
int32_t OV_RTCBypass(const int Enable);

/* Records whether the daemon is to feed and signals it; enabling restarts the service when none
 * runs. Touches no hardware. Returns 0 or a negative value; when the record cannot be written (a
 * negated errno) no signal is sent. */
int32_t OV_RTCBypassMode(const int Enable);

/* The rest is for the daemon. Platform is a number of OV_RTCBypassPlatFormGet; one outside the
 * table gives -1, a board without a watchdog 0. */

/* The daemon's own switch: 1 at start, 0 after OV_RTCFeedDogDisable, which stores it atomically.
 * Nothing in the library reads it. */
extern int g_BypassFeedDogEnable;

/* Writes the own process id into the PID file. Returns 0 or -1. */
int32_t OV_RTCFeedDogWritePidFile(void);

/* Returns the process id of a live daemon, or 0. Removes the PID file of one that is gone (and
 * says so on standard output); a file without a positive number counts as no daemon. */
int32_t OV_RTCFeedDogCheckRunning(void);

/* Clears g_BypassFeedDogEnable. It logs, so it does not belong in a signal handler. */
void OV_RTCFeedDogDisable(void);

/* Readies the board's watchdog for feeding. Timeout is the board's: the Huier boards arm with its
 * low 8 bits unless it is 0, the others ignore it. Returns the driver's result, 0 or -1. */
int32_t OV_RTCFeedDogInit(const int32_t Platform, const int32_t Timeout);

/* Loads the watchdog's counter with the low 8 bits of Timeout, in the unit that the chip is set to;
 * 0 stops it. Needs OV_RTCFeedDogInit in the same process. Returns 0 whatever the driver did, or -1
 * for a Platform outside the table. */
int32_t OV_RTCFeedDog(const int32_t Platform, const int32_t Timeout);

/* Ends feeding: leaves the chip's configuration mode (QiYang), stops the watchdog (LiHua) or does
 * nothing (Huier: an armed watchdog goes on). Returns the driver's result. */
int32_t OV_RTCFeedDogUninit(const int32_t Platform);

OV_PUBLIC_END

#endif
