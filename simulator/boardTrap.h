/*
 * Puts the board behind the port instructions of this process. iopl() and ioperm() are answered
 * without granting anything, so every in and out instruction faults; the fault handler carries the
 * instruction out on the attached board. kill() is passed on and written to the trace.
 *
 * Rights are a thread's, as in the kernel. A thread made later (by pthread_create; one made in
 * another way has none) and a forked child begin with those of their maker. From then on nobody
 * changes another's.
 *
 * The board file belongs to whoever made it; this module owns the mapping of this process, its
 * threads' rights and its SIGSEGV action. While no board is attached all calls go to the kernel.
 * A thread that blocks SIGSEGV cannot use the board: the kernel ends the process at its first
 * access.
 */
#ifndef BOARD_TRAP_H
#define BOARD_TRAP_H

#include "boardModel.h"

/*
 * Attaches this process, its threads without rights, to a board file; at start-up the file that
 * RTC_BOARD names is attached. 0 or -errno; -EINVAL is a file that holds no board.
 */
int BoardAttach(const char *Path);
void BoardDetach(void);

/* nullptr while no board is attached. */
BOARD_STATE *BoardAttached(void);

#endif
