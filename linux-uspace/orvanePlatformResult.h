/*
 * The one convention by which every wrapper of a system call reports: what the call returned when
 * that is not negative, else the negated errno. No wrapper logs.
 */
#ifndef ORVANE_PLATFORM_RESULT_H
#define ORVANE_PLATFORM_RESULT_H

#include "orvaneTypes.h"

#include <errno.h>

/* Result is what a system call has just returned; no call moves more than 2 GiB at once. */
static inline OV_LEN_ERR_T OV_PlatformResult(long Result)
{
    return Result < 0 ? -(OV_LEN_ERR_T)errno : (OV_LEN_ERR_T)Result;
}

#endif
