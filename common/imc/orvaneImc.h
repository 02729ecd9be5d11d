/*
 * IMC: requests to the appliance's configuration service, and its replies. Each is a header and a
 * payload in one flexible message, in host byte order; the service is on the same machine.
 *
 *   request | Mod | - | OpType |    -    | PayloadBytes | Payload ...
 *           0     1   2        4         8              16
 *   reply   | RetCode          |    -    | PayloadBytes | Payload ...
 *
 * The bytes marked - are reserved: nobody writes or reads them. A message belongs to one thread at
 * a time; nothing here locks. Failures are logged to the system log.
 */
#ifndef ORVANE_IMC_H
#define ORVANE_IMC_H

#include "orvaneFlexMsg.h"
#include "orvaneSocket.h"

OV_PUBLIC_BEGIN

typedef struct _OV_IMC_REQ_HDR {
    uint8_t Mod; /* the addressed configuration module */
    uint8_t Reserved0;
    uint16_t OpType; /* the operation within the module */
    uint8_t Reserved1[4];
    uint64_t PayloadBytes; /* of Payload */
    uint8_t Payload[];
} OV_IMC_REQ_HDR;

typedef struct _OV_IMC_REPLY_HDR {
    OV_ERR_T RetCode; /* the service's result */
    uint8_t Reserved[4];
    uint64_t PayloadBytes; /* of Payload */
    uint8_t Payload[];
} OV_IMC_REPLY_HDR;

/* Starts a request without payload: Pos becomes 16. A buffer smaller than the header is made large
 * enough; for want of memory the message stays empty (Pos 0). */
void OV_ImcRequstInitHdr(OV_FLEXIBLE_MSG *Msg, uint8_t Mod, uint16_t OpType);

/* Append Size bytes, which lie outside the message, and count them in the header. 0, -ENOMEM, or
 * -EINVAL for a message without a header; the message is then as it was. */
OV_ERR_T OV_ImcSafeSetRequestPayload(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size);
OV_ERR_T OV_ImcSafeSetReplyPayload(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size);

/* The header of a message that holds a reply, and the byte after it. Both lie in the message and
 * are good until it changes. */
OV_IMC_REPLY_HDR *OV_ImcReplyHdr(const OV_FLEXIBLE_MSG *Msg);
void *OV_ImcReplyPayload(const OV_FLEXIBLE_MSG *Msg);

/* Connects to an IPv4 address (Addr and Port in host order). Stores the socket, which children do
 * not inherit, only on success; the caller closes it. Returns 0 or the system's negative code. */
OV_ERR_T OV_ImcConnect(uint32_t Addr, uint16_t Port, OV_SOCKET *Fd);

/* Sends the bytes in use. 0; -EREMOTEIO when the socket takes none; -EINVAL, with nothing sent,
 * when Pos lies past the buffer; else the system's negative code. */
OV_ERR_T OV_ImcSendAll(OV_SOCKET Socket, const OV_FLEXIBLE_MSG *Msg);

/* Appends exactly Len bytes from the socket. 0; -ENOMEM, with nothing received; -EREMOTEIO at the
 * end of the stream; else the system's negative code. On failure Pos stays. */
OV_ERR_T OV_ImcRecvAll(OV_SOCKET Socket, OV_FLEXIBLE_MSG *Msg, size_t Len);

OV_PUBLIC_END

#endif
