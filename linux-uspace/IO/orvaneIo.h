/*
 * Files: the system's calls by the convention of orvanePlatformResult.h. The assertions guard that
 * convention itself: a positive error would be an error of this code.
 */
#ifndef ORVANE_IO_H
#define ORVANE_IO_H

#include "orvaneAssert.h"
#include "orvanePlatformResult.h"

#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

typedef int OV_FILE; /* a descriptor; negative: none */

#define OV_IO_ASSERT(Condition) \
    OV_ASSERT_AT(Condition, "(" #Condition ")", "orvaneIo", __LINE__, __func__)

/* Stores the descriptor, -1 after a failure. Returns 0 or a negative errno value. */
static inline OV_ERR_T OV_Open(OV_FILE *FileIndexPtr, const char *PathName, int Flags, mode_t Mode)
{
    OV_ERR_T ovErr = 0;

    *FileIndexPtr = open(PathName, Flags, Mode);
    if (*FileIndexPtr < 0) {
        ovErr = -errno;
    }
    OV_IO_ASSERT(ovErr <= 0);
    return ovErr;
}

/* close: 0, or a negative errno value; the descriptor is gone in both cases. */
static inline OV_ERR_T OV_Close(OV_FILE FileIndex)
{
    const OV_ERR_T ovErr = OV_PlatformResult(close(FileIndex));

    OV_IO_ASSERT(ovErr <= 0);
    return ovErr;
}

/* Both return the bytes moved. */
static inline OV_LEN_ERR_T OV_Write(OV_FILE FileIndex, const void *Buff, size_t Count)
{
    return OV_PlatformResult(write(FileIndex, Buff, Count));
}

/* The bytes read; 0 at the end of the file. */
static inline OV_LEN_ERR_T OV_Read(OV_FILE FileIndex, void *Buff, size_t Count)
{
    return OV_PlatformResult(read(FileIndex, Buff, Count));
}

/* Stores the length of the file in bytes and leaves the stream at its start; on failure the length
 * is not stored and the position is undefined. Returns 0 or the negated errno of the failed step.
 */
static inline OV_ERR_T OV_GetFileLen(FILE *Fp, long *OutFileLen)
{
    OV_ERR_T err = 0;
    long Length = 0;

    if (fseek(Fp, 0, SEEK_END) != 0 || (Length = ftell(Fp)) < 0 || fseek(Fp, 0, SEEK_SET) != 0) {
        err = -errno;
    } else {
        *OutFileLen = Length;
    }
    OV_IO_ASSERT(err <= 0);
    return err;
}

#endif
