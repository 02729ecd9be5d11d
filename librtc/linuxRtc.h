/*
 * The core of runtime control: shell commands, control files and the text of an address with its
 * prefix length. No state; any thread may call. Commands run through /bin/sh as separate
 * processes. A process that ignores SIGCHLD cannot see how its commands ended: the status of every
 * OV_RTCSystem is then a failure. So it is, now and then, where another thread waits for children
 * of any id, and takes the status of a command that way. A signal's handler that runs meanwhile
 * changes no result.
 */
#ifndef LINUX_RTC_H
#define LINUX_RTC_H

#include "orvaneTypes.h"

#include <stddef.h>

OV_PUBLIC_BEGIN

/* The library's own error codes; functions return them negated. */
typedef enum _OV_RTC_ERROR_RET {
    OV_RTC_ERROR_INVALID_PARAM = 1,
    OV_RTC_ERROR_DEFAULT_FAULT = 2,
    OV_RTC_ERROR_BUFF_OVERFLOW = 3,
    OV_RTC_ERROR_TYPE_ERROR = 4,
    OV_RTC_ERROR_NOT_FOUND = 5,
    OV_RTC_ERROR_OPEN_FAILED = 6,
    OV_RTC_ERROR_CLOSE_FAILED = 7,
    OV_RTC_ERROR_WRITE_FAILED = 8,
    OV_RTC_ERROR_FGETS_FAILED = 9,
    OV_RTC_ERROR_MALLOC_FAILED = 10,
    OV_RTC_ERROR_BUFF_PARSE = 11,
    OV_RTC_ERROR_DISPATCH_FAILED = 12
} OV_RTC_ERROR_RET;

/* Runs cmd and captures its standard output and error in buf (size bytes, NUL included; terminated,
 * the rest zeroed). Lines (in pieces of 1023 characters) are kept while they fit; the first that
 * does not ends the capture with an error in the log. Returns the bytes captured, below size unless
 * both are 0; 0 also for a command that could not be started. Waits until the command has ended,
 * not to be cancelled; its status is not looked at. The command line is cut at 1022 characters,
 * the redirection " 2>&1" at its end included. */
int OV_RTCExecCmd(const char *cmd, char *buf, size_t size);

/* Runs cmd and waits for it. Returns 0 when it exited with status 0, else -1. */
int OV_RTCSystem(const char *cmd);

/* Writes CmdLen bytes of the text Cmd (terminated: it is logged) with one write to the start of an
 * existing file, typically a control file. Returns 0, the negated errno of the open, or -EIO when
 * not all was written. */
OV_ERR_T OV_RTCWriteFile(const char *Cmd, size_t CmdLen, const char *FilePath);

/* The same into a file that is created or emptied first (mode 0666 less the umask), with a
 * synchronous write. A child that another thread starts meanwhile may inherit the descriptor. */
int OV_RTCWriteFileSync(const char *Cmd, int CmdLen, const char *FilePath);

/* Reads "a.b.c.d/prefix" or "a.b.c.d" (prefix 32, with a warning) into *Ip (host byte order) and
 * *Mask. The slash in IpSubnet is overwritten with a NUL and must stand before position
 * IpSubnetLen. The prefix is not checked: its low 8 bits are stored. Returns 0, or negated
 * OV_RTC_ERROR_INVALID_PARAM (a null argument), OV_RTC_ERROR_BUFF_OVERFLOW (the slash stands too
 * far on) or OV_RTC_ERROR_BUFF_PARSE. *Mask is written only on success; *Ip becomes 0 when the
 * address cannot be read. */
int OV_RTCParseIpSubnet(char *IpSubnet, int IpSubnetLen, u32 *Ip, u8 *Mask);

OV_PUBLIC_END

#endif
