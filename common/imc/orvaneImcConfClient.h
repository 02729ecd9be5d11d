/*
 * The client of the configuration service: sets and reads configuration items that another process
 * of this machine keeps. It holds one TCP connection to 127.0.0.1:55435, made by
 * OV_ImcConfClientInit and never made again: when it breaks, or a reply cannot be taken in whole,
 * the connection is over, and every later exchange fails until the client is released and
 * initialised once more. So no bytes of one reply are ever taken for another's.
 *
 * Any thread may exchange at any time, also before start and after stop (and fail); one exchange at
 * a time is on the connection, for its whole request and reply. There is no time limit, but a
 * release ends an exchange that waits. An exchange is not cancelled in its middle. Failures are
 * logged to the system log (error).
 *
 * The service is trusted: nobody else may listen on the port. Nothing proves who does, and a reply
 * may be as long as it says: a caller waits for all of it.
 */
#ifndef ORVANE_IMC_CONF_CLIENT_H
#define ORVANE_IMC_CONF_CLIENT_H

#include "orvaneImc.h"

OV_PUBLIC_BEGIN

/* Connects, and initialises the flexible messages with it. 0; -EALREADY, with nothing changed, when
 * the client is initialised; else the negative code of what failed, -ECONNREFUSED when the service
 * does not run, with nothing left open. A service that takes no connections is waited for as long
 * as the system does (two minutes). Neither of the two is to be called by a reply handler. A forked
 * child has no client, and may start one. */
OV_ERR_T OV_ImcConfClientInit(void);

/* Ends the exchanges in progress, with an error, waits for them and disconnects. Does nothing when
 * the client is not initialised. */
void OV_ImcConfClientRelease(void);

/* One exchange of the caller's own: Msg holds a request, and the reply afterwards. Returns the
 * service's result, or the transport's negative code (-EREMOTEIO: cut off, -EBADF: not initialised,
 * -ENOMEM: no room for the reply; -EINVAL, with nothing sent, for a Msg without a whole header). */
OV_ERR_T OV_ImcConfigure(OV_FLEXIBLE_MSG *Msg);

/* Sets an item to DataBytes of Data, null when there are none. Returns as OV_ImcConfigure does, and
 * -ENOMEM; so do the next two. */
OV_ERR_T OV_ImcConfSet(uint8_t Mod, uint16_t OpType, const void *Data, size_t DataBytes);

/* Reads an item; Requset may be null. At most ReplyBytes of the reply's payload go to Reply, when
 * the service's result is not negative: -ENODATA when there is none, -ENOBUFS when it was cut to
 * ReplyBytes. How many bytes came is not told. With Reply null the payload is ignored. */
OV_ERR_T OV_ImcConfGet(uint8_t Mod, uint16_t OpType, const void *Requset, size_t RequsetBytes,
                       void *Reply, size_t ReplyBytes);

/* Gets the payload, which is gone after the call, and its size, which may be 0. The call's result
 * becomes the exchange's. Called on the exchanging thread, with its cancellation put off; other
 * threads may exchange meanwhile, a release waits. It must return. */
typedef OV_ERR_T (*OV_IMC_REPLY_HANDLER)(const void *Payload, size_t PayloadBytes, void *Args);

/* Reads an item through a handler, called when the service's result is not negative; null: the
 * payload is ignored. OpType has only 8 bits here, unlike above: of a larger operation the service
 * gets the low 8 bits. */
OV_ERR_T OV_ImcConfGetByFunc(uint8_t Mod, uint8_t OpType, const void *Requset, size_t RequsetBytes,
                             OV_IMC_REPLY_HANDLER ReplyHandlerFunc, void *ReplyHandlerFuncArgs);

OV_PUBLIC_END

#endif
