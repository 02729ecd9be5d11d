/*
 * Huier J1900 and H61: the relays hang on GPIO bits behind fixed ports; both boards have the same
 * watchdog in a Super I/O chip. These chips need no pause between accesses.
 */
#include "linuxRtcBypassInternal.h"
#include "linuxRtcBypassPortInternal.h"
#include "orvaneLibrtcLog.h"

#include <errno.h>
#include <span>

/* One step of a relay sequence: what is read from one port goes, changed, to another or the same.
 */
struct PORT_STEP {
    uint16_t From;
    uint16_t To;
    uint8_t Keep; /* AND */
    uint8_t Set;  /* OR */
};

static constexpr PORT_STEP _SetBits(uint16_t Port, uint8_t Bits)
{
    return {Port, Port, 0xFF, Bits};
}

static constexpr PORT_STEP _ClearBits(uint16_t Port, uint8_t Bits)
{
    return {Port, Port, static_cast<uint8_t>(~Bits), 0x00};
}

static constexpr PORT_STEP J1900_BYPASS[] = {
    _ClearBits(0x0A07, 0x10),
    _ClearBits(0x0A07, 0x20),
};
static constexpr PORT_STEP J1900_NO_BYPASS[] = {
    _SetBits(0x0A07, 0x10),
    _SetBits(0x0A07, 0x20),
};

/* The fifth step of H61_BYPASS crosses from one port to the next. The board was released with the
 * sequence so: the last step then finds there the bits of 0x0545. */
static constexpr PORT_STEP H61_BYPASS[] = {
    _SetBits(0x0533, 0x02), _ClearBits(0x0537, 0x02),     _ClearBits(0x053B, 0x02),
    _SetBits(0x0541, 0x01), {0x0545, 0x0549, 0xFE, 0x00}, _ClearBits(0x0549, 0x01),
};
static constexpr PORT_STEP H61_NO_BYPASS[] = {
    _SetBits(0x0533, 0x02), _ClearBits(0x0537, 0x02), _SetBits(0x053B, 0x02),
    _SetBits(0x0541, 0x01), _ClearBits(0x0545, 0x01), _SetBits(0x0549, 0x01),
};

static constexpr uint8_t CONFIG_ENTRY_KEY[] = {0x87, 0x01, 0x55, 0x55};
static constexpr uint8_t REG_CONFIG_CONTROL = 0x02;
static constexpr uint8_t CONFIG_EXIT = 0x02;
static constexpr uint8_t LND_WATCHDOG = 0x07;
static constexpr uint8_t REG_WATCHDOG_CONTROL = 0x71;
static constexpr uint8_t REG_WATCHDOG_CONFIG = 0x72;
static constexpr uint8_t REG_TIMEOUT_LOW = 0x73;
static constexpr uint8_t REG_TIMEOUT_HIGH = 0x74;
static constexpr uint8_t WATCHDOG_CONFIG = 0x80;

/* ioperm's ports: 0 to 1022. */
static constexpr unsigned long RIGHTS_PORT_COUNT = 1023;

/* Returns the operation's result; *Rights is what iopl said last. */
static int _SwitchRelay(std::span<const PORT_STEP> Steps, int *Rights)
{
    *Rights = iopl(3);
    if (*Rights != 0) {
        return -1;
    }
    for (const PORT_STEP &Step : Steps) {
        outb(static_cast<uint8_t>((inb(Step.From) & Step.Keep) | Step.Set), Step.To);
    }
    *Rights = iopl(0);
    return *Rights == 0 ? 0 : -ENOENT;
}

int OV_RTCHuierJ1900Bypass(int Enable)
{
    int Rights;

    const int Result = _SwitchRelay(Enable ? J1900_BYPASS : J1900_NO_BYPASS, &Rights);
    if (Result < 0) {
        OV_LOG_ERROR("Hard Bypass error(ret: %d)", Rights);
    }
    return Result;
}

int OV_RTCHuierH61Bypass(int Enable)
{
    int Rights;

    const int Result = _SwitchRelay(Enable ? H61_BYPASS : H61_NO_BYPASS, &Rights);
    if (Result < 0) {
        OV_LOG_ERROR("Hard Bypass error(ret: %d)", Rights);
    }
    return Result;
}

static void _WriteRegister(uint8_t Register, uint8_t Value)
{
    outb(Register, SIO_INDEX_PORT);
    outb(Value, SIO_DATA_PORT);
}

/* Enters configuration mode with the watchdog's logical device selected. */
static void _EnterWatchdog()
{
    for (const uint8_t Key : CONFIG_ENTRY_KEY) {
        outb(Key, SIO_INDEX_PORT);
    }
    _WriteRegister(SIO_LOGICAL_DEVICE_SELECT, LND_WATCHDOG);
}

static void _LeaveWatchdog()
{
    _WriteRegister(REG_CONFIG_CONTROL, CONFIG_EXIT);
}

int32_t OV_RTCHuierFeedDogInit(const int Timeout)
{
    if (ioperm(0, RIGHTS_PORT_COUNT, 1) != 0) {
        const int Raised = iopl(3);
        if (Raised != 0) {
            OV_LOG_ERROR("watchdog init error(ret: %d)", Raised);
            return -1;
        }
    }
    if (Timeout == 0) {
        return 0;
    }
    _EnterWatchdog();
    _WriteRegister(REG_WATCHDOG_CONFIG, WATCHDOG_CONFIG);
    _WriteRegister(REG_TIMEOUT_LOW, static_cast<uint8_t>(Timeout));
    _LeaveWatchdog();
    return 0;
}

static void _RTCHuierFeedDog(uint32_t Timeout)
{
    _EnterWatchdog();
    _WriteRegister(REG_TIMEOUT_LOW, static_cast<uint8_t>(Timeout));
    _WriteRegister(REG_TIMEOUT_HIGH, 0x00);
    _LeaveWatchdog();
}

static void _RTCHuierWatchdogDisable()
{
    _EnterWatchdog();
    _WriteRegister(REG_WATCHDOG_CONTROL, 0x00);
    _WriteRegister(REG_TIMEOUT_LOW, 0x00);
    _WriteRegister(REG_TIMEOUT_HIGH, 0x00);
    _LeaveWatchdog();
}

int32_t OV_RTCHuierFeedDog(const uint32_t Timeout)
{
    if (Timeout != 0) {
        _RTCHuierFeedDog(Timeout);
    } else {
        _RTCHuierWatchdogDisable();
    }
    return 0;
}

/* An armed watchdog goes on, so that a daemon that ends for whatever reason does not leave the
 * appliance unguarded. */
int32_t OV_RTCHuierFeedDogUninit(void)
{
    return 0;
}
