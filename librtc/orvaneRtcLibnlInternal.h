/*
 * What routes and rules share. A request is a session that lives for one call: open it, build the
 * object, log its text, send it, translate the answer. What was opened or built is held by scope
 * guards, so it is closed on every path. release() gives an object to a libnl object that keeps it.
 */
#ifndef ORVANE_RTC_LIBNL_INTERNAL_H
#define ORVANE_RTC_LIBNL_INTERNAL_H

#include "orvaneLibrtcLog.h"
#include "orvaneRtcConf.h"
#include "orvaneRtcLibnl.h"
#include "orvaneScope.h"

#include <arpa/inet.h>
#include <memory>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/object.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <netlink/route/rule.h>

/* libnl's own calls take locks that a fork would leave held in the child, and a child has to close
 * its parent's sockets: the library connects, and frees (OV_RTCLibNlSockFree), by these alone. A
 * thread that forks keeps the sockets that are its own. Returns what nl_connect does. */
enum LIBNL_OWNER { OWNED_BY_THREAD, OWNED_BY_MODULE };
int _OV_RTCLibNlConnect(struct nl_sock *Sock, int Protocol, LIBNL_OWNER Owner);

/* The socket's descriptor was closed by somebody else: it is nobody's to close. */
void _OV_RTCLibNlSockLost(const struct nl_sock *Sock);

/* libnl's cache manager has one place a kind ("route/rule") for the whole process, and counts
 * references without atomics: these take turns. A cache is offered while the place is free; free
 * takes it back first. Alloc returns libnl's error, or 0 and an empty cache. */
int _OV_RTCLibNlCacheAlloc(const char *Kind, struct nl_cache **Cache);
void _OV_RTCLibNlCacheProvide(const char *Kind, struct nl_cache *Cache);
void _OV_RTCLibNlCacheFree(struct nl_cache *Cache);

template <auto Release>
struct LIBNL_RELEASE {
    template <typename OBJECT>
    void operator()(OBJECT *Object) const
    {
        Release(Object);
    }
};

using NL_SOCK_SCOPE = std::unique_ptr<struct nl_sock, LIBNL_RELEASE<OV_RTCLibNlSockFree>>;
using NL_ADDR_SCOPE = std::unique_ptr<struct nl_addr, LIBNL_RELEASE<nl_addr_put>>;
using NL_CACHE_SCOPE = std::unique_ptr<struct nl_cache, LIBNL_RELEASE<_OV_RTCLibNlCacheFree>>;
using RTNL_ROUTE_SCOPE = std::unique_ptr<struct rtnl_route, LIBNL_RELEASE<rtnl_route_put>>;
using RTNL_NEXTHOP_SCOPE = std::unique_ptr<struct rtnl_nexthop, LIBNL_RELEASE<rtnl_route_nh_free>>;
using RTNL_RULE_SCOPE = std::unique_ptr<struct rtnl_rule, LIBNL_RELEASE<rtnl_rule_put>>;

/* A socket for the requests of one call. A cancellation of the thread waits until it is closed. */
struct LIBNL_SESSION {
    const CANCEL_SCOPE Whole;
    NL_SOCK_SCOPE Sock;
};

OV_ERR_T _OV_RTCLibNlSessionOpen(LIBNL_SESSION *Session);

/* One kind of request, by its operation code: what the log calls it, and libnl's call for it. */
template <typename OBJECT>
struct LIBNL_REQUEST {
    uint8_t OpType; /* an OV_RTC_LIBNL_OP_TYPE */
    const char *Name;
    const char *CallName;
    int (*Call)(struct nl_sock *Sock, OBJECT *Object, int Flags);
    int Flags;
};

/* The row of that operation, null when there is none. */
template <typename OBJECT, size_t COUNT>
static inline const LIBNL_REQUEST<OBJECT> *
_OV_RTCLibNlRequestFind(const LIBNL_REQUEST<OBJECT> (&Requests)[COUNT], uint8_t OpType)
{
    for (const LIBNL_REQUEST<OBJECT> &Request : Requests) {
        if (Request.OpType == OpType) {
            return &Request;
        }
    }
    return nullptr;
}

/* 0 for what libnl calls success (0 or a count), else its error as the library's result. */
static inline OV_ERR_T _OV_RTCLibNlResult(int NlResult)
{
    return NlResult < 0 ? OV_RTCTranslateNlError(NlResult) : 0;
}

/* The object as one line of text with libnl's own newline, cut at the buffer's size. Returns Text:
 * as the argument of a log site it is rendered only when the line is written. */
static constexpr size_t LIBNL_TEXT_SIZE = 512;
const char *_OV_RTCLibNlObjectText(struct nl_object *Object, char (&Text)[LIBNL_TEXT_SIZE]);

/* Whether there is an address of that family (AF_INET or AF_INET6) at all: zero is none. */
bool _OV_RTCIsConfAddrSet(int Family, const OV_CONF_IP_MASK &Address);

/* The address of a configuration record, read as one of that family, with a prefix length of the
 * caller's. Null when it cannot be built: the caller logs OV_LOG_CONF_ADDR_FAILURE. */
NL_ADDR_SCOPE _OV_RTCLibNlConfAddrBuild(int Family, const OV_CONF_IP_MASK &Address, uint8_t Mask);

/* A macro, so that the line names the function that wanted the address. */
#define OV_LOG_CONF_ADDR_FAILURE(Family, Address)                       \
    do {                                                                \
        if ((Family) == AF_INET6) {                                     \
            OV_LOG_ERROR("OV_RTCLibNlAddrBuild failed.");               \
        } else {                                                        \
            OV_LOG_ERROR("OV_RTCLibNlAddrBuild failed(ip4Addr = 0x%X)", \
                         static_cast<unsigned>(htonl((Address).Ip)));   \
        }                                                               \
    } while (0)

#endif
