/*
 * Bounded strings: the one vocabulary for writing into fixed-size character buffers and for
 * reading tokens and numbers out of text. Pure functions: no state, no log, any thread.
 *
 * Writers: CharCnt is the size of the buffer in characters, its NUL included. The output always
 * ends in a NUL when CharCnt is not 0, and a cut output is reported by the result CharCnt, so
 * that "result >= size" is the one test for truncation.
 *
 * Readers: the result is the position just after what was read and the white space behind it
 * (blank, tab, newline, vertical tab, form feed, carriage return), or null when nothing valid
 * stood there, so that reads can be chained over a line.
 */
#ifndef ORVANE_SAFE_STR_H
#define ORVANE_SAFE_STR_H

#include "orvaneTypes.h"

#include <stddef.h>

OV_PUBLIC_BEGIN

/* Returns P without its const: the readers hand back positions in a const input this way. */
void *OV_DiscardConst(const void *P);

/* Copies SrcStr. Returns the characters copied without the NUL, or CharCnt when it was cut. With
 * CharCnt 0 nothing is written and the result is 0. */
size_t OV_SafeStrCopy(char *OutStr, size_t CharCnt, const char *SrcStr);

/* Appends SrcStr to DstStr. Returns the resulting length, or CharCnt when it was cut. A DstStr
 * without a NUL in its first CharCnt characters is cut to CharCnt - 1 and reported as cut. */
size_t OV_SafeStrCat(char *DstStr, size_t CharCnt, const char *SrcStr);

/* strncmp and strncasecmp over at most CharCnt characters. */
int OV_SafeStrCmp(const char *Str1, const char *Str2, size_t CharCnt);
int OV_SafeStrCaseCmp(const char *Str1, const char *Str2, size_t CharCnt);

/* Prints into OutStr. Returns the characters written without the NUL, or CharCnt when the output
 * was cut or could not be formatted. With CharCnt 0 nothing is written and the result is 0. */
size_t OV_SNPrintf(char *OutStr, size_t CharCnt, const char *Format, ...) OV_PRINTF_LIKE(3, 4);

/* Prints from OutStr up to EndPtr (one past the buffer) and returns where the next print starts:
 * the NUL just written, or EndPtr - 1 once the buffer is full. OutStr >= EndPtr writes nothing
 * and returns OutStr. */
char *OV_SEPrintf(char *OutStr, char *EndPtr, const char *Format, ...) OV_PRINTF_LIKE(3, 4);

/* Reads one white-space-delimited token into OutStr. Null when there is none (OutStr is then
 * empty) or when it has CharCnt or more characters (OutStr then holds its first CharCnt - 1). */
char *OV_SafeStrGetStr(const char *SrcStr, char *OutStr, size_t CharCnt);

/* Read one number in the given Radix (0: by prefix as in C, else 2 to 36). The output is set to 0
 * first and stays 0 when there are no digits (null result). There is no range check: the 32-bit
 * readers keep the low 32 bits, and what exceeds the conversion's own range is saturated. A null
 * SrcStr gives null. */
char *OV_SafeStrGetU32(const char *SrcStr, unsigned int Radix, uint32_t *OutU32);
char *OV_SafeStrGetI32(const char *SrcStr, unsigned int Radix, int32_t *OutI32);
char *OV_SafeStrGetU64(const char *SrcStr, unsigned int Radix, uint64_t *OutU64);
char *OV_SafeStrGetI64(const char *SrcStr, unsigned int Radix, int64_t *OutI64);

/* Reads a dotted IPv4 address from the first CharCnt characters of SrcStr (no NUL needed; nothing
 * at or past the count is looked at) into host byte order, first part most significant. Leading
 * zeros are accepted; what follows the fourth part is the caller's. On failure the result is null
 * and the output 0. */
char *OV_SafeStrGetIp4Addr(const char *SrcStr, size_t CharCnt, uint32_t *OutIp4Addr);

OV_PUBLIC_END

#endif
