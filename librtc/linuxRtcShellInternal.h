/*
 * What the floors above give to the shell: command lines composed from a format, processes found
 * by the text of their command line, and files that other programs read or run.
 *
 * A command line that does not fit, or of which a text is missing, is not run: half a command may
 * be another one, and to look for the clients of no interface finds those of all. Texts stand in it
 * as they are.
 */
#ifndef LINUX_RTC_SHELL_INTERNAL_H
#define LINUX_RTC_SHELL_INTERNAL_H

#include "orvaneTypes.h"

#include <concepts>
#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

static constexpr size_t RTC_COMMAND_SIZE = 512;
static constexpr size_t RTC_COMMAND_LIMIT = 1024;

/* Modes of the scripts that pppd runs when a link comes up: armed, and not. */
static constexpr mode_t RTC_HOOK_ARMED = 0777;
static constexpr mode_t RTC_HOOK_DISARMED = 0666;

/* Composes into Out, which has Room characters with the NUL; false when it was cut. */
bool _OV_RTCCompose(char *Out, size_t Room, const char *Format, ...) OV_PRINTF_LIKE(3, 4);

/* Composes a command line of less than Room (at most RTC_COMMAND_LIMIT) characters and runs it. The
 * result is that of OV_RTCSystem, or Refused when it does not fit. */
int _OV_RTCRun(size_t Room, int Refused, const char *Format, ...) OV_PRINTF_LIKE(3, 4);

/* Whether no argument is a missing text, null or empty. */
constexpr bool _OV_RTCIsOneGiven(const char *Argument)
{
    return Argument != nullptr && Argument[0] != '\0';
}
template <std::integral NUMBER>
constexpr bool _OV_RTCIsOneGiven(NUMBER)
{
    return true;
}
template <typename... ARGUMENTS>
constexpr bool _OV_RTCIsGiven(ARGUMENTS... Arguments)
{
    return (_OV_RTCIsOneGiven(Arguments) && ...);
}

/* What the operations call: with a missing text nothing is run either, and the result is -1.
 * Arguments are evaluated twice. */
#define RTC_RUN_WITHIN(Room, Refused, Format, ...) \
    (_OV_RTCIsGiven(__VA_ARGS__) ? _OV_RTCRun(Room, Refused, Format, ##__VA_ARGS__) : -1)
#define RTC_RUN(Format, ...) RTC_RUN_WITHIN(RTC_COMMAND_SIZE, -1, Format, ##__VA_ARGS__)

/* Whether a process has Text in its line of ps. Room and Refused as above; else 0 or -1. */
int _OV_RTCFindProcess(size_t Room, int Refused, const char *Text);

/* Kills the processes that have Text in their line of ps. */
int _OV_RTCKillProcess(size_t Room, int Refused, const char *Text);

/* Closes a file that was written and gives it the mode, unless that is 0. Returns 0, or -1 when not
 * all could be written (logged): it then keeps the mode that it had. */
int _OV_RTCCloseText(FILE *File, const char *Path, mode_t Mode);

#endif
