/*
 * Assertions that belong to the library's behaviour: a broken invariant (a lock that cannot be
 * taken, a record that must exist) stops the process with a message on standard error and an
 * abort, in release builds too. NDEBUG does not switch them off.
 */
#ifndef ORVANE_ASSERT_H
#define ORVANE_ASSERT_H

#include "orvaneTypes.h"

#include <sys/cdefs.h>

/* glibc's own reporter: it also leaves the text where a core dump shows it. <assert.h> declares
 * it only without NDEBUG. */
OV_EXTERN_C_BEGIN
extern void __assert_fail(const char *Expression, const char *File, unsigned int Line,
                          const char *Function) __THROW __attribute__((__noreturn__));
OV_EXTERN_C_END

/* Stops the process unless Condition holds, reporting the given expression text and location. */
#define OV_ASSERT_AT(Condition, Expression, File, Line, Function) \
    ((Condition) ? (void)0 : __assert_fail((Expression), (File), (Line), (Function)))

#endif
