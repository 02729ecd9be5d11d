/*
 * The dispatch message: the unit of the request and notification protocol between this library and
 * the appliance's dispatch server, both on one machine. It lies in one buffer that grows, owned by
 * a descriptor.
 *
 *   | OV_DISPATCH_HDR | payload                  | spare |
 *   0                 8                     Length    Size
 *
 * Length < Size always holds while the operations here fill the message, so that a NUL fits behind
 * a text. Numbers are in host byte order. A descriptor belongs to one thread at a time; nothing
 * here locks. All memory is charged to the dispatch client's module: without a started client no
 * descriptor is to be had. One that outlives the client goes on to work, without an account.
 */
#ifndef ORVANE_DISPATCH_H
#define ORVANE_DISPATCH_H

#include "orvaneSocket.h"
#include "orvaneTypes.h"

OV_PUBLIC_BEGIN

/* As it travels. */
typedef struct _OV_DISPATCH_HDR {
    uint8_t Version; /* 0; another: no message */
    uint8_t Module;  /* 0 to 14 where it is received */
    uint16_t Type;   /* the module's own */
    uint32_t Length; /* of the whole message in bytes, header included */
} OV_DISPATCH_HDR;

typedef struct _OV_DISPATCH_DESC {
    uint8_t *Buff;
    uint32_t Size;             /* of the buffer in bytes */
    uint32_t useVmemAlloc : 1; /* from the Vmem account: must not grow by OV_DispatchPut */
    uint32_t FromPool : 1;     /* never set here */
    uint32_t : 30;             /* the library's own: clear in a record that it did not make */
    OV_LIST_HEAD List;         /* for who queues descriptors */
} OV_DISPATCH_DESC;

/* A descriptor with a buffer of 2048 bytes, or of Size + 8 for a larger Size; or null. The header
 * takes 8 of it and one byte stays spare. The Vmem form is for large messages; its buffer is not
 * zeroed and does not grow, so ask for one byte more than the payload, and for 2049 from 2040 on.
 * The header is not made: see OV_DispatchInitHdr. The caller owns it until OV_DispatchFreeDesc,
 * which ignores null. */
OV_DISPATCH_DESC *OV_DispatchAllocDesc(uint32_t Size);
OV_DISPATCH_DESC *OV_DispatchVmemAllocDesc(uint32_t Size);
void OV_DispatchFreeDesc(OV_DISPATCH_DESC *Desc);

/* The buffer with a new size (bytes, header included), or null and the old one stays, as does one
 * that the caller gave a record of its own. The caller stores buffer and size in the descriptor. */
void *OV_DispatchRealloc(OV_DISPATCH_DESC *Desc, uint32_t NewSize);

/* Makes it an empty message. */
void OV_DispatchInitHdr(OV_DISPATCH_DESC *Desc, uint8_t Module, uint16_t Type);

/* Into the buffer: valid until the message grows. */
OV_DISPATCH_HDR *OV_DispatchHeader(OV_DISPATCH_DESC *Desc);
void *OV_DispatchPayload(OV_DISPATCH_DESC *Desc);

/* The buffer's size (negative above 2 GiB), and the payload's, both in bytes. */
int32_t OV_DispatchSize(OV_DISPATCH_DESC *Desc);
int32_t OV_DispathUsedSize(OV_DISPATCH_DESC *Desc);

/* Appends Size bytes that lie outside the message. Returns 0, or -ENOMEM (also for a negative Size,
 * and for a Vmem buffer that would have to grow): the message is then as it was. */
OV_ERR_T OV_DispatchPut(OV_DISPATCH_DESC *Desc, const void *Data, int32_t Size);

/* Appends a text, terminated in the buffer; the NUL does not count. Returns the characters
 * appended, or -ENOMEM (also for a format that cannot be printed): the message is then as it was.
 */
OV_LEN_ERR_T OV_DispatchPrintf(OV_DISPATCH_DESC *Desc, const char *Format, ...)
    OV_PRINTF_LIKE(2, 3);

/* Zeroes the payload and makes the message empty. A Length below 8 stops the process: no message
 * that was made or received here has one. */
void OV_DispatchResetPayload(OV_DISPATCH_DESC *Desc);

/* A reply's first 4 payload bytes (of a shorter payload, what the buffer has there). Setting drops
 * the payload before; appending may follow. */
void OV_DispatchSetRetCode(OV_DISPATCH_DESC *Desc, int32_t RetCode);
int32_t OV_DispatchGetRetCode(OV_DISPATCH_DESC *Desc);

/* Writes the whole message, waiting as long as that takes. Returns 0, -EINVAL, with nothing
 * written, for a Length beyond Size, or the socket's negative errno value; a peer that is gone is
 * -EPIPE and raises no signal. */
OV_ERR_T OV_DispatchSend(OV_SOCKET Socket, OV_DISPATCH_DESC *Desc);

/* Waits for one message; the buffer grows as needed and ends the payload with a NUL where the
 * caller had cleared it. Returns 0, -EREMOTEIO (the peer closed or the socket failed), -EBADR (a
 * header that is none: the stream is out of step) or -ENOMEM (as much, the payload is unread).
 * After a failure Desc holds no message, until OV_DispatchInitHdr. */
OV_ERR_T OV_DispatchRecv(OV_SOCKET Socket, OV_DISPATCH_DESC *Desc);

/* Append a report as text and return Desc: "name MemUsage MemCounter VmemUsage VmemCounter" a line
 * for each memory module; "name BlockSize BlockNum" for each memory pool (to be called by threads
 * registered with RCU, see orvaneMemPool.h); the library's version. */
OV_DISPATCH_DESC *OV_DispatchGetMemUsage(OV_DISPATCH_DESC *Desc);
OV_DISPATCH_DESC *OV_DispatchGetMemPoolUsage(OV_DISPATCH_DESC *Desc);
OV_DISPATCH_DESC *OV_DispatchGetVersion(OV_DISPATCH_DESC *Desc);

OV_PUBLIC_END

#endif
