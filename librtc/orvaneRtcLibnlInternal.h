/* Scope guards for what libnl hands out: one a type, each released by the call that its owner must
 * make. release() gives the object to a libnl object that keeps it. */
#ifndef ORVANE_RTC_LIBNL_INTERNAL_H
#define ORVANE_RTC_LIBNL_INTERNAL_H

#include "orvaneRtcLibnl.h"

#include <memory>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <netlink/route/rule.h>

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
using NL_CACHE_SCOPE = std::unique_ptr<struct nl_cache, LIBNL_RELEASE<nl_cache_free>>;
using RTNL_ROUTE_SCOPE = std::unique_ptr<struct rtnl_route, LIBNL_RELEASE<rtnl_route_put>>;
using RTNL_NEXTHOP_SCOPE = std::unique_ptr<struct rtnl_nexthop, LIBNL_RELEASE<rtnl_route_nh_free>>;
using RTNL_RULE_SCOPE = std::unique_ptr<struct rtnl_rule, LIBNL_RELEASE<rtnl_rule_put>>;

#endif
