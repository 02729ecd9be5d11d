/*
 * Port access of the board drivers. The pausing primitives follow each access with a write to port
 * 0x80, which gives an old bus device the time it needs before the next one. Each needs port
 * rights: without them the access ends the process.
 *
 * An indexed (Super I/O) chip is reached through a pair of ports: the register's number goes to
 * the index port, its value through the data port.
 */
#ifndef LINUX_RTC_BYPASS_PORT_INTERNAL_H
#define LINUX_RTC_BYPASS_PORT_INTERNAL_H

#include <errno.h>
#include <stdint.h>
#include <sys/io.h>
#include <time.h>
#include <unistd.h>

constexpr int SIO_INDEX_PORT = 0x2E;
constexpr int SIO_DATA_PORT = 0x2F;
constexpr uint8_t SIO_LOGICAL_DEVICE_SELECT = 0x07;

static inline void OV_RTCOutPortb(int port, int value)
{
    outb_p(static_cast<uint8_t>(value), static_cast<uint16_t>(port));
}

static inline uint8_t OV_RTCInPortb(int port)
{
    return inb_p(static_cast<uint16_t>(port));
}

static inline void OV_RTCOutPortl(int port, int value)
{
    outl_p(static_cast<uint32_t>(value), static_cast<uint16_t>(port));
}

static inline uint32_t OV_RTCInPortl(int port)
{
    return inl_p(static_cast<uint16_t>(port));
}

static inline int64_t _MicroSeconds()
{
    struct timespec Now;

    clock_gettime(CLOCK_MONOTONIC, &Now);
    return int64_t{Now.tv_sec} * 1000000 + Now.tv_nsec / 1000;
}

/* What the hardware is given to move is never less: a handler's signal ends the sleep, not the
 * pause. */
static inline void OV_RTCDelay(int ms)
{
    const useconds_t Whole = static_cast<useconds_t>(ms) * 1000;
    const int64_t End = _MicroSeconds() + Whole;

    for (int64_t Left = Whole; usleep(static_cast<useconds_t>(Left)) != 0 && errno == EINTR;) {
        Left = End - _MicroSeconds();
        if (Left <= 0) {
            return;
        }
    }
}

static inline void Write_SIO(int index, int data, uint8_t reg, uint8_t value)
{
    OV_RTCOutPortb(index, reg);
    OV_RTCOutPortb(data, value);
}

static inline uint8_t Read_SIO(int index, int data, uint8_t reg)
{
    OV_RTCOutPortb(index, reg);
    return OV_RTCInPortb(data);
}

#endif
