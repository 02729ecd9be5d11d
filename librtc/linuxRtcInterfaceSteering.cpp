#include "linuxRtcInterfaceSteering.h"

#include "linuxRtc.h"
#include "linuxRtcShellInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneLibrtcLog.h"

#include <errno.h>
#include <net/if.h>
#include <sys/stat.h>

static constexpr size_t PATH_SIZE = 512;

/* The older pair of scripts is run from within its folder, the newer one by path. */
#define SCRIPT_FOLDER "/bin/corsin/if_fdir_rss"

static constexpr char RSS_SCRIPT[] = "configure_eth_rxq_irq_rss.sh";
static constexpr char FDIR_SCRIPT[] = "configure_eth_fdir.sh";

struct STEERING_SCRIPT {
    const char *Tag; /* of its lines in the log */
    const char *Path;
    const char *Check; /* how the log calls the look for it */
};
static constexpr STEERING_SCRIPT SEPSA = {"SEPSA", SCRIPT_FOLDER "/configure_if_sepsa.sh",
                                          "_OV_RTCIfSepSaCheckScriptExist"};
static constexpr STEERING_SCRIPT SOFT_RSS = {"SoftRss", SCRIPT_FOLDER "/configure_if_softrss.sh",
                                             "_OV_RTCIfSoftRssCheckScriptExist"};

static bool _IsInterface(const char *IfName)
{
    return IfName != nullptr && if_nametoindex(IfName) != 0;
}

static OV_ERR_T _OV_RTCIfFdirRssCheckScript(const char *Script)
{
    struct stat Status;
    char Path[PATH_SIZE];

    if (!_OV_RTCCompose(Path, sizeof(Path), "%s/%s", SCRIPT_FOLDER, Script)) {
        OV_LOG_ERROR("IfFdirRss: pathname (%s/%s) too long", SCRIPT_FOLDER, Script);
        return -ENAMETOOLONG;
    }
    if (stat(Path, &Status) != 0) {
        OV_LOG_ERROR("IfFdirRss: stat(%s) fails", Path);
        return -ENOENT;
    }
    return 0;
}

/* Arguments: what stands behind the script's name. */
static OV_ERR_T _RunInFolder(const char *Script, const char *Arguments)
{
    const OV_ERR_T Check = _OV_RTCIfFdirRssCheckScript(Script);
    if (Check != 0) {
        OV_LOG_ERROR("IfFdirRss: _OV_RTCIfFdirRssCheckScript(%s) fails", Script);
        return Check;
    }
    const OV_ERR_T Result = RTC_RUN_WITHIN(RTC_COMMAND_SIZE, -ENAMETOOLONG, "cd %s && ./%s %s",
                                           SCRIPT_FOLDER, Script, Arguments);
    if (Result == -ENAMETOOLONG) {
        OV_LOG_ERROR("IfFdirRss: cmd_string too long");
    }
    return Result;
}

/* A null name: all interfaces. */
static OV_ERR_T _OV_RTCIfFdirRssEnableRssOneOrAllInterfaces(const char *IfName)
{
    if (IfName != nullptr && !_IsInterface(IfName)) {
        OV_LOG_ERROR("IfFdirRss: no such interface");
        return -ENODEV;
    }
    return _RunInFolder(RSS_SCRIPT, IfName != nullptr ? IfName : " ");
}

static OV_ERR_T _OV_RTCIfFdirRssEnableOrDisableFdirOneInterface(const char *IfName, BOOL Enable)
{
    char Arguments[RTC_COMMAND_SIZE];

    if (!_IsInterface(IfName)) {
        OV_LOG_ERROR("IfFdirRss: no such interface");
        return -ENODEV;
    }
    /* A name that the kernel knows is short. */
    _OV_RTCCompose(Arguments, sizeof(Arguments), "%s %s hw", IfName, Enable ? "on" : "off");
    return _RunInFolder(FDIR_SCRIPT, Arguments);
}

OV_ERR_T OV_RTCIfFdirRssEnableRssAllInterfaces(void)
{
    return _OV_RTCIfFdirRssEnableRssOneOrAllInterfaces(nullptr);
}

OV_ERR_T OV_RTCIfFdirRssEnableRssOneInterface(const char *IfName)
{
    return _OV_RTCIfFdirRssEnableRssOneOrAllInterfaces(IfName != nullptr ? IfName : "");
}

OV_ERR_T OV_RTCIfFdirRssEnableFdirOneInterface(const char *IfName)
{
    return _OV_RTCIfFdirRssEnableOrDisableFdirOneInterface(IfName, TRUE);
}

OV_ERR_T OV_RTCIfFdirRssDisableFdirOneInterface(const char *IfName)
{
    return _OV_RTCIfFdirRssEnableOrDisableFdirOneInterface(IfName, FALSE);
}

static OV_ERR_T _CheckScriptExist(const STEERING_SCRIPT &Script)
{
    struct stat Status;

    if (stat(Script.Path, &Status) != 0) {
        OV_LOG_WARN("%s: stat(%s) fails", Script.Tag, Script.Path);
        return -ENOENT;
    }
    return 0;
}

static OV_ERR_T _RunByPath(const STEERING_SCRIPT &Script, const char *Arguments)
{
    char Command[RTC_COMMAND_SIZE];

    const OV_ERR_T Check = _CheckScriptExist(Script);
    if (Check != 0) {
        OV_LOG_WARN("%s: %s() fails, script may not exist", Script.Tag, Script.Check);
        return Check;
    }
    if (!_OV_RTCCompose(Command, sizeof(Command), "%s %s", Script.Path, Arguments)) {
        OV_LOG_WARN("%s: cmd_string too long", Script.Tag);
        return -ENAMETOOLONG;
    }
    OV_LOG_INFO("%s: execute: %s", Script.Tag, Command);
    return OV_RTCSystem(Command);
}

OV_ERR_T OV_RTCIfSepSaEnableOneInterface(const char *IfName, uint32_t SAMasterIp,
                                         uint16_t SAMasterPort)
{
    char Arguments[RTC_COMMAND_SIZE];

    if (!_IsInterface(IfName)) {
        OV_LOG_WARN("SEPSA: no such interface");
        return -ENODEV;
    }
    _OV_RTCCompose(Arguments, sizeof(Arguments), "on %s %s %u", IfName,
                   _OV_RTCIp4Text(SAMasterIp).Text, SAMasterPort);
    return _RunByPath(SEPSA, Arguments);
}

OV_ERR_T OV_RTCIfSepSaDisableAllInterface(void)
{
    return _RunByPath(SEPSA, "off");
}

OV_ERR_T OV_RTCIfSoftRssDisableAllInterface(void)
{
    return _RunByPath(SOFT_RSS, "off all");
}
