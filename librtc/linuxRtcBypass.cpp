#include "linuxRtcBypass.h"

#include "linuxRtc.h"
#include "linuxRtcBypassInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static constexpr const char *FEEDDOG_CONF_PATH = "/etc/feeddog.conf";
static constexpr const char *FEEDDOG_PID_PATH = "/var/run/feeddog.pid";

/* The longest board name that is told apart, with its newline, fits many times over. */
static constexpr size_t BOARD_NAME_SIZE = 48;

/* Written by OV_RTCFeedDogDisable and by the daemon that links the library. */
int g_BypassFeedDogEnable = 1;

const OV_RTC_BYPASS_OPS g_RtcBypassTable[RTC_PLATFORM_COUNT] = {
    {nullptr, nullptr, nullptr, nullptr, nullptr},
    {"QiYang-J1900", OV_RTCQiYangJ1900Bypass, OV_RTCQiYangJ1900FeedDogInit,
     OV_RTCQiYangJ1900FeedDog, OV_RTCQiYangJ1900FeedDogUninit},
    {"Huier-J1900", OV_RTCHuierJ1900Bypass, OV_RTCHuierFeedDogInit, OV_RTCHuierFeedDog,
     OV_RTCHuierFeedDogUninit},
    {"Huier-H61", OV_RTCHuierH61Bypass, OV_RTCHuierFeedDogInit, OV_RTCHuierFeedDog,
     OV_RTCHuierFeedDogUninit},
    {"Lihua-8865", OV_RTCLihua8865Bypass, OV_RTCLihua8865FeedDogInit, OV_RTCLihua8865FeedDog,
     OV_RTCLihua8865FeedDogUninit},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
    {"UNKOWN", nullptr, nullptr, nullptr, nullptr},
};

/* What DMI calls a board, compared over the length of the text alone: the command's newline and
 * a revision behind the name lie beyond it. The log has its own spelling of the names. */
struct BOARD_NAME {
    const char *Product;
    int32_t Platform;
    const char *LogName;
};
static constexpr BOARD_NAME BOARD_NAMES[] = {
    {"Aptio CRB", RTC_PLATFORM_QIYANG_J1900, "QiYang-J1900"},
    {"B1904", RTC_PLATFORM_HUIER_J1900, "Huier-J1900"},
    {"IEC-810N4SC", RTC_PLATFORM_HUIER_H61, "Huier-H61"},
    {"CARLOW", RTC_PLATFORM_LIHUA_8865, "LiHua-8865"},
    {"MB-8895", RTC_PLATFORM_LIHUA_8895, "LiHua-8895"},
};

int32_t OV_RTCBypassPlatFormGet(void)
{
    char Product[BOARD_NAME_SIZE];

    const int Length =
        OV_RTCExecCmd("dmidecode -s baseboard-product-name", Product, sizeof(Product));
    if (Length < 0 || Length > static_cast<int>(sizeof(Product)) - 1) {
        return -1;
    }
    for (const BOARD_NAME &Board : BOARD_NAMES) {
        if (OV_SafeStrCmp(Product, Board.Product, strlen(Board.Product)) == 0) {
            OV_LOG_INFO("hardware platform: %s", Board.LogName);
            return Board.Platform;
        }
    }
    OV_LOG_WARN("unkown hardware platform: %s ", Product);
    return RTC_PLATFORM_UNKNOWN;
}

/* The board's row, or null for a number outside the table: a detection that failed (-1) may reach
 * the feeding calls. */
static const OV_RTC_BYPASS_OPS *_OV_RTCBypassOps(int32_t Platform)
{
    if (Platform < 0 || Platform >= RTC_PLATFORM_COUNT) {
        return nullptr;
    }
    return &g_RtcBypassTable[Platform];
}

static const char *_OutcomeText(int32_t Result)
{
    return Result < 0 ? "failed" : "success";
}

/* Replaces the file's content with one line; 0 or the negated errno. Only a failed open leaves
 * *Opened false. */
static OV_ERR_T _WriteNumberFile(const char *Path, const char *Prefix, int Number, bool *Opened)
{
    const CANCEL_SCOPE Whole;
    FILE *Stream = fopen(Path, "we");

    *Opened = Stream != nullptr;
    if (Stream == nullptr) {
        return -errno;
    }
    fprintf(Stream, "%s%d\n", Prefix, Number);
    return fclose(Stream) == 0 ? 0 : -errno; /* the line is written here */
}

static OV_ERR_T _OV_RTCFeedDogWriteConfFile(BOOL Enable)
{
    bool Opened;

    const OV_ERR_T Result =
        _WriteNumberFile(FEEDDOG_CONF_PATH, "feeddog=", Enable ? 1 : 0, &Opened);
    if (Result != 0) {
        OV_LOG_ERROR("%s conf file(%s) failed", Opened ? "write" : "open", FEEDDOG_CONF_PATH);
    }
    return Result;
}

int32_t OV_RTCFeedDogWritePidFile(void)
{
    bool Opened;

    if (_WriteNumberFile(FEEDDOG_PID_PATH, "", getpid(), &Opened) != 0) {
        OV_LOG_ERROR("%s pidfile(%s) failed", Opened ? "write" : "open", FEEDDOG_PID_PATH);
        return -1;
    }
    return 0;
}

int32_t OV_RTCFeedDogCheckRunning(void)
{
    const CANCEL_SCOPE Whole;
    long Number = 0; /* wider than a process id: one too large must not be cut to another's */
    {
        const STREAM_SCOPE Stream(fopen(FEEDDOG_PID_PATH, "re"));

        /* 0 and negative numbers would address process groups. */
        if (Stream == nullptr || fscanf(Stream.get(), "%ld", &Number) != 1 || Number <= 0 ||
            Number > INT_MAX) {
            return 0;
        }
    }
    const pid_t Pid = static_cast<pid_t>(Number);
    /* A process that may not be signalled is alive: its file stays, and whoever wants to tell it
     * something learns that it cannot. */
    if (kill(Pid, 0) != 0 && errno != EPERM) {
        printf("Remove a zombie pid file %s\n", FEEDDOG_PID_PATH);
        unlink(FEEDDOG_PID_PATH);
        return 0;
    }
    return Pid;
}

static OV_ERR_T _OV_RTCFeedDogSignalSend(const int Enable)
{
    const int32_t Pid = OV_RTCFeedDogCheckRunning();
    if (Pid == 0) {
        return Enable ? OV_RTCSystem("systemctl restart feeddog") : 0;
    }

    errno = 0; /* the line below reports it also after success */
    const int Result = kill(Pid, Enable ? SIGUSR1 : SIGUSR2);
    OV_LOG_INFO("send signal(%s) to feeddog(ret: %d, %s)", Enable ? "enable" : "disable", Result,
                strerror(errno));
    return Result;
}

int32_t OV_RTCBypass(const int Enable)
{
    const int32_t Platform = OV_RTCBypassPlatFormGet();
    if (Platform < RTC_PLATFORM_QIYANG_J1900 || Platform > RTC_PLATFORM_UNKNOWN) {
        OV_LOG_ERROR("get hardware platform failed or invalid platform(platform: %d)", Platform);
        return -EINVAL;
    }
    const OV_RTC_BYPASS_OPS *Ops = _OV_RTCBypassOps(Platform);
    if (Ops == nullptr) { /* for a table that has lost a row: today's has one for each number */
        OV_LOG_ERROR("no support platform(platform: %d)", Platform);
        return -ENOENT;
    }
    if (Ops->Bypass == nullptr) {
        OV_LOG_ERROR("no support bypass (platform: %d %s)", Platform, Ops->Platfom);
        return -ENOENT;
    }

    /* Begun with the daemon: a process that ended between telling it and moving the relay would
     * leave an appliance that nobody feeds. The command that asked for the board is behind us. */
    const SEQUENCE_SCOPE Whole;

    /* A daemon that goes on feeding would drive the chip in the middle of the sequence below. */
    const OV_ERR_T Told = _OV_RTCFeedDogSignalSend(0);
    if (Told < 0) {
        return Told;
    }
    const int32_t Result = Ops->Bypass(Enable);
    OV_LOG_INFO("set %s %s %s(ret: %d)", Ops->Platfom, Enable ? "bypass" : "no-bypass",
                _OutcomeText(Result), Result);
    return Result;
}

int32_t OV_RTCBypassMode(const int Enable)
{
    const OV_ERR_T Result = _OV_RTCFeedDogWriteConfFile(Enable);
    if (Result < 0) {
        return Result;
    }
    return _OV_RTCFeedDogSignalSend(Enable);
}

void OV_RTCFeedDogDisable(void)
{
    OV_LOG_INFO("disable feeddog");
    __atomic_store_n(&g_BypassFeedDogEnable, 0, __ATOMIC_RELAXED);
}

int32_t OV_RTCFeedDogInit(const int32_t Platform, const int32_t Timeout)
{
    const OV_RTC_BYPASS_OPS *Ops = _OV_RTCBypassOps(Platform);
    if (Ops == nullptr) {
        OV_LOG_ERROR("no support platform(platform: %d)", Platform);
        return -1;
    }
    if (Ops->FeedDogInit == nullptr) {
        return 0;
    }
    const SEQUENCE_SCOPE Whole;
    const int32_t Result = Ops->FeedDogInit(Timeout);
    OV_LOG_INFO("feeddog init %s(ret: %d timeout: %d)", _OutcomeText(Result), Result, Timeout);
    return Result;
}

int32_t OV_RTCFeedDog(const int32_t Platform, const int32_t Timeout)
{
    const OV_RTC_BYPASS_OPS *Ops = _OV_RTCBypassOps(Platform);
    if (Ops == nullptr) {
        OV_LOG_ERROR("no support platform(platform: %d)", Platform);
        return -1;
    }
    if (Ops->FeedDog != nullptr) {
        const SEQUENCE_SCOPE Whole;
        Ops->FeedDog(static_cast<uint32_t>(Timeout));
    }
    return 0;
}

int32_t OV_RTCFeedDogUninit(const int32_t Platform)
{
    const OV_RTC_BYPASS_OPS *Ops = _OV_RTCBypassOps(Platform);
    if (Ops == nullptr) {
        OV_LOG_ERROR("no support platform(platform: %d)", Platform);
        return -1;
    }
    if (Ops->FeedDogUninit == nullptr) {
        return 0;
    }
    const SEQUENCE_SCOPE Whole;
    const int32_t Result = Ops->FeedDogUninit();
    OV_LOG_INFO("feeddog uninit %s(ret: %d)", _OutcomeText(Result), Result);
    return Result;
}
