/* Everything that the library exports: include this one, or the header of the area you use. */
#ifndef ORVANE_LIBRTC_H
#define ORVANE_LIBRTC_H

#include "linuxRtc.h"
#include "linuxRtcBypass.h"
#include "orvaneInetTypes.h"
#include "orvaneLibrtcLog.h"
#include "orvaneSafeStr.h"
#include "orvaneTypes.h"

#endif
