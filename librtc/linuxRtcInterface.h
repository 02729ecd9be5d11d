/*
 * Settings of one network interface, by one request: administrative state, how it gets its address,
 * proxy ARP, MTU, speed, duplex, auto-negotiation, MAC address.
 *
 * OV_RTCIntfConfig picks the worker of the requested setting; the workers can be called directly
 * and stand in linuxRtcInterfaceAddress.h, linuxRtcInterfaceLink.h and
 * linuxRtcInterfaceSteering.h. Each composes a command line for the machine's own tools (ip,
 * ifconfig, ethtool, pppd, dhclient) and runs it. Names and texts go through the shell as they
 * stand: check them first, an interface name against the names that there are. A command line that
 * does not fit its buffer is not run.
 *
 * No state: any thread may call, and each call lasts as long as its commands. Requests for one
 * interface are not put in order here. Nothing is rolled back.
 */
#ifndef LINUX_RTC_INTERFACE_H
#define LINUX_RTC_INTERFACE_H

#include "linuxRtc4Gmodule.h"
#include "linuxRtcInterfaceAddress.h"
#include "linuxRtcInterfaceLink.h"
#include "linuxRtcInterfaceSteering.h"
#include "orvaneRtcConf.h"

OV_PUBLIC_BEGIN

/* Which setting, and what the request's value is. "Enable": on for other than 0. */
typedef enum _OV_RTC_INTF_TYPE {
    OV_RTC_INTF_TYPE_ENABLE = 0,    /* Enable: up or down */
    OV_RTC_INTF_TYPE_DHCP = 1,      /* Enable: a client (started again), or none */
    OV_RTC_INTF_TYPE_PPPOE = 2,     /* Enable: a session (started again) as Pppoe says, or none */
    OV_RTC_INTF_TYPE_STATIC = 3,    /* Enable: adds the addresses of Static; else drops all, of both
                                       families */
    OV_RTC_INTF_TYPE_LTE = 4,       /* Enable: the modem's uplink as Lte says, or none */
    OV_RTC_INTF_TYPE_PROXY_ARP = 5, /* Enable */
    OV_RTC_INTF_TYPE_MTU = 6,       /* Val: bytes */
    OV_RTC_INTF_TYPE_SPEED = 7,     /* Val: Mb/s */
    OV_RTC_INTF_TYPE_DUPLEX = 8,    /* Val: full for other than 0, half for 0 */
    OV_RTC_INTF_TYPE_AUTONEG = 9,   /* Val: on for other than 0 */
    OV_RTC_INTF_TYPE_SNAT = 10,     /* not handled here */
    OV_RTC_INTF_TYPE_MAC = 11,      /* Str: six groups with colons; empty changes nothing */
    OV_RTC_INTF_TYPE_MAX = 12
} OV_RTC_INTF_TYPE;

/* A Mask of 0 is a host's: 32 and 128. */
typedef struct _OV_RTC_INTF_CONFIG_STATIC {
    OV_CONF_IPMULTI IpMulti;
    OV_CONF_IP6MULTI Ip6Multi;
} OV_RTC_INTF_CONFIG_STATIC;

typedef struct _OV_RTC_INTF_CONFIG_PPPOE {
    char PppoeUser[64];
    char PppoePasswd[64]; /* no " $ ` or \\: the shell reads it. The log shows it. */
} OV_RTC_INTF_CONFIG_PPPOE;

/* Text fields end in a NUL; one that does not is taken by its size (Lte's: less one). IfName must
 * end in one. */
typedef struct _OV_RTC_INTF_CONFIG {
    u32 Type; /* an OV_RTC_INTF_TYPE */
    char IfName[16];
    int Enable;
    union {
        char Str[128];
        u32 Val;
        OV_RTC_INTF_CONFIG_STATIC Static;
        OV_RTC_INTF_CONFIG_PPPOE Pppoe;
        OV_RTC_INTF_CONFIG_LTE Lte;
    };
} OV_RTC_INTF_CONFIG;

/* Changes the setting of the request. Returns the worker's result, 0 for done or a negative number;
 * -EINVAL for a null request, a Type that is not handled, an IfName without a NUL and more than
 * OV_CONF_IP_MAX addresses; -EOVERFLOW for PPPoE options (user, password, the interface name
 * twice) of more than 127 characters. Without an interface name nothing is run but the modem's
 * tool: -1. A static request that fails half-way leaves the addresses
 * before. Link parameters (MTU, speed, duplex, auto-negotiation) that are in place already are left
 * alone; everything else is always carried out. */
OV_ERR_T OV_RTCIntfConfig(const OV_RTC_INTF_CONFIG *IntfConf);

OV_PUBLIC_END

/* Other programs fill these records: neither size nor place may move. */
static_assert(sizeof(OV_RTC_INTF_CONFIG_STATIC) == 184, "OV_RTC_INTF_CONFIG_STATIC");
static_assert(offsetof(OV_RTC_INTF_CONFIG_STATIC, IpMulti) == 0, "OV_RTC_INTF_CONFIG_STATIC");
static_assert(offsetof(OV_RTC_INTF_CONFIG_STATIC, Ip6Multi) == 44, "OV_RTC_INTF_CONFIG_STATIC");
static_assert(sizeof(OV_RTC_INTF_CONFIG_PPPOE) == 128, "OV_RTC_INTF_CONFIG_PPPOE");
static_assert(offsetof(OV_RTC_INTF_CONFIG_PPPOE, PppoeUser) == 0, "OV_RTC_INTF_CONFIG_PPPOE");
static_assert(offsetof(OV_RTC_INTF_CONFIG_PPPOE, PppoePasswd) == 64, "OV_RTC_INTF_CONFIG_PPPOE");
static_assert(sizeof(OV_RTC_INTF_CONFIG) == 208, "OV_RTC_INTF_CONFIG");
static_assert(offsetof(OV_RTC_INTF_CONFIG, Type) == 0, "OV_RTC_INTF_CONFIG");
static_assert(offsetof(OV_RTC_INTF_CONFIG, IfName) == 4, "OV_RTC_INTF_CONFIG");
static_assert(offsetof(OV_RTC_INTF_CONFIG, Enable) == 20, "OV_RTC_INTF_CONFIG");
static_assert(offsetof(OV_RTC_INTF_CONFIG, Str) == 24, "OV_RTC_INTF_CONFIG");

#endif
