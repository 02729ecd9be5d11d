/*
 * Start and stop of the library in a process.
 *
 * The base is counted: the first start registers the library's memory module and connects to the
 * dispatch and to the configuration service, the stop that takes the count to 0 undoes it. The full
 * start has the base and, not counted, the flexible messages, the bypass switched off, the fixed
 * order of the policy rules, and the monitors. A process starts fully once and stops fully once; a
 * library inside it that only needs the services may start and stop the base beside that.
 *
 * Open the agent log first: starts and stops write to it. Start from one thread and before others
 * use the library; base starts and stops may then come from several threads, and take turns. None
 * of the four may be called from a callback or a dispatch handler: a stop waits for those, and so
 * may wait for itself for ever. A service that is there but takes no connection holds a start, and
 * a stop that waits for it, for two minutes.
 *
 * Start after a fork, not before: a forked child has neither the threads nor the connections. It
 * may call OV_RTCExit, and then start on its own. A fork waits for other threads to leave the
 * library's short sections, for a second at most.
 */
#ifndef LINUX_RTC_INIT_H
#define LINUX_RTC_INIT_H

#include "orvaneTypes.h"

OV_PUBLIC_BEGIN

/* Starts everything. Beware: whatever board is detected, its bypass is switched off. Returns 0, or
 * the negative errno value of messages, base or monitors: -ECONNREFUSED (a service does not run),
 * -EALREADY (one of the two clients was started beside the base), -EBADE (the monitors run already,
 * or somebody handles the notifications that they need), -ENOMEM, -EINVAL (no place for the memory
 * module). How bypass and rules went, and the monitors' threads, is in the log alone. What was
 * started before a failure stays: call OV_RTCExit also then. LogFile is not used. */
OV_ERR_T OV_RTCInit(const char *LogFile);

/* Stops everything: the base (by one), the flexible messages, the monitors. Waits for a callback
 * and a dispatch handler that run. The rules stay, and the callback of relayed events does
 * (linuxRtcMonitor.h). */
void OV_RTCExit(void);

/* Starts the base, or counts. Returns 0, or the negative errno value of what failed (as above;
 * -EOVERFLOW beyond 65535): nothing is then left started. LogFile is not used. */
OV_ERR_T OV_RTCBaseInit(const char *LogFile);

/* Takes one off the count and stops the base at 0; a stop too many only logs. */
void OV_RTCBaseExit(void);

OV_PUBLIC_END

#endif
