/*
 * feeddog: a small watchdog-feeding daemon for integrators, complete to the protocol of
 * linuxRtcBypass.h. It runs in the foreground, as a service manager wants it.
 *
 *   feeddog [-t TIMEOUT] [-p PERIOD] [-q QUIET]
 *
 * It arms the board's watchdog with TIMEOUT (30, in the board's unit) and feeds it every PERIOD
 * seconds (5) while /etc/feeddog.conf and the signals want it. SIGUSR1 switches feeding on.
 * SIGUSR2 switches it off: the ports belong to bypass_cmd from then on, so the daemon touches
 * nothing for QUIET seconds (3, longer than any board's relay takes) and then stops the watchdog,
 * which would otherwise throw the board into bypass. SIGTERM and SIGINT stop the watchdog and end
 * the daemon, after such a quiet time where one is running.
 */
#include "linuxRtcBypass.h"
#include "orvaneLibrtcLog.h"

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

struct OPTIONS {
    int32_t Timeout = 30;
    int PeriodSeconds = 5;
    int QuietSeconds = 3;
};

enum class STATE {
    IDLE,    /* watchdog stopped, nothing to do */
    FEEDING, /* watchdog armed */
    QUIET    /* watchdog still armed, ports left to bypass_cmd */
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
    g_BypassFeedDogEnable = 1;
    if (OV_RTCFeedDogInit(Platform, Options.Timeout) < 0) {
        return STATE::IDLE;
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
    return STATE::IDLE;
}

/* Waits for a signal of Set; 0 when the seconds have passed first. */
static int WaitForSignal(const sigset_t &Set, int Seconds)
{
    const struct timespec Wait = {Seconds, 0};

    for (;;) {
        const int Signal = sigtimedwait(&Set, nullptr, &Wait);
        if (Signal > 0) {
            return Signal;
        }
        if (errno == EAGAIN) {
            return 0;
        }
    }
}

static void Run(int32_t Platform, const OPTIONS &Options, const sigset_t &Signals)
{
    STATE State = FeedingWanted() ? Arm(Platform, Options) : STATE::IDLE;
    bool Ending = false;

    while (!Ending || State != STATE::IDLE) {
        if (Ending && State == STATE::FEEDING) {
            State = Disarm(Platform);
            continue;
        }
        const int Signal = WaitForSignal(Signals, State == STATE::QUIET ? Options.QuietSeconds
                                                                        : Options.PeriodSeconds);
        switch (Signal) {
        case SIGUSR1:
            State = Arm(Platform, Options);
            break;
        case SIGUSR2:
            OV_RTCFeedDogDisable();
            State = State == STATE::IDLE ? STATE::IDLE : STATE::QUIET;
            break;
        case SIGTERM:
        case SIGINT:
            Ending = true;
            break;
        default:
            if (State == STATE::FEEDING) {
                OV_RTCFeedDog(Platform, Options.Timeout);
            } else if (State == STATE::QUIET) {
                State = Disarm(Platform);
            }
        }
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
    return optind == argc && Options->PeriodSeconds < Options->Timeout &&
           Options->QuietSeconds + Options->PeriodSeconds < Options->Timeout;
}

int main(int argc, char *argv[])
{
    OPTIONS Options;
    sigset_t Signals;

    if (!ReadOptions(argc, argv, &Options)) {
        fputs("usage: feeddog [-t TIMEOUT] [-p PERIOD] [-q QUIET]   seconds, PERIOD + QUIET below "
              "TIMEOUT\n",
              stderr);
        return 2;
    }

    /* Blocked before the PID file stands: whoever reads that may signal at once, and an unblocked
     * SIGUSR1 would end the process. */
    sigemptyset(&Signals);
    for (const int Signal : HANDLED_SIGNALS) {
        sigaddset(&Signals, Signal);
    }
    sigprocmask(SIG_BLOCK, &Signals, nullptr);

    if (OV_AgentFileLogCtor(LOG_PATH) < 0) {
        fprintf(stderr, "feeddog: %s: %s\n", LOG_PATH, strerror(errno));
        return 1;
    }
    int Status = 1;
    const int32_t Running = OV_RTCFeedDogCheckRunning();
    const int32_t Platform = Running == 0 ? OV_RTCBypassPlatFormGet() : -1;
    if (Running != 0) {
        OV_LOG_ERROR("feeddog already runs (%d)", Running);
    } else if (Platform > 0 && OV_RTCFeedDogWritePidFile() == 0) {
        Run(Platform, Options, Signals);
        unlink(PID_PATH);
        Status = 0;
    }
    OV_AgentLogDtor();
    return Status;
}
