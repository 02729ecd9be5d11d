/*
 * What the whole library shares: its own module in the accounted memory, "LIBRTC", to which every
 * allocation of the library is charged, and whether configuration changes reach it over the
 * dispatch socket.
 */
#ifndef ORVANE_LIBRTC_MEM_H
#define ORVANE_LIBRTC_MEM_H

#include "orvaneTypes.h"

#include <stddef.h>

OV_PUBLIC_BEGIN

/* TRUE when configuration changes arrive over the dispatch socket: on this appliance, always. */
int32_t OV_RTCisSocketConfig(void);

/* Registers the library's module: 0, or the registration's negative code. For the library's start
 * and stop, on one thread. */
OV_ERR_T OV_LibrtcMemModuleRegister(void);
void OV_LibrtcMemModuleUnregister(void);

/* Prints "[MEMINFO]<name>:Counter=<blocks>,Size=<bytes>\n" of the library's Mem account; without a
 * registration an empty name and zeros. UsageSize is with the NUL. Returns 0, or -EOVERFLOW when
 * the line was cut. */
OV_ERR_T OV_LibrtcMemGetUsage(char *Usage, size_t UsageSize);

OV_PUBLIC_END

#endif
