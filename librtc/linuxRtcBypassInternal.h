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

#include "orvaneScope.h"
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

/* A sequence on a chip: half of it leaves a coil energised or the chip in configuration mode. So
 * signals to this thread, and its cancellation, wait until the scope ends. */
class SEQUENCE_SCOPE {
  public:
    SEQUENCE_SCOPE() : Outer(std::exchange(s_Current, this)) {}
    ~SEQUENCE_SCOPE()
    {
        s_Current = Outer;
    }
    SEQUENCE_SCOPE(const SEQUENCE_SCOPE &) = delete;
    SEQUENCE_SCOPE &operator=(const SEQUENCE_SCOPE &) = delete;

    /* For a driver whose chip is at rest, but which goes on: signals that the caller of the
     * sequence lets through act now. */
    static void LetSignalsAct()
    {
        sigset_t Blocked;

        if (s_Current != nullptr) {
            pthread_sigmask(SIG_SETMASK, &s_Current->OfCaller, &Blocked);
            pthread_sigmask(SIG_SETMASK, &Blocked, nullptr);
        }
    }

  private:
    static sigset_t Mask()
    {
        sigset_t Now;

        pthread_sigmask(SIG_SETMASK, nullptr, &Now);
        return Now;
    }

    const sigset_t OfCaller = Mask(); /* before the scope below changes it */
    const CANCEL_SCOPE Uncancelled;
    const SIGNAL_SCOPE Undisturbed;
    const SEQUENCE_SCOPE *const Outer;
    static inline constinit thread_local const SEQUENCE_SCOPE *s_Current = nullptr;
};

#endif
