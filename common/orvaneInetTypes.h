/*
 * The address records that all areas share. Each one is exactly the bytes of the address, in the
 * order in which they travel; only OV_IP_TYPE_ADDR puts the family in front of them.
 *
 * An OV_INET_ADDR holds an address of either family: IPv4 in its first 4 bytes, IPv6 in all 16.
 * Clear it before an IPv4 address goes in, so that records compare and OV_InetAddrZero tells the
 * unspecified address of both families.
 */
#ifndef ORVANE_INET_TYPES_H
#define ORVANE_INET_TYPES_H

#include "orvaneTypes.h"

#include <assert.h>
#include <stddef.h>

/* Values held in network byte order. */
typedef uint16_t OV_BE16;
typedef uint32_t OV_BE32;

/* An IPv4 address: in memory, the four dotted parts as they are read. */
typedef struct _OV_IN_ADDR {
    OV_BE32 S4Addr;
} OV_IN_ADDR;

typedef struct _OV_IN6_ADDR {
    union {
        uint8_t U6Addr8[16];
        OV_BE16 U6Addr16[8];
        OV_BE32 U6Addr32[4];
    } In6;
} OV_IN6_ADDR;

typedef union _OV_INET_ADDR {
    uint32_t All[4];
    OV_BE32 Ip;
    OV_BE32 Ip6[4];
    OV_IN_ADDR In;
    OV_IN6_ADDR In6;
} OV_INET_ADDR;

/* Which family an OV_INET_ADDR holds. */
typedef enum _OV_IN_ADDR_TYPE {
    OV_IN_ADDR_TYPE_IPV4 = 0,
    OV_IN_ADDR_TYPE_IPV6 = 1,
    OV_IN_ADDR_TYPE_INVALID = 2
} OV_IN_ADDR_TYPE;

typedef struct _OV_IP_TYPE_ADDR {
    OV_IN_ADDR_TYPE AddrType;
    OV_INET_ADDR Addr;
} OV_IP_TYPE_ADDR;

/* The address in a notification about a connection, which tells the family elsewhere. */
typedef union _OV_IP_ADDR {
    uint32_t V4;
    uint8_t V6[16];
} _OV_IP_ADDR;

/* An Ethernet (MAC) address. */
typedef union _OV_ETH_ADDR {
    uint8_t Addr8[6];
    OV_BE16 Addr16[3];
} OV_ETH_ADDR;

/* These records lie in files, messages and other programs: neither size nor place may move. */
static_assert(sizeof(OV_IN_ADDR) == 4, "OV_IN_ADDR");
static_assert(offsetof(OV_IN_ADDR, S4Addr) == 0, "OV_IN_ADDR");
static_assert(sizeof(OV_IN6_ADDR) == 16, "OV_IN6_ADDR");
static_assert(offsetof(OV_IN6_ADDR, In6.U6Addr8) == 0, "OV_IN6_ADDR");
static_assert(offsetof(OV_IN6_ADDR, In6.U6Addr16) == 0, "OV_IN6_ADDR");
static_assert(offsetof(OV_IN6_ADDR, In6.U6Addr32) == 0, "OV_IN6_ADDR");
static_assert(sizeof(OV_INET_ADDR) == 16, "OV_INET_ADDR");
static_assert(offsetof(OV_INET_ADDR, All) == 0, "OV_INET_ADDR");
static_assert(offsetof(OV_INET_ADDR, Ip) == 0, "OV_INET_ADDR");
static_assert(offsetof(OV_INET_ADDR, Ip6) == 0, "OV_INET_ADDR");
static_assert(offsetof(OV_INET_ADDR, In) == 0, "OV_INET_ADDR");
static_assert(offsetof(OV_INET_ADDR, In6) == 0, "OV_INET_ADDR");
static_assert(sizeof(OV_IN_ADDR_TYPE) == 4, "OV_IN_ADDR_TYPE");
static_assert(sizeof(OV_IP_TYPE_ADDR) == 20, "OV_IP_TYPE_ADDR");
static_assert(offsetof(OV_IP_TYPE_ADDR, AddrType) == 0, "OV_IP_TYPE_ADDR");
static_assert(offsetof(OV_IP_TYPE_ADDR, Addr) == 4, "OV_IP_TYPE_ADDR");
static_assert(sizeof(_OV_IP_ADDR) == 16, "_OV_IP_ADDR");
static_assert(offsetof(_OV_IP_ADDR, V4) == 0, "_OV_IP_ADDR");
static_assert(offsetof(_OV_IP_ADDR, V6) == 0, "_OV_IP_ADDR");
static_assert(sizeof(OV_ETH_ADDR) == 6, "OV_ETH_ADDR");
static_assert(offsetof(OV_ETH_ADDR, Addr8) == 0, "OV_ETH_ADDR");
static_assert(offsetof(OV_ETH_ADDR, Addr16) == 0, "OV_ETH_ADDR");

/* TRUE when all 16 bytes of Addr are zero. */
static inline BOOL OV_InetAddrZero(const OV_INET_ADDR *Addr)
{
    return (Addr->All[0] | Addr->All[1] | Addr->All[2] | Addr->All[3]) == 0;
}

#endif
