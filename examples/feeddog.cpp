/*
 * feeddog: a small watchdog-feeding daemon for integrators, complete to the protocol of
 * linuxRtcBypass.h. It runs in the foreground, as a service manager wants it.
 *
 *   feeddog [-t TIMEOUT] [-p PERIOD] [-q QUIET]
 *
 * It arms the board's watchdog with TIMEOUT (30, in the board's unit, which is a second or longer)
 * and feeds it every PERIOD seconds (5) while /etc/feeddog.conf and the signals want it. SIGUSR1
 * switches feeding on. SIGUSR2 switches it off: the ports belong to bypass_cmd from then on, so the
 * daemon touches nothing for QUIET seconds (3, longer than any board's relay takes). Then it feeds
 * again, if it was told to meanwhile, or stops the watchdog, which would otherwise throw the board
 * into bypass. SIGTERM and SIGINT stop the watchdog and end the daemon, after what is left of a
 * quiet time.
 */
#include "linuxRtcBypass.h"
#include "orvaneLibrtcLog.h"

#include <algorithm>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static constexpr const char *LOG_PATH = "/tmp/feeddog.log";
static constexpr const char *CONF_PATH = "/etc/feeddog.conf";
static constexpr const char *PID_PATH = "/var/run/feeddog.pid";
static constexpr int TIMEOUT_MAX = 255; /* the counters have 8 bits */
static constexpr int HANDLED_SIGNALS[] = {SIGUSR1, SIGUSR2, SIGTERM, SIGINT};

static constexpr int64_t SECOND = 1000; /* in milliseconds, as all times below */

struct OPTIONS {
    int32_t Timeout = 30;
    int PeriodSeconds = 5;
    int QuietSeconds = 3;
};

enum class STATE {
    RESTING, /* watchdog stopped, nothing to do but wait for a signal */
    FEEDING, /* watchdog armed; to be fed at the deadline */
    QUIET    /* the ports are bypass_cmd's until the deadline; the watchdog may be armed */
};

/* What arrived since the last look, in no order: pending signals keep none. */
struct SIGNALS {
    bool Enable;
    bool Disable;
    bool End;
};

/* Without a file, feeding is wanted. */
static bool FeedingWanted()
{
    int Wanted = 1;
    FILE *Conf = fopen(CONF_PATH, "re");

    if (Conf != nullptr) {
        if (fscanf(Conf, "feeddog=%d", &Wanted) != 1) {
            OV_LOG_WARN("no feeddog=<0/1> in %s, feeding", CONF_PATH);
            Wanted = 1;
        }
        fclose(Conf);
    }
    return Wanted != 0;
}

/* bypass_cmd may have taken the chip out of the mode that feeding needs, so every arming and
 * stopping readies the chip anew. */
static STATE Arm(int32_t Platform, const OPTIONS &Options)
{
    if (OV_RTCFeedDogInit(Platform, Options.Timeout) < 0) {
        return STATE::RESTING;
    }
    OV_RTCFeedDog(Platform, Options.Timeout);
    return STATE::FEEDING;
}

/* The counter is stopped by feeding 0: on some boards leaving alone keeps it running. */
static STATE Disarm(int32_t Platform)
{
    if (OV_RTCFeedDogInit(Platform, 0) >= 0) {
        OV_RTCFeedDog(Platform, 0);
        OV_RTCFeedDogUninit(Platform);
    }
    return STATE::RESTING;
}

static int64_t MilliSeconds()
{
    struct timespec Now;

    clock_gettime(CLOCK_MONOTONIC, &Now);
    return int64_t{Now.tv_sec} * SECOND + Now.tv_nsec / 1000000;
}

/* Waits until a signal is pending or the deadline has come (null: without end), then takes all. */
static SIGNALS TakeSignals(const sigset_t &Set, const int64_t *Deadline)
{
    SIGNALS Taken = {};
    struct timespec Wait = {};

    if (Deadline != nullptr) {
        const int64_t Left = std::max<int64_t>(*Deadline - MilliSeconds(), 0);
        Wait = {Left / SECOND, Left % SECOND * 1000000};
    }
    int Signal = sigtimedwait(&Set, nullptr, Deadline == nullptr ? nullptr : &Wait);
    do { /* also after a wait without a signal: a process that was stopped is woken by none */
        Taken.Enable |= Signal == SIGUSR1;
        Taken.Disable |= Signal == SIGUSR2;
        Taken.End |= Signal == SIGTERM || Signal == SIGINT;
        Wait = {};
        Signal = sigtimedwait(&Set, nullptr, &Wait);
    } while (Signal > 0);
    return Taken;
}

static void Run(int32_t Platform, const OPTIONS &Options, const sigset_t &Set)
{
    /* Quiet until now: the first look at the signals comes before the first port, and a watchdog
     * that a killed daemon left armed is stopped where feeding is not wanted. */
    STATE State = STATE::QUIET;
    int64_t Deadline = MilliSeconds();
    int64_t Expiry = INT64_MAX; /* a second before the watchdog's */
    bool Ending = false;

    g_BypassFeedDogEnable = FeedingWanted();
    while (!Ending || State != STATE::RESTING) {
        const SIGNALS Taken = TakeSignals(Set, State == STATE::RESTING ? nullptr : &Deadline);
        const int64_t Now = MilliSeconds();

        Ending |= Taken.End;
        if (Taken.Disable) {
            OV_RTCFeedDogDisable();
        }
        if (Taken.Enable) {
            /* After both, the file knows: it is written before the signal is sent. */
            g_BypassFeedDogEnable = !Taken.Disable || FeedingWanted();
        }
        if (Taken.Disable && (State != STATE::RESTING || g_BypassFeedDogEnable)) {
            /* However often this comes, the watchdog must not run out meanwhile. */
            State = STATE::QUIET;
            Deadline = std::min(Now + Options.QuietSeconds * SECOND, Expiry);
        } else if ((State == STATE::RESTING && g_BypassFeedDogEnable) ||
                   (State == STATE::FEEDING && Ending)) {
            State = STATE::QUIET;
            Deadline = Now;
        }
        if (State == STATE::RESTING || Now < Deadline) {
            continue;
        }
        if (State == STATE::FEEDING) {
            OV_RTCFeedDog(Platform, Options.Timeout);
        } else if (g_BypassFeedDogEnable && !Ending) {
            State = Arm(Platform, Options);
        } else {
            State = Disarm(Platform);
        }
        Deadline = Now + Options.PeriodSeconds * SECOND;
        Expiry = State == STATE::FEEDING ? Now + (Options.Timeout - 1) * SECOND : INT64_MAX;
    }
}

static bool ReadSeconds(const char *Text, int Maximum, int *Value)
{
    char *End;
    const long Number = strtol(Text, &End, 10);

    *Value = static_cast<int>(Number);
    return End != Text && *End == '\0' && Number >= 1 && Number <= Maximum;
}

static bool ReadOptions(int argc, char *argv[], OPTIONS *Options)
{
    for (int Option; (Option = getopt(argc, argv, "t:p:q:")) != -1;) {
        int *Value = Option == 't'   ? &Options->Timeout
                     : Option == 'p' ? &Options->PeriodSeconds
                                     : &Options->QuietSeconds;
        if (Option == '?' || !ReadSeconds(optarg, TIMEOUT_MAX, Value)) {
            return false;
        }
    }
    return optind == argc && Options->QuietSeconds + Options->PeriodSeconds < Options->Timeout;
}

int main(int argc, char *argv[])
{
    OPTIONS Options;
    sigset_t Signals;

    if (!ReadOptions(argc, argv, &Options)) {
        fputs("usage: feeddog [-t TIMEOUT] [-p PERIOD] [-q QUIET]   PERIOD + QUIET below TIMEOUT\n",
              stderr);
        return 2;
    }
    if (OV_AgentFileLogCtor(LOG_PATH) < 0) {
        fprintf(stderr, "feeddog: %s: %s\n", LOG_PATH, strerror(errno));
        return 1;
    }
    const int32_t Running = OV_RTCFeedDogCheckRunning();
    const bool Alone = Running == 0 || Running == getpid(); /* a number left from before a boot */
    const int32_t Platform = Alone ? OV_RTCBypassPlatFormGet() : -1;
    int Status = 1;

    /* Blocked before the PID file stands: whoever reads that may signal at once, and an unblocked
     * SIGUSR1 would end the process. */
    sigemptyset(&Signals);
    for (const int Signal : HANDLED_SIGNALS) {
        sigaddset(&Signals, Signal);
    }
    sigprocmask(SIG_BLOCK, &Signals, nullptr);
    if (!Alone) {
        OV_LOG_ERROR("feeddog already runs (%d)", Running);
    } else if (Platform > 0 && OV_RTCFeedDogWritePidFile() == 0) {
        Run(Platform, Options, Signals);
        unlink(PID_PATH);
        Status = 0;
    }
    OV_AgentLogDtor();
    return Status;
}
