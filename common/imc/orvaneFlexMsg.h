/*
 * The flexible message: a byte buffer that grows as bytes and text are appended.
 *
 *   FlexBuf | bytes in use | free space |
 *           0              Pos          Size
 *
 * A caller may set Pos past Size, or shrink Size below it: the next append first makes the room and
 * zeroes what lies between. A fresh buffer is all zero; bytes gained by growing are not.
 *
 * Both records and buffers are charged to the Vmem account of the module "FlexMsg", registered from
 * the first OV_FlexMsgInit to the last OV_FlexMsgRelease; messages live in between. A message
 * belongs to one thread at a time. Failures go to the system log (error).
 */
#ifndef ORVANE_FLEX_MSG_H
#define ORVANE_FLEX_MSG_H

#include "orvaneTypes.h"

#include <stddef.h>

OV_PUBLIC_BEGIN

typedef struct _OV_FLEXIBLE_MSG {
    size_t Size;       /* of FlexBuf, in bytes */
    OV_LIST_HEAD List; /* for callers that queue messages */
    size_t Pos;        /* bytes in use */
    char *FlexBuf;     /* aligned to 8; null once reallocated to 0 bytes */
} OV_FLEXIBLE_MSG;

/* For starts and stops, of this library or of who uses messages without it. -ENOMEM, not counted,
 * when the module cannot be registered. A release too many does nothing. */
OV_ERR_T OV_FlexMsgInit(void);
void OV_FlexMsgRelease(void);

/* An empty message with 4096 zeroed bytes, or null. The caller owns it until OV_FlexMsgFree, which
 * takes null as well. */
OV_FLEXIBLE_MSG *OV_FlexMsgAlloc(void);
void OV_FlexMsgFree(OV_FLEXIBLE_MSG *Msg);

/* Gives the message a fresh buffer of 4096 zeroed bytes, Pos 0, and returns it; the previous one is
 * not freed: OV_FlexMsgReallocData(Msg, 0) does that before. On failure null, and the message stays
 * as it was. */
void *OV_FlexMsgAllocData(OV_FLEXIBLE_MSG *Msg);

/* Moves the buffer to NewSize bytes, keeping what fits; Pos stays. Returns the new buffer. On
 * failure null, and the old one stays. NewSize 0 frees the buffer and returns null. */
void *OV_FlexMsgReallocData(OV_FLEXIBLE_MSG *Msg, size_t NewSize);

/* Makes room for Size more bytes, growing to exactly Pos + Size where needed. FALSE for want of
 * memory and when the sum exceeds any memory; the message then stays as it was. */
BOOL OV_FlexMsgDataMaybePull(OV_FLEXIBLE_MSG *Msg, size_t Size);

/* Append Size bytes, which lie outside the message; with Size 0 Data may be null. The unsafe one
 * needs the room to be there. -ENOMEM leaves the message as it was. */
void OV_FlexMsgUnsafeSetData(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size);
OV_ERR_T OV_FlexMsgSafeSetData(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size);

/* Appends text; its NUL is written, but not counted in Pos. The capacity is doubled until both fit.
 * -ENOMEM, with Pos as it was, for want of memory and for a format that cannot be printed. */
OV_ERR_T OV_FlexMsgSetFormatData(OV_FLEXIBLE_MSG *Msg, const char *Format, ...)
    OV_PRINTF_LIKE(2, 3);

/* FlexBuf. */
void *OV_FlexMsgDataHead(const OV_FLEXIBLE_MSG *Msg);

/* Set Pos to Bytes, or to 0; Bytes is not compared with Size. */
void OV_FlexMsgSetDataLen(OV_FLEXIBLE_MSG *Msg, size_t Bytes);
void OV_FlexMsgResetDataLen(OV_FLEXIBLE_MSG *Msg);

OV_PUBLIC_END

#endif
