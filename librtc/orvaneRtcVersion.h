/* Which library this is. */
#ifndef ORVANE_RTC_VERSION_H
#define ORVANE_RTC_VERSION_H

#include "orvaneTypes.h"

OV_PUBLIC_BEGIN

/* A function that prints, such as OV_DumpInfo of the agent log. */
typedef void (*OV_RTC_DUMP_FUNC)(const char *Format, ...) OV_PRINTF_LIKE(1, 2);

/* Prints one line with DumpStr: version, commit that was built ("unknown" without a repository),
 * date and time of the build. */
void OV_RtcVersionDump(OV_RTC_DUMP_FUNC DumpStr);

OV_PUBLIC_END

#endif
