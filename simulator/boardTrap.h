/*
 * Puts the board behind the port instructions of this process. iopl() and ioperm() are answered
 * without granting anything, so every in and out instruction faults; the fault handler carries the
 * instruction out on the attached board. kill() is passed on and written to the trace.
 *
 * The board file belongs to whoever made it; this module owns the mapping of this process, its
 * rights and its SIGSEGV action. While no board is attached all three calls go to the kernel.
 * A process that blocks SIGSEGV cannot use the board: the kernel ends it at the first access.
 */
#ifndef BOARD_TRAP_H
#define BOARD_TRAP_H

#include "boardModel.h"

/*
 * Attaches this process, without rights, to a board file; at start-up the file that RTC_BOARD names
 * is attached. 0 or -errno; -EINVAL is a file that holds no board.
 */
int BoardAttach(const char *Path);
void BoardDetach(void);

/* nullptr while no board is attached. */
BOARD_STATE *BoardAttached(void);

#endif
