/*
 * What the parts of the interface module share: the readers of present settings, which tell whether
 * there is anything to set, and the workers behind a request.
 */
#ifndef LINUX_RTC_INTERFACE_INTERNAL_H
#define LINUX_RTC_INTERFACE_INTERNAL_H

#include "orvaneRtcConf.h"

/* The settings that can be read. */
typedef enum _OV_RTC_L2_CONF_TYPE {
    OV_RTC_L2_CONF_TYPE_MTU = 0,
    OV_RTC_L2_CONF_TYPE_SPEED = 1,
    OV_RTC_L2_CONF_TYPE_DUPLEX = 2,
    OV_RTC_L2_CONF_TYPE_AUTO_NEGO = 3,
    OV_RTC_L2_CONF_TYPE_TXQUEUE_LEN = 4,
    OV_RTC_IF_CONF_TYPE_MAX = 5
} OV_RTC_L2_CONF_TYPE;

/* Reads the present setting of an interface as text into OutStr (Size characters with the NUL; null
 * to see only whether it can be read). Returns 0 or -ESRCH (a name that is missing or too long for
 * path or command), -EINTR (no such setting), -ENXIO (no such file), -EBADF (nothing in it),
 * -EAGAIN (the tool did not print it), -EINVAL (a queue length that OutStr cannot hold); the other
 * texts are cut. */
int32_t _OV_RTCIfGetCurConfig(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *OutStr,
                              size_t Size);

/* The same from one source: the file of the first three settings, ethtool, ifconfig. */
int32_t _OV_RTCIfGetCurConfigFromSysFile(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *OutStr,
                                         size_t Size);
int32_t _OV_RTCIfGetCurAutoGeno(const char *IfName, char *OutStr, size_t Size);
int32_t _OV_RTCIfGetCurTxQueueLen(const char *IfName, char *OutStr, size_t Size);

/* The path of that file. 0, -ESRCH or -EINTR. */
int32_t _OV_RTCIfGetSysFilePath(OV_RTC_L2_CONF_TYPE Type, const char *IfName, char *SysFilePath,
                                size_t Size);

/* Set the addresses of a record in their order; a Mask of 0 is a host's. The first failure ends it
 * and is the result; -EINVAL for more addresses than the record holds. */
OV_ERR_T _OV_RTCIntfSetIPMul(const char *IfName, const OV_CONF_IPMULTI *IpMulti);
OV_ERR_T _OV_RTCIntfSetIP6Mul(const char *IfName, const OV_CONF_IP6MULTI *Ip6Multi);

/* 0, -1, -EINVAL (an address that cannot be written) or -EOVERFLOW (a command that is too long). */
OV_ERR_T _OV_RTCIntfSetIpv6Addr(const char *IfName, const OV_IN6_ADDR *Ip6, uint32_t Mask);

OV_ERR_T _OV_RTCSetIntfMtu(const char *Ifname, int32_t Mtu);

#endif
