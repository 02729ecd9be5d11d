/* What the floors above have of the command runner besides its public calls. */
#ifndef LINUX_RTC_INTERNAL_H
#define LINUX_RTC_INTERNAL_H

/* Runs Command like OV_RTCSystem, without a line in the log. Returns what system() does; a
 * cancelled thread ends the shell. */
int _OV_RTCRunShell(const char *Command);

#endif
