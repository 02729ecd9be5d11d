/*
 * Receive steering: how what an interface receives is spread over queues and CPUs. The work is done
 * by scripts that the appliance installs in /bin/corsin/if_fdir_rss; each operation looks whether
 * its script is there and runs it. Names go through the shell as they stand.
 *
 * All return 0 when the script succeeded and -1 when it did not; -ENODEV for an interface that is
 * not there (or a null name), -ENOENT when the script is missing, -ENAMETOOLONG for a command of
 * 512 characters or more. No state: any thread may call.
 */
#ifndef LINUX_RTC_INTERFACE_STEERING_H
#define LINUX_RTC_INTERFACE_STEERING_H

#include "orvaneTypes.h"

OV_PUBLIC_BEGIN

/* Receive-side scaling on. */
OV_ERR_T OV_RTCIfFdirRssEnableRssAllInterfaces(void);
OV_ERR_T OV_RTCIfFdirRssEnableRssOneInterface(const char *IfName);

/* Steering of flows by the hardware, on and off. */
OV_ERR_T OV_RTCIfFdirRssEnableFdirOneInterface(const char *IfName);
OV_ERR_T OV_RTCIfFdirRssDisableFdirOneInterface(const char *IfName);

/* Steering by a separate master: on for one interface, with the master's address and port (both in
 * host byte order), off for all. */
OV_ERR_T OV_RTCIfSepSaEnableOneInterface(const char *IfName, uint32_t SAMasterIp,
                                         uint16_t SAMasterPort);
OV_ERR_T OV_RTCIfSepSaDisableAllInterface(void);

/* Receive-side scaling in software, off. */
OV_ERR_T OV_RTCIfSoftRssDisableAllInterface(void);

OV_PUBLIC_END

#endif
