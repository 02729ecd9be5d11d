/* Texts for log lines and command lines: of addresses, and of fields that may lack their NUL. */
#ifndef LINUX_RTC_TEXT_INTERNAL_H
#define LINUX_RTC_TEXT_INTERNAL_H

#include "orvaneSafeStr.h"

#include <arpa/inet.h>
#include <string.h>

struct ADDRESS_TEXT {
    char Text[50];
};

/* Ip in host byte order. */
inline ADDRESS_TEXT _OV_RTCIp4Text(uint32_t Ip)
{
    const OV_IN_ADDR Address = {htonl(Ip)};
    ADDRESS_TEXT Result;

    OV_SafeStrFormatIp4Addr(Result.Text, sizeof(Result.Text), &Address);
    return Result;
}

inline ADDRESS_TEXT _OV_RTCIp6Text(const uint8_t (&Ip)[16])
{
    OV_IN6_ADDR Address;
    ADDRESS_TEXT Result;

    memcpy(&Address, Ip, sizeof(Address));
    OV_SafeStrFormatIp6Addr(Result.Text, sizeof(Result.Text), &Address);
    return Result;
}

/* A field's text with a NUL behind it, where all of the field may be text. */
template <size_t SIZE>
struct FIELD_TEXT {
    char Text[SIZE + 1];

    explicit FIELD_TEXT(const char (&Field)[SIZE])
    {
        memcpy(Text, Field, SIZE);
        Text[SIZE] = '\0';
    }
};

#endif
