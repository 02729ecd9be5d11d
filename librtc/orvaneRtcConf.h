/*
 * Addresses with their prefix lengths, as configuration records carry them. IPv4 addresses are in
 * host byte order here (the first octet in the most significant byte), IPv6 ones are the 16 bytes
 * as they travel. Clear a record before an IPv4 address goes in: an address is "none" when it is
 * zero.
 */
#ifndef ORVANE_RTC_CONF_H
#define ORVANE_RTC_CONF_H

#include "orvaneInetTypes.h"

#define OV_CONF_IP_MAX 8

typedef struct _OV_CONF_IP_MASK {
    union {
        uint32_t Ip;
        OV_IN6_ADDR Ip6;
    };
    uint8_t IpType; /* an OV_IN_ADDR_TYPE: which of the two */
    uint8_t Mask;   /* prefix length in bits */
} OV_CONF_IP_MASK;

/* Several addresses of an interface: IpCnt of them, each with the prefix length of its place. */
typedef struct _OV_CONF_IPMULTI {
    uint8_t IpCnt;
    uint32_t Ip[OV_CONF_IP_MAX];
    uint8_t Mask[OV_CONF_IP_MAX];
} OV_CONF_IPMULTI;

typedef struct _OV_CONF_IP6MULTI {
    uint8_t IpCnt;
    OV_IN6_ADDR Ip[OV_CONF_IP_MAX];
    uint8_t Mask[OV_CONF_IP_MAX];
} OV_CONF_IP6MULTI;

typedef struct _OV_CONF_IF_IPADDR {
    OV_CONF_IPMULTI IpMul;
    OV_CONF_IP6MULTI Ip6Mul;
} OV_CONF_IF_IPADDR;

/* Other programs fill these records: neither size nor place may move. */
static_assert(sizeof(OV_CONF_IP_MASK) == 20, "OV_CONF_IP_MASK");
static_assert(offsetof(OV_CONF_IP_MASK, Ip) == 0, "OV_CONF_IP_MASK");
static_assert(offsetof(OV_CONF_IP_MASK, Ip6) == 0, "OV_CONF_IP_MASK");
static_assert(offsetof(OV_CONF_IP_MASK, IpType) == 16, "OV_CONF_IP_MASK");
static_assert(offsetof(OV_CONF_IP_MASK, Mask) == 17, "OV_CONF_IP_MASK");
static_assert(sizeof(OV_CONF_IPMULTI) == 44, "OV_CONF_IPMULTI");
static_assert(offsetof(OV_CONF_IPMULTI, IpCnt) == 0, "OV_CONF_IPMULTI");
static_assert(offsetof(OV_CONF_IPMULTI, Ip) == 4, "OV_CONF_IPMULTI");
static_assert(offsetof(OV_CONF_IPMULTI, Mask) == 36, "OV_CONF_IPMULTI");
static_assert(sizeof(OV_CONF_IP6MULTI) == 140, "OV_CONF_IP6MULTI");
static_assert(offsetof(OV_CONF_IP6MULTI, IpCnt) == 0, "OV_CONF_IP6MULTI");
static_assert(offsetof(OV_CONF_IP6MULTI, Ip) == 4, "OV_CONF_IP6MULTI");
static_assert(offsetof(OV_CONF_IP6MULTI, Mask) == 132, "OV_CONF_IP6MULTI");
static_assert(sizeof(OV_CONF_IF_IPADDR) == 184, "OV_CONF_IF_IPADDR");
static_assert(offsetof(OV_CONF_IF_IPADDR, IpMul) == 0, "OV_CONF_IF_IPADDR");
static_assert(offsetof(OV_CONF_IF_IPADDR, Ip6Mul) == 44, "OV_CONF_IF_IPADDR");

#endif
