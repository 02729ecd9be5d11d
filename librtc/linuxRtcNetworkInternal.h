/* The listing of a bridge's ports, for the module and its tests. */
#ifndef LINUX_RTC_NETWORK_INTERNAL_H
#define LINUX_RTC_NETWORK_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

/* Lists the ports of a bridge into PortIfStr (PortIfStrSize bytes with the NUL), a blank behind
 * each; a listing that does not fit is empty. Returns 0, -1 (a null argument), or the negated
 * OV_RTC_ERROR_BUFF_OVERFLOW or OV_RTC_ERROR_BUFF_PARSE. */
int32_t _OV_RTCBridgePortGetAll(const char *BrIfName, char *PortIfStr, size_t PortIfStrSize);

#endif
