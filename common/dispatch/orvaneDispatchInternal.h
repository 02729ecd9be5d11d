/* What the dispatch message shares with the dispatch client. */
#ifndef ORVANE_DISPATCH_INTERNAL_H
#define ORVANE_DISPATCH_INTERNAL_H

#include "orvaneDispatch.h"

/* The memory module of all descriptors: registered by the client's start, which gets 0 or a
 * negative errno value, and unregistered by its stop. A descriptor that is older than the
 * registration goes on to work, without an account. */
OV_ERR_T _OV_DispatchRegister();
void _OV_DispatchUnregister();

/* Takes Desc out of the account, right before the module is unregistered. */
void _OV_DispatchDisown(OV_DISPATCH_DESC *Desc);

/* A header that the server would understand, and no more than the buffer has. */
bool _OV_DispatchIsWhole(OV_DISPATCH_DESC *Desc);

/* Zeroes Size bytes of a buffer, large ones without touching pages that nothing was written to. */
void _OV_DispatchClear(void *Start, size_t Size);

#endif
