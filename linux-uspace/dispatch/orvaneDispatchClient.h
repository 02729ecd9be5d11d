/*
 * The dispatch client: this process's connections to the appliance's dispatch server, on loopback.
 *
 * - Configuration (port 54321): request and reply. A caller sends a message and waits for the
 *   answer in the same descriptor; callers on several threads take turns. A connection that broke
 *   is opened again by the next call.
 * - Notification (port 54322): the server pushes messages. The thread "NotifyClient" receives them
 *   and calls the handler of the message's module. It reconnects once after each failure, at once,
 *   and ends for good when that fails: see OV_DispatchClientIsListening. It keeps each descriptor
 *   that it replaced until it ends: a server that accepts and closes over and over costs one each
 *   time. While a handler runs it is registered with RCU.
 *
 * The server is trusted: nobody but the appliance's own service may listen on the two ports.
 * Nothing proves who does, and the length of a message has no bound: whoever listens may keep
 * callers waiting for up to 4 GiB, and fill the memory with them.
 *
 * Everything may be called from any thread; of two starts or stops at once, one is made. Nothing
 * here has a timeout: a server that neither answers nor goes away is waited for until the stop, and
 * a start waits for one that takes no connections as long as the system does (two minutes). A
 * forked child has no client and none of its parent's connections, and may start one.
 */
#ifndef ORVANE_DISPATCH_CLIENT_H
#define ORVANE_DISPATCH_CLIENT_H

#include "orvaneDispatch.h"

OV_PUBLIC_BEGIN

/* Called on the thread "NotifyClient", which blocks all signals (commands that it runs do not), for
 * each notification of its module; it must return. The descriptor is the thread's own and valid
 * during the call; the handler may reply through it. The descriptor that is returned is not looked
 * at. */
typedef OV_DISPATCH_DESC *(*OV_DISPATCH_FUNC)(OV_DISPATCH_DESC *Desc);

/* Connects to the server and starts the thread; NoNotify: the configuration connection alone.
 * Returns 0, -EALREADY when not stopped, or the negative code of what failed (-ECONNREFUSED: no
 * server): nothing is then left open or registered. */
OV_ERR_T OV_DispatchClientInit(void);
OV_ERR_T OV_DispatchClientInitNoNotify(void);

/* Ends exchanges and pushes under way and waits for them and for the thread, so for a handler that
 * runs: no lock that a handler takes may be held here. Called by a handler it does not wait for the
 * thread, which ends when the handler returns; called during another start or stop it does nothing.
 * Descriptors that are still out are reported as leaks; they may be used and freed all the same. */
void OV_DispatchClientExit(void);

/* TRUE while notifications arrive: from a start with notifications to the stop, unless the
 * connection broke and could not be made again (one attempt, at once: the server was not back yet).
 * No notification arrives then any more, and nothing else tells: an agent that lives on them asks
 * every now and then, and stops and starts the client, until a start succeeds; what was pushed
 * meanwhile is lost. While a broken connection is being made again it is TRUE. */
BOOL OV_DispatchClientIsListening(void);

/* Sends Desc and receives the reply into it. The reply's own code: OV_DispatchGetRetCode. Before
 * the first start it connects by itself. Returns 0; -ESHUTDOWN from the beginning of a start until
 * it is complete, and after a stop or a start that failed; -EINVAL for a Desc that holds no message
 * (no OV_DispatchInitHdr, or a Length beyond its Size); or the negative errno value of what failed:
 * the connection is then closed. In the first two cases nothing has been sent. After a failure
 * build the message anew: once it went out, what Desc holds is no message, and refused with
 * -EINVAL. Not to be cancelled. */
OV_ERR_T OV_DispatchConfigure(OV_DISPATCH_DESC *Desc);

/* Pushes a notification with Size bytes of Info (below 2 GiB) to the server; pushes of several
 * threads take turns. Nothing is reported; without a notification connection nothing is done. */
void OV_DispatchNotifyReply(uint8_t Module, uint16_t Type, const void *Info, uint32_t Size);

/* The handler table, which outlives start and stop. Add: 0, or -EBADE while the module has a
 * handler. Del: only the handler given is removed; it may still be running on the thread. Get: null
 * for none. */
OV_ERR_T OV_DispatchClientAddModuleFunc(uint8_t Module, OV_DISPATCH_FUNC Func);
void OV_DispatchClientDelModuleFunc(uint8_t Module, OV_DISPATCH_FUNC Func);
OV_DISPATCH_FUNC OV_DispatchClientGetModuleFunc(uint8_t Module);

OV_PUBLIC_END

#endif
