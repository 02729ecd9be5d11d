#include "linuxRtc4Gmodule.h"

#include "linuxRtc.h"
#include "linuxRtcShellInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneScope.h"

#include <errno.h>
#include <iterator>
#include <stdio.h>
#include <sys/stat.h>

static constexpr size_t PATH_SIZE = 64;
static constexpr size_t UNIT_TEXT_SIZE = 16;
static constexpr uint32_t CARRIER_CONFIGURED = 4;

/* The chat script as it is written, and as pppd is told of it. */
#define CHAT_SCRIPT_PATH "/etc/ppp//chat_4g_unit_%d"
#define CHAT_SCRIPT "/etc/ppp/chat_4g_unit_"

#define HOOK_PATH "/etc/ppp//ip-up.local.4g%d"
#define OPTIONS "/etc/ppp/peers/4g_"
#define REPORT_FILE "/etc/corsin/4g_report_file"
#define AGENT_PIPE "/var/run/agent_debug.fifo"
#define ECM_TOOL "ECM_DEMO"

/* Access point, dial number. */
static constexpr char CHAT_TEXT[] = "TIMEOUT 10\n"
                                    "ABORT \"BUSY\"\n"
                                    "          ABORT \"ERROR\"\n"
                                    "          ABORT \"NO CARRIER\"\n"
                                    "          '' \rAT\n"
                                    "          OK 'AT+CGDCONT=1,\"IP\",\"%s\"'\n"
                                    "         OK 'ATDT%s'\n"
                                    "          CONNECT ''\n";

/* pppd runs it with the link as $1, the local address as $4 and the peer as $5. A line
 * of the file is a line here. */
// clang-format off
static constexpr char IP_UP_HOOK[] =
    "#!/bin/bash\n"
    "[[ \"$1\" == \"%s\" ]] && {\n"
    "  \t    echo \"`date \"+%%Y-%%m-%%d %%H:%%M:%%S\"` $4/32 $5 csn-pppoe-issue\" >> /var/log/cpeagent.log\n"
    "          interface=$1\n"
    " \t    ipaddr=$4\n"
    "         gateway=$5\n"
    "         type=RouteUpdate\n"
    "         empty=0.0.0.0\n"
    "         mes_to_agent=\"$type\":\"$interface,$gateway,$ipaddr/32,lte,${DNS1:-$empty},${DNS2:-$empty}\"\n"
    "         len=$(echo $mes_to_agent | wc -L) \n"
    "         echo \"$len\"$'\\n'\"$mes_to_agent\" > %s \n"
    "         \n"
    "}";
// clang-format on

/* The unit, and the file, whose name ends in it. */
static constexpr char OPTIONS_COMMAND[] = "echo \"user pluma\n"
                                          "password pluma\n"
                                          "/dev/ttyUSB0\n"
                                          "115200\n"
                                          "persist\n"
                                          "noipdefault\n"
                                          "usepeerdns\n"
                                          "nodetach\n"
                                          "crtscts\n"
                                          "debug\n"
                                          "holdoff 5\n"
                                          "maxfail 0\n"
                                          "unit %d\n"
                                          "noauth\" > %s%d";

using APN = char[sizeof(OV_RTC_INTF_CONFIG_LTE::Apn)];
using DIAL_NUMBER = char[sizeof(OV_RTC_INTF_CONFIG_LTE::DialNumber)];

/* False when it was cut. */
static bool _ChooseApn(const OV_RTC_INTF_CONFIG_LTE *Conf, APN &Apn)
{
    static constexpr const char *Names[] = {"", "cmnet", "3gnet", "ctnet"};
    const FIELD_TEXT Configured(Conf->Apn);
    const char *Name = Conf->Carrier == CARRIER_CONFIGURED ? Configured.Text
                       : Conf->Carrier < std::size(Names)  ? Names[Conf->Carrier]
                                                           : "";

    return OV_SafeStrCopy(Apn, sizeof(Apn), Name) < sizeof(Apn);
}

static bool _ChooseDialNumber(const OV_RTC_INTF_CONFIG_LTE *Conf, DIAL_NUMBER &DialNumber)
{
    const FIELD_TEXT Configured(Conf->DialNumber);
    const char *Number = Conf->Carrier == CARRIER_CONFIGURED ? Configured.Text : "*99#";

    return OV_SafeStrCopy(DialNumber, sizeof(DialNumber), Number) < sizeof(DialNumber);
}

int OV_RTC4GmoduleCreateScript(const char *ifname, const OV_RTC_INTF_CONFIG_LTE *conf, int unit)
{
    const CANCEL_SCOPE Whole; /* a file is ours until it is closed */
    APN Apn;
    DIAL_NUMBER DialNumber;
    char Path[PATH_SIZE];

    if (ifname == nullptr || conf == nullptr) {
        return -1;
    }
    _OV_RTCCompose(Path, sizeof(Path), CHAT_SCRIPT_PATH, unit);
    FILE *File = fopen(Path, "we");
    if (File == nullptr) {
        OV_LOG_DEBUG("Can't open %s", Path);
        return -1;
    }
    if (!_ChooseApn(conf, Apn)) {
        OV_LOG_ERROR("apn is over flow");
    }
    if (!_ChooseDialNumber(conf, DialNumber)) {
        OV_LOG_ERROR("dialNumber is over flow");
    }
    OV_LOG_DEBUG("%s %d: %s unit%d type%d apn %s", __func__, __LINE__, ifname, unit,
                 static_cast<int>(conf->Carrier), Apn);
    fprintf(File, CHAT_TEXT, Apn, DialNumber);
    if (_OV_RTCCloseText(File, Path, 0) != 0) {
        return -1;
    }

    _OV_RTCCompose(Path, sizeof(Path), HOOK_PATH, unit);
    File = fopen(Path, "we");
    if (File == nullptr) {
        OV_LOG_DEBUG("Can't open %s", Path);
        return -1;
    }
    fprintf(File, IP_UP_HOOK, ifname, AGENT_PIPE);
    return _OV_RTCCloseText(File, Path, RTC_HOOK_ARMED);
}

int OV_RTC4GmoduleCreateOption(const char *, int unit)
{
    return RTC_RUN(OPTIONS_COMMAND, unit, OPTIONS, unit);
}

int OV_RTC4GmoduleEnable(int unit)
{
    RTC_RUN("echo > %s", REPORT_FILE);
    return RTC_RUN("pppd connect 'chat -v -r %s -f %s%d' file %s%d &", REPORT_FILE, CHAT_SCRIPT,
                   unit, OPTIONS, unit);
}

int OV_RTC4GmoduleDisable(int unit)
{
    char Path[PATH_SIZE];
    char Process[UNIT_TEXT_SIZE];

    /* A link that comes up late is not reported any more. */
    _OV_RTCCompose(Path, sizeof(Path), HOOK_PATH, unit);
    chmod(Path, RTC_HOOK_DISARMED);

    _OV_RTCCompose(Process, sizeof(Process), "4g_%d", unit);
    if (_OV_RTCFindProcess(RTC_COMMAND_SIZE, -1, Process) != 0) {
        return 0;
    }
    return _OV_RTCKillProcess(RTC_COMMAND_SIZE, -1, Process);
}

static int _FindEcmTool()
{
    return _OV_RTCFindProcess(RTC_COMMAND_LIMIT, -EOVERFLOW, ECM_TOOL);
}

int OV_RTCEcmProcessDisable(void)
{
    int Result = _FindEcmTool();
    if (Result == 0) {
        Result = _OV_RTCKillProcess(RTC_COMMAND_LIMIT, -EOVERFLOW, ECM_TOOL);
        if (Result == -1) {
            Result = _FindEcmTool() == 0 ? -1 : 0; /* it may have ended by itself */
        }
    } else if (Result == -1) {
        Result = 0; /* none runs */
    }
    if (Result == -EOVERFLOW) {
        OV_LOG_ERROR("cmd is over flow");
    }
    return Result;
}

int OV_RTCEcm4GConfig(const char *, const OV_RTC_INTF_CONFIG_LTE *conf, int enable)
{
    APN Apn = "";

    if (enable != 0 && conf == nullptr) {
        return -EINVAL;
    }
    const int Result = OV_RTCEcmProcessDisable();
    if (Result != 0) {
        OV_LOG_ERROR("ECM Disable failed");
        return Result;
    }
    if (enable == 0) {
        return RTC_RUN(ECM_TOOL " -t down ");
    }
    if (!_ChooseApn(conf, Apn)) {
        OV_LOG_ERROR("apn is over flow");
    }
    RTC_RUN(ECM_TOOL " -t down");
    return Apn[0] != '\0' ? RTC_RUN(ECM_TOOL " -t up -a %s", Apn) : RTC_RUN(ECM_TOOL " -t up");
}
