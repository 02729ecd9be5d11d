/*
 * bypass_cmd: switches the hardware bypass (-b) and the bypass mode (-m). The exit status says
 * only whether the log could be opened; what became of the relay and the mode is in the log.
 */
#include "linuxRtcBypass.h"
#include "orvaneLibrtcLog.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static constexpr const char *LOG_PATH = "/tmp/feeddog.log";
static constexpr int NOT_GIVEN = -1;

static void _usage()
{
    puts("usage:");
    puts("\tbypass_cmd -b <0/1>       0: no-bypass 1: bypass");
    puts("\tbypass_cmd -m <0/1>       0: disable  bypass mode 1: enable");
}

/* Text without a number reads as 0. */
static bool _ReadSwitch(const char *Text, int *Value)
{
    *Value = atoi(Text);
    return *Value == 0 || *Value == 1;
}

int main(int argc, char *argv[])
{
    int Bypass = NOT_GIVEN;
    int Mode = NOT_GIVEN;

    if (argc < 2) {
        _usage();
        return -1;
    }
    for (int Option; (Option = getopt(argc, argv, "b:m:h")) != -1;) {
        if (Option == 'h') {
            _usage();
            return 0;
        }
        const bool Known = Option == 'b' || Option == 'm';
        if (!Known || !_ReadSwitch(optarg, Option == 'b' ? &Bypass : &Mode)) {
            _usage();
            return -1;
        }
    }

    const OV_ERR_T Opened = OV_AgentFileLogCtor(LOG_PATH);
    if (Opened < 0) {
        OV_LOG_ERROR("open log file failed");
    } else {
        if (Bypass != NOT_GIVEN) {
            OV_RTCBypass(Bypass);
        }
        if (Mode != NOT_GIVEN) {
            OV_RTCBypassMode(Mode);
            OV_LOG_INFO("[%d] %s bypass-mode", getpid(), Mode == 1 ? "enable" : "disable");
        }
    }
    OV_AgentLogDtor();
    return Opened;
}
