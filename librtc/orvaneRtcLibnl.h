/*
 * What the netlink operations of the library go through: a libnl routing socket for one request, a
 * libnl address, and libnl's error numbers as the library's results. No state: any thread, each
 * with its own socket. Failures are logged at error level.
 */
#ifndef ORVANE_RTC_LIBNL_H
#define ORVANE_RTC_LIBNL_H

#include "orvaneTypes.h"

#include <stddef.h>

struct nl_addr;
struct nl_sock;

OV_PUBLIC_BEGIN

/* What a request is to do. Routes know add, replace and delete; rules know add and delete, and the
 * dump is the filter that looks for one. */
typedef enum _OV_RTC_LIBNL_OP_TYPE {
    OV_RTC_LIBNL_OP_NONE = 0,
    OV_RTC_LIBNL_OP_ADD = 1,
    OV_RTC_LIBNL_OP_REPLACE = 2,
    OV_RTC_LIBNL_OP_DEL = 3,
    OV_RTC_LIBNL_OP_FLUSH = 4,
    OV_RTC_LIBNL_OP_DUMP = 5,
    OV_RTC_LIBNL_OP_TYPE_MAX = 6
} OV_RTC_LIBNL_OP_TYPE;

/* A connected routing socket with libnl's defaults, which the caller gives to OV_RTCLibNlSockFree
 * (null is ignored). Returns 0 or a negative errno value: *nlSock is then as it was. */
OV_ERR_T OV_RTCLibNlSockAlloc(struct nl_sock **nlSock);
void OV_RTCLibNlSockFree(struct nl_sock *nlSock);

/* A new libnl address, released with nl_addr_put, or null. Addr: Size bytes in network byte order
 * (4 for AF_INET, 16 for AF_INET6); Mask: prefix length in bits, not checked. */
struct nl_addr *OV_RTCLibNlAddrBuild(int Family, const void *Addr, size_t Size, uint8_t Mask);

/* A libnl error number, of either sign, as a negative errno value; -254 for one that has none, and
 * for 0. */
OV_ERR_T OV_RTCTranslateNlError(int NlError);

OV_PUBLIC_END

#endif
