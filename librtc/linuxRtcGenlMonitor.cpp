#include "linuxRtcGenlMonitorInternal.h"

#include "orvaneLibrtcLog.h"
#include "orvaneScope.h"

#include <atomic>
#include <errno.h>

static constexpr int CALLBACK_MAX = 16;

struct _OV_RTC_MONITOR {
    NotifyCallback callback; /* null: the slot is free */
};

/* 1 while the monitor runs. Written by start and stop. */
static std::atomic<int> gs_MonitorEnable;

/* The callback table; the lock is held for reading while callbacks run. */
static pthread_rwlock_t gs_MonitorListRWLock = PTHREAD_RWLOCK_INITIALIZER;
static _OV_RTC_MONITOR gs_MonitorList[CALLBACK_MAX];

/* Makes starts and stops take turns. */
static OV_MUTEX_T s_ControlLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

/* This thread is inside a callback: it would wait for itself in every operation on the table. */
static thread_local bool s_IsDelivering;

int OV_RTCGenlMonitorInit(void)
{
    const MUTEX_SCOPE Control(s_ControlLock);

    if (s_IsDelivering || gs_MonitorEnable >= 1) {
        OV_LOG_ERROR("RTC monitor thread init already");
        return -EEXIST;
    }
    gs_MonitorEnable = 1;
    return 0;
}

int OV_RTCGenlMonitorUninit(void)
{
    if (gs_MonitorEnable == 0) {
        return 0;
    }
    gs_MonitorEnable = 0;
    pthread_rwlock_wrlock(&gs_MonitorListRWLock);
    for (_OV_RTC_MONITOR &Slot : gs_MonitorList) {
        Slot.callback = nullptr;
    }
    pthread_rwlock_unlock(&gs_MonitorListRWLock);
    return 0;
}

int OV_RTCGenlMonitorRegCallback(NotifyCallback Callback)
{
    if (gs_MonitorEnable == 0) {
        return -1;
    }
    pthread_rwlock_wrlock(&gs_MonitorListRWLock);
    for (int Id = 0; Id < CALLBACK_MAX; Id++) {
        if (gs_MonitorList[Id].callback == nullptr) {
            gs_MonitorList[Id].callback = Callback;
            pthread_rwlock_unlock(&gs_MonitorListRWLock);
            return Id;
        }
    }
    pthread_rwlock_unlock(&gs_MonitorListRWLock);
    return -ENOENT;
}

int OV_RTCGenlMonitorUnregCallback(int RegId)
{
    if (RegId < 0 || RegId >= CALLBACK_MAX) {
        return -1;
    }
    if (gs_MonitorEnable == 0) {
        return -ENOENT;
    }
    pthread_rwlock_wrlock(&gs_MonitorListRWLock);
    gs_MonitorList[RegId].callback = nullptr;
    pthread_rwlock_unlock(&gs_MonitorListRWLock);
    return 0;
}

void _RTCMonitorNotify(OV_RTC_MONITOR_NOTIFY *NotifyInfo)
{
    pthread_rwlock_rdlock(&gs_MonitorListRWLock);
    s_IsDelivering = true;
    for (const _OV_RTC_MONITOR &Slot : gs_MonitorList) {
        if (Slot.callback != nullptr) {
            Slot.callback(NotifyInfo);
        }
    }
    s_IsDelivering = false;
    pthread_rwlock_unlock(&gs_MonitorListRWLock);
}
