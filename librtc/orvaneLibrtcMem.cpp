#include "orvaneLibrtcMem.h"

#include "orvaneLibrtcMemInternal.h"
#include "orvaneSafeStr.h"

#include <errno.h>
#include <string.h>

static constexpr const char *MODULE_NAME = "LIBRTC";

/* Nothing changes it: a library built for direct configuration would say FALSE here. */
static constexpr BOOL gs_RTCSocketConfig = TRUE;

std::atomic<int32_t> g_LibrtcModID = -1;
std::atomic<uint32_t> g_LibrtcModStart;

int32_t OV_RTCisSocketConfig(void)
{
    return gs_RTCSocketConfig;
}

OV_ERR_T OV_LibrtcMemModuleRegister(void)
{
    const int32_t ModId = OV_MemModRegister(MODULE_NAME, strlen(MODULE_NAME));

    if (ModId < 0) {
        return ModId;
    }
    g_LibrtcModID = ModId;
    g_LibrtcModStart++;
    return 0;
}

void OV_LibrtcMemModuleUnregister(void)
{
    if (g_LibrtcModID != -1) {
        OV_MemModUnRegister(g_LibrtcModID);
        g_LibrtcModID = -1;
    }
}

OV_ERR_T OV_LibrtcMemGetUsage(char *Usage, size_t UsageSize)
{
    OV_USEAGE_INFO Info = {}; /* an unregistered module leaves it as it is */

    OV_MemGetUsage(g_LibrtcModID, &Info);
    const size_t Length = OV_SNPrintf(Usage, UsageSize, "[MEMINFO]%s:Counter=%d,Size=%d\n",
                                      Info.Name, Info.MemCounter, Info.MemUsage);
    return Length >= UsageSize ? -EOVERFLOW : 0;
}
