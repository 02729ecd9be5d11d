/*
 * The chip and line routines of the LiHua 8865 board. It has three bypass pairs, each with a
 * runtime line and a line for "when the system is off", and a Winbond W83627 whose watchdog output
 * (WDTO) either resets the system or throws the pairs into bypass.
 *
 * All need port rights. A mask is 0x10, 0x20 or 0x40 for pair 1, 2 or 3; another does nothing.
 */
#ifndef LINUX_RTC_BYPASS_LIHUA8865_INTERNAL_H
#define LINUX_RTC_BYPASS_LIHUA8865_INTERNAL_H

#include <stdint.h>

void OV_RTCBypass8865EnterW83627Config();
void OV_RTCBypass8865ExitW83627Config();

/* One complete access to a register of a logical device: enter, select, access, leave. */
uint8_t OV_RTCBypass8865ReadW83627Config(int32_t LDN, int32_t Reg);
void OV_RTCBypass8865WriteW83627Config(int32_t LDN, int32_t Reg, int32_t Value);

/* Starts the watchdog with the low 8 bits of Watchdog_time, in the unit of its control register. */
void OV_RTCBypass8865StartWatchdogTimer(int32_t Watchdog_time);
void OV_RTCBypass8865StopWatchdogTimer();

/* Stops the watchdog and makes the bypass lines GPIO outputs. Returns 0. */
int32_t OV_RTCBypass8865WdGpioInit();

/* By mask. Runtime enable arms the pair's when-off line first; runtime disable leaves it. */
void OV_RTCBypass8865SetBypassEnableWhenSystemOff(uint64_t Pair_no);
void OV_RTCBypass8865SetBypassDisableWhenSystemOff(uint64_t Pair_no);
void OV_RTCBypass8865SetRuntimeBypassEnable(uint64_t Pair_no);
void OV_RTCBypass8865SetRuntimeBypassDisable(uint64_t Pair_no);

/* What a watchdog time-out does. */
void OV_RTCBypass8865SetWdtoStateSystemReset();
void OV_RTCBypass8865SetWdtoStateSystemBypass();

/* By pair number 1 to 3; another is logged and does nothing. */
void OV_RTCBypass8865SetBpStatus(int32_t Pair_no, int32_t Bypass);
void OV_RTCBypass8865SetPoweroffBpStatus(int32_t Pair_no, int32_t Bypass);

/* All three pairs. */
void OV_RTCBypass8865SetBypass(int32_t Bypass);
void OV_RTCBypass8865SetPoweroffBp(int32_t Bypass);

#endif
