/*
 * Bounded strings: the one vocabulary for writing into fixed-size character buffers and for
 * reading tokens, numbers and network addresses out of text. Pure functions: no state, no log, any
 * thread.
 *
 * Writers: CharCnt is the size of the buffer in characters, its NUL included. The output always
 * ends in a NUL when CharCnt is not 0, and a cut output is reported by the result CharCnt, so
 * that "result >= size" is the one test for truncation.
 *
 * Readers: the result is the position just after what was read and the white space behind it
 * (blank, tab, newline, vertical tab, form feed, carriage return), or null when nothing valid
 * stood there, so that reads can be chained over a line. The address readers take the text by its
 * count: it needs no NUL, and except where one says otherwise nothing at or past the count is
 * looked at. They skip white space in front, and what follows the address is the caller's.
 */
#ifndef ORVANE_SAFE_STR_H
#define ORVANE_SAFE_STR_H

#include "orvaneInetTypes.h"
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

/* Reads a dotted IPv4 address into host byte order, first part most significant. Leading zeros are
 * accepted. On failure the output is 0. */
char *OV_SafeStrGetIp4Addr(const char *SrcStr, size_t CharCnt, uint32_t *OutIp4Addr);

/* Read a decimal port (at most 65535) or prefix length (at most 32). On failure the output is 0. */
char *OV_SafeStrGetPort(const char *SrcStr, size_t CharCnt, uint16_t *OutPort);
char *OV_SafeStrGetMask(const char *SrcStr, size_t CharCnt, uint8_t *OutMask);

/* Reads an IPv4 address (host byte order) and a port, with Delimiter between them, or with only
 * white space when Delimiter is 0; white space itself cannot be the Delimiter. On failure both
 * outputs are 0. */
char *OV_SafeStrGetIp4AddrPort(const char *SrcStr, size_t CharCnt, char Delimiter,
                               uint32_t *OutIp4Addr, uint16_t *OutPort);

/* Reads "a.b.c.d/length" (host byte order). On failure both outputs are 0. An address without the
 * slash (and 9 characters or more) gives address 0, length 32 and the position one past the next
 * character: address 0 with a position means that no prefix was given. This looks at the character
 * at the count, so SrcStr must have one there (its NUL). */
char *OV_SafeStrGetIp4AddrMask(const char *SrcStr, size_t CharCnt, uint32_t *OutIp4Addr,
                               uint8_t *OutMask);

/* Writes "a.b.c.d": at most 16 characters with the NUL. The result is that of OV_SNPrintf. */
size_t OV_SafeStrFormatIp4Addr(char *OutStr, size_t CharCnt, const OV_IN_ADDR *Ip4Addr);

/* Reads an IPv6 address, with "::" and a dotted IPv4 tail where they may stand. On failure the
 * output is untouched. Where a dotted tail cannot be read, the digits before its first dot are the
 * last group and the position is at that dot. */
char *OV_SafeStrGetIp6Addr(const char *SrcStr, size_t CharCnt, OV_IN6_ADDR *OutIp6Addr);

/* Writes an IPv6 address: at most 46 characters with the NUL. Lower case, the leftmost of the
 * longest runs of two or more zero groups as "::", IPv4-mapped and IPv4-compatible addresses with a
 * dotted tail. The result is that of OV_SNPrintf. */
size_t OV_SafeStrFormatIp6Addr(char *OutStr, size_t CharCnt, const OV_IN6_ADDR *Ip6Addr);

/* The same for an address of the given family, in network byte order. The reader writes the first 4
 * bytes of the output (IPv4) or all of it (IPv6), and nothing on failure. Another type gives null
 * and 0, and nothing is written. */
char *OV_SafeStrGetIpAddr(const char *SrcStr, size_t CharCnt, OV_IN_ADDR_TYPE AddrType,
                          OV_INET_ADDR *OutIpAddr);
size_t OV_SafeStrFormatIpAddr(char *OutStr, size_t CharCnt, OV_IN_ADDR_TYPE AddrType,
                              const OV_INET_ADDR *IpAddr);

/* Writes the address as its AddrType says, any type but IPv4 as IPv6, and cuts it silently at
 * BufferSize (with the NUL). Returns Buffer; a BufferSize of 0 or less leaves it untouched. */
char *OV_SafeStrFormatIpTypeAddr(char *Buffer, int32_t BufferSize, const OV_IP_TYPE_ADDR *Ip);

/* Reads an address of either family: IPv6 if there is a colon in the IpStrLen characters. What
 * follows the address does not matter. Returns TRUE, or FALSE
 * with *Ip all zero when there is no address or only the unspecified one (0.0.0.0 or ::). */
BOOL OV_SafeStrGetIpTypeAddr(const char *IpStr, size_t IpStrLen, OV_IP_TYPE_ADDR *Ip);

/* Reads an Ethernet address of six groups, one or two digits each, two in the last; an empty group
 * is 00. Only colons separate them, and a text of less than 17 characters is none. On failure the
 * output is untouched. */
char *OV_SafeStrGetEthAddr(const char *SrcStr, size_t CharCnt, OV_ETH_ADDR *OutEthAddr);

OV_PUBLIC_END

#endif
