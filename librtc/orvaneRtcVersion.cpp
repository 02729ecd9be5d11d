#include "orvaneRtcVersion.h"

#include "orvaneRtcBuildId.h" /* made by the build */

void OV_RtcVersionDump(OV_RTC_DUMP_FUNC DumpStr)
{
    if (DumpStr != nullptr) {
        DumpStr("OV Librtc version: %s, git: %s, build: %s %s\n", RTC_VERSION, RTC_BUILD_ID,
                __DATE__, __TIME__);
    }
}
