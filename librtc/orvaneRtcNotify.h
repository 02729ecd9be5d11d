/*
 * The records of the events that the monitors hand to callbacks.
 *
 *   OV_RTC_MONITOR_NOTIFY   | Type | one record, by Type | its text or data, if any
 *                           0      8                     12304
 *
 * Where an event carries text or data behind its fixed fields (a URL, a data-path report, a cluster
 * message), that follows the fields at once and may reach beyond the union. Type tells which member
 * is filled; everything else is zero. A record lives during the callback only: copy what is to be
 * kept. The records from the connection-state family travel between kernel and library as they
 * stand here, integers in host byte order.
 */
#ifndef ORVANE_RTC_NOTIFY_H
#define ORVANE_RTC_NOTIFY_H

#include "orvaneRtcConf.h"

#define OV_RTC_IF_NAME_SIZE 16    /* with the NUL */
#define OV_RTC_ROUTE_TEXT_SIZE 16 /* a dotted address, with the NUL */
#define OV_RATE_LIMIT_REPORT_MAX 512

/* What an event is, and the member of the union that holds it. */
typedef enum _OV_RTC_MONITOR_TYPE {
    MONITOR_LINK = 0,                /* LinkNotify: MTU of a link, state of a bridge port */
    MONITOR_ADDR = 1,                /* never delivered */
    MONITOR_ROUTE = 2,               /* RouteNotify */
    MONITOR_CONN = 3,                /* ConnNotify */
    MONITOR_URL_FLOW = 4,            /* UrlFlowNotify */
    MONITOR_NETIO = 5,               /* NetioNotify */
    MONITOR_DATAPATH = 6,            /* DpNotify */
    MONITOR_RATELIMIT = 7,           /* RatelimitNotify */
    MONITOR_SA_CLUSTER_MSG = 8,      /* SAClusterMsg */
    MONITOR_PEER_HOST_REACHABLE = 9, /* PeerHostReachableNotify */
    MONITOR_TYPE_MAX = 10
} OV_RTC_MONITOR_TYPE;

/* What an interface event is about: Type of a link or netio record. */
typedef enum _OV_NETIO_NOTIFY_TYPE {
    OV_NETIO_NOTIFY_TYPE_IFSTATE = 0,
    OV_NETIO_NOTIFY_TYPE_IFADDR = 1,
    OV_NETIO_NOTIFY_TYPE_STPSTATE = 2,
    OV_NETIO_NOTIFY_TYPE_IFMTU = 3
} OV_NETIO_NOTIFY_TYPE;

/* A link that changed (also one that went up, down or away: ask the interface itself). */
typedef struct _OV_KERNEL_LINK_NOTIFY {
    uint8_t Type; /* ..._STPSTATE for a bridge port, else ..._IFMTU */
    char IfName[OV_RTC_IF_NAME_SIZE];
    uint32_t NotifySeq; /* always 0 */
    union {
        uint8_t StpState; /* the kernel's BR_STATE_* */
        uint16_t Mtu;     /* the low 16 bits */
    };
} OV_KERNEL_LINK_NOTIFY;

/* A route that came, changed or went. Addresses other than IPv4 are told only where their text is
 * shorter than 16 characters. */
typedef struct _OV_KERNEL_ROUTE_NOTIFY {
    char ifName[OV_RTC_IF_NAME_SIZE];     /* of the first nexthop that has one; may be empty */
    uint8_t Event;                        /* 1: added, 0: deleted */
    uint8_t Protocol;                     /* RTPROT_* */
    uint8_t TableId;                      /* 252 for a table above 255 */
    uint8_t DstMask;                      /* prefix length */
    char Dst[OV_RTC_ROUTE_TEXT_SIZE];     /* "0.0.0.0" or "default" for the default route */
    char Gateway[OV_RTC_ROUTE_TEXT_SIZE]; /* empty: none, or several nexthops */
    uint32_t Priority;                    /* the metric */
} OV_KERNEL_ROUTE_NOTIFY;

/* The state of a connection of the data path. An IPv4 address is in host byte order in V4. */
typedef struct _OV_CON_STATE_NOTIFY {
    uint8_t Type;
    uint8_t SubType;
    uint8_t ConnMode;
    uint8_t IsIpv6Ptx : 1;
    uint8_t Reserved : 7;
    uint32_t Id;
    uint32_t Value;
    uint32_t SessionId;
    _OV_IP_ADDR SrcIp;
    _OV_IP_ADDR DstIp;
    uint16_t SrcPort;
    uint16_t DstPort;
    uint32_t PolicyId;
    uint32_t BuddyId; /* the paired connection */
} OV_CON_STATE_NOTIFY;

/* A flow that was matched by its URL; times and counts in the data path's units. */
typedef struct _OV_FLOW_URL_NOTIFY_INFO {
    uint8_t IpType; /* an OV_IN_ADDR_TYPE */
    union {
        uint32_t SrcIp;
        OV_IN6_ADDR SrcIp6;
    };
    union {
        uint32_t DstIp;
        OV_IN6_ADDR DstIp6;
    };
    uint16_t SrcPort;
    uint16_t DstPort;
    uint8_t Protocol;
    uint8_t Reserve8;
    uint16_t Reserve16;
    uint64_t StartTime;
    uint64_t StopTime;
    uint64_t TxBytes;
    uint64_t RxBytes;
    __extension__ char Url[]; /* always with its NUL */
} OV_FLOW_URL_NOTIFY_INFO;

/* An interface of the data path: its state or its addresses. */
typedef struct _OV_NETIO_STATE_NOTIFY {
    uint8_t Type; /* ..._IFSTATE or ..._IFADDR */
    uint8_t WanId;
    uint16_t LanId;
    char IfName[OV_RTC_IF_NAME_SIZE]; /* without a NUL when all 16 are used */
    uint32_t NotifySeq;
    union {
        uint8_t IfState;          /* 0: up */
        OV_CONF_IF_IPADDR IfAddr; /* at most 8 of each family */
    };
} OV_NETIO_STATE_NOTIFY;

/* A report of the data path, opaque to the library. */
typedef struct _OV_DP_REPORT_HEADER {
    uint16_t DataType;
    uint16_t DataNum;
    uint32_t DataLen; /* bytes, these 8 included */
} OV_DP_REPORT_HEADER;

typedef struct _OV_DP_NOTIFY_INFO {
    uint16_t DataType;
    uint16_t DataNum;
    uint32_t DataLen; /* bytes, these 8 included */
    __extension__ uint8_t Payload[];
} OV_DP_NOTIFY_INFO;

typedef struct _OV_RATE_LIMIT_REPORT_STATE {
    uint32_t RateLimitId;
    int64_t BucketSurplus;
    uint64_t SmoothedRate;
} OV_RATE_LIMIT_REPORT_STATE;

typedef struct _OV_RATE_LIMIT_STATE_NOTIFY_HEADER {
    uint8_t Type;
    uint8_t Rounds;
    uint16_t NotifyMsgRateLimitNum; /* as the sender has it: entries beyond Info are not here */
} OV_RATE_LIMIT_STATE_NOTIFY_HEADER;

typedef struct _OV_RATE_LIMIT_STATE_NOTIFY {
    OV_RATE_LIMIT_STATE_NOTIFY_HEADER Head;
    OV_RATE_LIMIT_REPORT_STATE Info[OV_RATE_LIMIT_REPORT_MAX];
} OV_RATE_LIMIT_STATE_NOTIFY;

typedef enum _OV_SA_NOTIFY_TYPE {
    OV_SA_NOTIFY_DISCONNECTED = 0,
    OV_SA_NOTIFY_UNSPEC = 1
} OV_SA_NOTIFY_TYPE;

typedef struct _OV_SA_CLUSTER_MSG {
    uint32_t SAMsgType; /* an OV_SA_NOTIFY_TYPE */
    uint32_t SAMasterCpeId;
    uint32_t SASlaverCpeId;
} OV_SA_CLUSTER_MSG;

typedef struct _OV_PEER_HOST_NOTIFY {
    uint8_t NotifyType;  /* 1: reachable */
    uint32_t CustomerId; /* 0: the peer is a PoP */
    union {
        uint32_t PopId;
        uint32_t CpeId;
    };
} OV_PEER_HOST_NOTIFY;

typedef struct _OV_RTC_MONITOR_NOTIFY {
    uint32_t Type; /* an OV_RTC_MONITOR_TYPE */
    __extension__ union {
        OV_KERNEL_ROUTE_NOTIFY RouteNotify;
        OV_CON_STATE_NOTIFY ConnNotify;
        OV_FLOW_URL_NOTIFY_INFO UrlFlowNotify;
        OV_NETIO_STATE_NOTIFY NetioNotify;
        OV_DP_NOTIFY_INFO DpNotify;
        OV_RATE_LIMIT_STATE_NOTIFY RatelimitNotify;
        OV_KERNEL_LINK_NOTIFY LinkNotify;
        OV_SA_CLUSTER_MSG SAClusterMsg;
        OV_PEER_HOST_NOTIFY PeerHostReachableNotify;
    };
} OV_RTC_MONITOR_NOTIFY;

/* Receives one event; valid during the call only. What it returns is not looked at. */
typedef int (*NotifyCallback)(OV_RTC_MONITOR_NOTIFY *Notify);

/* The kernel module and other programs of the appliance build these records. */
static_assert(sizeof(OV_KERNEL_LINK_NOTIFY) == 28, "OV_KERNEL_LINK_NOTIFY");
static_assert(offsetof(OV_KERNEL_LINK_NOTIFY, IfName) == 1, "OV_KERNEL_LINK_NOTIFY");
static_assert(offsetof(OV_KERNEL_LINK_NOTIFY, NotifySeq) == 20, "OV_KERNEL_LINK_NOTIFY");
static_assert(offsetof(OV_KERNEL_LINK_NOTIFY, StpState) == 24, "OV_KERNEL_LINK_NOTIFY");
static_assert(offsetof(OV_KERNEL_LINK_NOTIFY, Mtu) == 24, "OV_KERNEL_LINK_NOTIFY");
static_assert(sizeof(OV_KERNEL_ROUTE_NOTIFY) == 56, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, Event) == 16, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, Protocol) == 17, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, TableId) == 18, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, DstMask) == 19, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, Dst) == 20, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, Gateway) == 36, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(offsetof(OV_KERNEL_ROUTE_NOTIFY, Priority) == 52, "OV_KERNEL_ROUTE_NOTIFY");
static_assert(sizeof(OV_CON_STATE_NOTIFY) == 60, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, SubType) == 1, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, ConnMode) == 2, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, Id) == 4, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, Value) == 8, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, SessionId) == 12, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, SrcIp) == 16, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, DstIp) == 32, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, SrcPort) == 48, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, DstPort) == 50, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, PolicyId) == 52, "OV_CON_STATE_NOTIFY");
static_assert(offsetof(OV_CON_STATE_NOTIFY, BuddyId) == 56, "OV_CON_STATE_NOTIFY");
static_assert(sizeof(OV_FLOW_URL_NOTIFY_INFO) == 80, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, SrcIp) == 4, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, SrcIp6) == 4, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, DstIp) == 20, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, DstIp6) == 20, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, SrcPort) == 36, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, DstPort) == 38, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, Protocol) == 40, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, Reserve8) == 41, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, Reserve16) == 42, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, StartTime) == 48, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, StopTime) == 56, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, TxBytes) == 64, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, RxBytes) == 72, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(offsetof(OV_FLOW_URL_NOTIFY_INFO, Url) == 80, "OV_FLOW_URL_NOTIFY_INFO");
static_assert(sizeof(OV_NETIO_STATE_NOTIFY) == 208, "OV_NETIO_STATE_NOTIFY");
static_assert(offsetof(OV_NETIO_STATE_NOTIFY, WanId) == 1, "OV_NETIO_STATE_NOTIFY");
static_assert(offsetof(OV_NETIO_STATE_NOTIFY, LanId) == 2, "OV_NETIO_STATE_NOTIFY");
static_assert(offsetof(OV_NETIO_STATE_NOTIFY, IfName) == 4, "OV_NETIO_STATE_NOTIFY");
static_assert(offsetof(OV_NETIO_STATE_NOTIFY, NotifySeq) == 20, "OV_NETIO_STATE_NOTIFY");
static_assert(offsetof(OV_NETIO_STATE_NOTIFY, IfState) == 24, "OV_NETIO_STATE_NOTIFY");
static_assert(offsetof(OV_NETIO_STATE_NOTIFY, IfAddr) == 24, "OV_NETIO_STATE_NOTIFY");
static_assert(sizeof(OV_DP_REPORT_HEADER) == 8, "OV_DP_REPORT_HEADER");
static_assert(offsetof(OV_DP_REPORT_HEADER, DataNum) == 2, "OV_DP_REPORT_HEADER");
static_assert(offsetof(OV_DP_REPORT_HEADER, DataLen) == 4, "OV_DP_REPORT_HEADER");
static_assert(sizeof(OV_DP_NOTIFY_INFO) == 8, "OV_DP_NOTIFY_INFO");
static_assert(offsetof(OV_DP_NOTIFY_INFO, DataNum) == 2, "OV_DP_NOTIFY_INFO");
static_assert(offsetof(OV_DP_NOTIFY_INFO, DataLen) == 4, "OV_DP_NOTIFY_INFO");
static_assert(offsetof(OV_DP_NOTIFY_INFO, Payload) == 8, "OV_DP_NOTIFY_INFO");
static_assert(sizeof(OV_RATE_LIMIT_REPORT_STATE) == 24, "OV_RATE_LIMIT_REPORT_STATE");
static_assert(offsetof(OV_RATE_LIMIT_REPORT_STATE, BucketSurplus) == 8, "RATE_LIMIT_REPORT_STATE");
static_assert(offsetof(OV_RATE_LIMIT_REPORT_STATE, SmoothedRate) == 16, "RATE_LIMIT_REPORT_STATE");
static_assert(sizeof(OV_RATE_LIMIT_STATE_NOTIFY_HEADER) == 4, "OV_RATE_LIMIT_STATE_NOTIFY_HEADER");
static_assert(offsetof(OV_RATE_LIMIT_STATE_NOTIFY_HEADER, Rounds) == 1, "RATE_LIMIT_STATE_NOTIFY");
static_assert(offsetof(OV_RATE_LIMIT_STATE_NOTIFY_HEADER, NotifyMsgRateLimitNum) == 2,
              "OV_RATE_LIMIT_STATE_NOTIFY_HEADER");
static_assert(sizeof(OV_RATE_LIMIT_STATE_NOTIFY) == 12296, "OV_RATE_LIMIT_STATE_NOTIFY");
static_assert(offsetof(OV_RATE_LIMIT_STATE_NOTIFY, Info) == 8, "OV_RATE_LIMIT_STATE_NOTIFY");
static_assert(sizeof(OV_SA_CLUSTER_MSG) == 12, "OV_SA_CLUSTER_MSG");
static_assert(offsetof(OV_SA_CLUSTER_MSG, SAMasterCpeId) == 4, "OV_SA_CLUSTER_MSG");
static_assert(offsetof(OV_SA_CLUSTER_MSG, SASlaverCpeId) == 8, "OV_SA_CLUSTER_MSG");
static_assert(sizeof(OV_PEER_HOST_NOTIFY) == 12, "OV_PEER_HOST_NOTIFY");
static_assert(offsetof(OV_PEER_HOST_NOTIFY, CustomerId) == 4, "OV_PEER_HOST_NOTIFY");
static_assert(offsetof(OV_PEER_HOST_NOTIFY, PopId) == 8, "OV_PEER_HOST_NOTIFY");
static_assert(sizeof(OV_RTC_MONITOR_NOTIFY) == 12304, "OV_RTC_MONITOR_NOTIFY");
static_assert(offsetof(OV_RTC_MONITOR_NOTIFY, RouteNotify) == 8, "OV_RTC_MONITOR_NOTIFY");

#endif
