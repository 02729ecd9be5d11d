/*
 * What the bypass calls and the board drivers share: the table row of a board and the drivers'
 * operations that stand in it. A driver knows ports and the log, nothing else.
 *
 * Every driver operation that switches or feeds does real port I/O. On the QiYang and Huier boards
 * FeedDog relies on the port rights, on the QiYang also on the chip mode, that FeedDogInit of the
 * same process left; on the LiHua it brings its own.
 */
#ifndef LINUX_RTC_BYPASS_INTERNAL_H
#define LINUX_RTC_BYPASS_INTERNAL_H

#include "orvaneTypes.h"

typedef int (*BYPASS_FUNC)(int Enable);
typedef int32_t (*FEEDDOG_INIT_FUNC)(const int Timeout);
typedef int32_t (*FEEDDOG_FUNC)(const uint32_t Timeout);
typedef int32_t (*FEEDDOG_UNINIT_FUNC)(void);

/* One board. A null operation is one that the board does not support. */
typedef struct _OV_RTC_BYPASS_OPS {
    const char *Platfom;
    BYPASS_FUNC Bypass;
    FEEDDOG_INIT_FUNC FeedDogInit;
    FEEDDOG_FUNC FeedDog;
    FEEDDOG_UNINIT_FUNC FeedDogUninit;
} OV_RTC_BYPASS_OPS;

enum {
    RTC_PLATFORM_QIYANG_J1900 = 1,
    RTC_PLATFORM_HUIER_J1900 = 2,
    RTC_PLATFORM_HUIER_H61 = 3,
    RTC_PLATFORM_LIHUA_8865 = 4,
    RTC_PLATFORM_LIHUA_8895 = 5,
    RTC_PLATFORM_UNKNOWN = 6,
    RTC_PLATFORM_COUNT = 7
};

/* Indexed by the platform number; row 0 is empty. */
extern const OV_RTC_BYPASS_OPS g_RtcBypassTable[RTC_PLATFORM_COUNT];

/* QiYang J1900. Enable other than 0 and 1 only resets the watchdog. All return 0. */
int OV_RTCQiYangJ1900Bypass(int Enable);
int32_t OV_RTCQiYangJ1900FeedDogInit(const int Timeout);
int32_t OV_RTCQiYangJ1900FeedDog(const uint32_t Timeout);
int32_t OV_RTCQiYangJ1900FeedDogUninit(void);

/* Huier J1900 and H61; the watchdog is the same on both. The bypass operations return 0, -1
 * (port rights refused) or -ENOENT (port rights not given up); FeedDogInit returns 0 or -1. */
int OV_RTCHuierJ1900Bypass(int Enable);
int OV_RTCHuierH61Bypass(int Enable);
int32_t OV_RTCHuierFeedDogInit(const int Timeout);
int32_t OV_RTCHuierFeedDog(const uint32_t Timeout);
int32_t OV_RTCHuierFeedDogUninit(void);

/* LiHua 8865. All return 0. */
int OV_RTCLihua8865Bypass(int Enable);
int32_t OV_RTCLihua8865FeedDogInit(const int Timeout);
int32_t OV_RTCLihua8865FeedDog(const uint32_t Timeout);
int32_t OV_RTCLihua8865FeedDogUninit(void);

#endif
