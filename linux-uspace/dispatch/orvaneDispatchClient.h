/*
 * The dispatch client: this process's connections to the appliance's dispatch server, on loopback.
 *
 * - Configuration (port 54321): request and reply. A caller sends a message and waits for the
 *   answer in the same descriptor; callers on several threads take turns. A connection that broke
 *   is opened again by the next call.
 * - Notification (port 54322): the server pushes messages. The thread "NotifyClient" receives them
 *   and calls the handler of the message's module. It reconnects once after each failure, at once,
 *   and ends for good when that fails. It keeps each descriptor that it replaced until it ends: a
 *   server that accepts and closes over and over costs one each time. It is registered with RCU.
 *
 * Everything may be called from any thread; of two starts or stops at once, one is made. Nothing
 * here has a timeout: a server that neither answers nor goes away is waited for until the stop, and
 * a start waits for one that takes no connections as long as the system does (two minutes). A
 * forked child has no client, and may start one.
 */
#ifndef ORVANE_DISPATCH_CLIENT_H
#define ORVANE_DISPATCH_CLIENT_H

#include "orvaneDispatch.h"

OV_PUBLIC_BEGIN

/* Called on the thread "NotifyClient" for each notification of its module; it must return. The
 * descriptor is the thread's own and valid during the call; the handler may reply through it. The
 * descriptor that is returned is not looked at. */
typedef OV_DISPATCH_DESC *(*OV_DISPATCH_FUNC)(OV_DISPATCH_DESC *Desc);

/* Connects to the server and starts the thread; NoNotify: the configuration connection alone.
 * Returns 0, -EALREADY when not stopped, or the negative code of what failed (-ECONNREFUSED: no
 * server): nothing is then left open or registered. */
OV_ERR_T OV_DispatchClientInit(void);
OV_ERR_T OV_DispatchClientInitNoNotify(void);

/* Ends exchanges and pushes under way and waits for them and for the thread, so for a handler that
 * runs: no lock that a handler takes may be held here. Called by a handler it does not wait for the
 * thread, which ends when the handler returns; called during another stop it does nothing.
 * Descriptors must be freed before: later they are leaked. */
void OV_DispatchClientExit(void);

/* Sends Desc and receives the reply into it. Returns 0, -ESHUTDOWN after the stop, or a negative
 * errno value: the connection is then closed. The reply's own code: OV_DispatchGetRetCode. Not to
 * be cancelled. */
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
