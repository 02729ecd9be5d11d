/*
 * QiYang J1900: the relay and the watchdog hang on a Nuvoton NCT6791D. Its GPIO pins stand in
 * groups of 16; a group has its registers in one logical device, but for the output type, which
 * all groups have in device 0x0F.
 *
 * The chip stays in configuration mode from FeedDogInit to FeedDogUninit. A bypass enters and
 * leaves it by itself, and so ends the daemon's period too: that is why the daemon is silenced
 * first.
 */
#include "linuxRtcBypassInternal.h"
#include "linuxRtcBypassPortInternal.h"
#include "orvaneLibrtcLog.h"

static constexpr uint8_t SIO_ENTRY_KEY = 0x87;
static constexpr uint8_t SIO_EXIT_KEY = 0xAA;

static constexpr uint8_t LND_GPIO_WDT = 0x08; /* GPIO group 0 and the watchdog */
static constexpr uint8_t LND_HARDWARE_MONITOR = 0x0B;
static constexpr uint8_t LND_PUSH_PULL = 0x0F; /* output type of every group */

static constexpr uint8_t REG_MULTIFUNCTION_1C = 0x1C; /* global: function of pins 1, 4, 5, 6 */
static constexpr uint8_t REG_ACTIVATE = 0x30;
static constexpr uint8_t REG_BASE_HIGH = 0x60;
static constexpr uint8_t REG_BASE_LOW = 0x61;
static constexpr uint8_t REG_GPIO0_DATA = 0xE1;
static constexpr uint8_t REG_WDT_COUNTER = 0xF6;
static constexpr uint8_t REG_WDT_STATUS = 0xF7;
static constexpr uint8_t WDT_STATUS_TIMED_OUT = 0x10;

/* The hardware monitor's own index and data ports, from its base address on. */
static constexpr int MONITOR_INDEX_OFFSET = 5;
static constexpr int MONITOR_DATA_OFFSET = 6;
static constexpr uint8_t MONITOR_BANK_SELECT = 0x4E;
static constexpr uint8_t MONITOR_BANK = 4;

/* The two pins of group 0 that every watchdog access sets up as outputs; the first is the relay's
 * side. */
static constexpr int PIN_FIRST = 1;
static constexpr int PIN_SECOND = 5;
static constexpr int PINS_PER_GROUP = 16;

/* Bits of the data register of group 0. */
static constexpr uint8_t RELAY_KEEP = 0xF1;
static constexpr uint8_t RELAY_NO_BYPASS = 0x02; /* the side: clear is bypass */
static constexpr uint8_t RELAY_COIL = 0x04;
static constexpr uint8_t RELAY_REST = 0xF3;
static constexpr int RELAY_PULSE_MS = 1000;

/* Indexed by the GPIO group. */
static constexpr int GPIO_GROUP_COUNT = 9;
static constexpr uint8_t NCT6791D_GPIO_LND[GPIO_GROUP_COUNT] = {0x08, 0x08, 0x09, 0x09, 0x09,
                                                                0x09, 0x07, 0x07, 0x07};
static constexpr uint8_t NCT6791D_GPIO_EN_BIT[GPIO_GROUP_COUNT] = {1, 7, 0, 1, 2, 3, 0, 1, 2};
static constexpr uint8_t NCT6791D_GPIO_OUTPUT_EN_REG[GPIO_GROUP_COUNT] = {
    0xE0, 0xF0, 0xE0, 0xE4, 0xF0, 0xF4, 0xF4, 0xE0, 0xE4};
static constexpr uint8_t NCT6791D_GPIO_MULTIFUNC_REG[GPIO_GROUP_COUNT] = {
    0xE4, 0xF4, 0xE9, 0xEA, 0xEE, 0xEB, 0xF8, 0xEC, 0xED};
static constexpr uint8_t NCT6791D_GPIO_PUSH_PULL_OD_REG[GPIO_GROUP_COUNT] = {
    0xE9, 0xE0, 0xE1, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7};

/* The bits to program: plain GPIO and push-pull everywhere. */
static constexpr uint8_t NCT6791D_GPIO_MULTIFUNC_VALUE[GPIO_GROUP_COUNT] = {};
static constexpr uint8_t NCT6791D_GPIO_PUSH_PULL_OD_VALUE[GPIO_GROUP_COUNT] = {};

static void NCT6791D_Enter_SIO(int port)
{
    OV_RTCOutPortb(port, SIO_ENTRY_KEY);
    OV_RTCDelay(1);
    OV_RTCOutPortb(port, SIO_ENTRY_KEY);
}

static void NCT6791D_Exit_SIO(int port)
{
    OV_RTCOutPortb(port, SIO_EXIT_KEY);
}

static void _SelectDevice(uint8_t Device)
{
    Write_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, SIO_LOGICAL_DEVICE_SELECT, Device);
}

/* Reads or writes a register of the device that is selected, or a global one. */
static void NCT6791D_GPIO_get_configure(bool write, uint8_t reg, uint8_t *value)
{
    if (write) {
        Write_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, reg, *value);
    } else {
        *value = Read_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, reg);
    }
}

static void NCT6791D_GPIO_get_data(bool write, uint8_t reg, uint8_t *value, int group)
{
    _SelectDevice(NCT6791D_GPIO_LND[group]);
    NCT6791D_GPIO_get_configure(write, reg, value);
}

static void NCT6791D_WDT_get_data(bool write, uint8_t reg, uint8_t *value)
{
    _SelectDevice(LND_GPIO_WDT);
    Write_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, REG_ACTIVATE, 1);
    NCT6791D_GPIO_get_configure(write, reg, value);
}

static uint8_t _Replaced(uint8_t Value, uint8_t Mask, uint8_t Bits)
{
    return static_cast<uint8_t>((Value & ~Mask) | (Bits & Mask));
}

/* Replaces the bits of Mask in a register of the selected device, or in a global one. */
static void _UpdateSelected(uint8_t Register, uint8_t Mask, uint8_t Bits)
{
    uint8_t Value;

    NCT6791D_GPIO_get_configure(false, Register, &Value);
    Value = _Replaced(Value, Mask, Bits);
    NCT6791D_GPIO_get_configure(true, Register, &Value);
}

/* The same in a register of the group's device, which stays selected from the read to the write. */
static void _UpdateGroup(int Group, uint8_t Register, uint8_t Mask, uint8_t Bits)
{
    uint8_t Value;

    NCT6791D_GPIO_get_data(false, Register, &Value, Group);
    Value = _Replaced(Value, Mask, Bits);
    NCT6791D_GPIO_get_configure(true, Register, &Value);
}

static uint8_t _BitMask(int Bit)
{
    return static_cast<uint8_t>(1U << Bit);
}

/* Gives the pin its GPIO function. The pins that the appliance uses, and their neighbours, have
 * their bit in global register 0x1C; the board leaves every other pin as the firmware set it. */
static void NCT6791D_GPIO_switch_default_function(int pin)
{
    switch (pin) {
    case 1:
        _UpdateSelected(REG_MULTIFUNCTION_1C, _BitMask(pin), _BitMask(pin));
        break;
    case 4:
    case 5:
    case 6:
        _UpdateSelected(REG_MULTIFUNCTION_1C, _BitMask(pin + 1), _BitMask(pin + 1));
        break;
    default:
        break;
    }
}

static void NCT6791D_GPIO_set_enable(int group)
{
    const uint8_t Mask = _BitMask(NCT6791D_GPIO_EN_BIT[group]);

    _UpdateGroup(group, REG_ACTIVATE, Mask, Mask);
}

/* The value's table is asked by the pin's bit where the register's is asked by the group: the
 * values are all zero, and the programmed sequence is the one the board was released with. */
static void NCT6791D_GPIO_set_push_pull_mode_function(int bit, int group)
{
    const uint8_t Value =
        bit < GPIO_GROUP_COUNT ? NCT6791D_GPIO_PUSH_PULL_OD_VALUE[bit] : uint8_t{0};

    _SelectDevice(LND_PUSH_PULL);
    _UpdateSelected(NCT6791D_GPIO_PUSH_PULL_OD_REG[group], _BitMask(bit), Value);
}

/* Makes the pin an output. */
static void NCT6791D_GPIO_set_IO(int bit, int group)
{
    _UpdateGroup(group, NCT6791D_GPIO_OUTPUT_EN_REG[group], _BitMask(bit), 0);
}

static void NCT6791D_GPIO_set_multifunction(int pin)
{
    const int Group = pin / PINS_PER_GROUP;
    const int Bit = pin % PINS_PER_GROUP;

    NCT6791D_GPIO_switch_default_function(pin);
    NCT6791D_GPIO_set_enable(Group);
    _UpdateGroup(Group, NCT6791D_GPIO_MULTIFUNC_REG[Group], _BitMask(Bit),
                 NCT6791D_GPIO_MULTIFUNC_VALUE[Group]);
    NCT6791D_GPIO_set_push_pull_mode_function(Bit, Group);
    NCT6791D_GPIO_set_IO(Bit, Group);
}

/* Loads the counter; 0 stops it. The firmware chose seconds or minutes. */
static void NCT6791D_WDT_set_time(uint8_t value)
{
    NCT6791D_WDT_get_data(true, REG_WDT_COUNTER, &value);
    NCT6791D_GPIO_set_multifunction(PIN_FIRST);
    NCT6791D_GPIO_set_multifunction(PIN_SECOND);
}

static void NCT6791D_WDT_reset()
{
    uint8_t Status;

    NCT6791D_WDT_get_data(false, REG_WDT_STATUS, &Status);
    Status = static_cast<uint8_t>(Status & ~WDT_STATUS_TIMED_OUT);
    NCT6791D_WDT_get_data(true, REG_WDT_STATUS, &Status);
    NCT6791D_GPIO_set_multifunction(PIN_FIRST);
    NCT6791D_GPIO_set_multifunction(PIN_SECOND);
}

/* Ports and configuration mode, and bank 4 of the hardware monitor. Refused rights show at the
 * first access, which ends the process. */
static void _OV_RTCQiYangJ1900BypassInit()
{
    iopl(3);
    NCT6791D_Enter_SIO(SIO_INDEX_PORT);
    _SelectDevice(LND_HARDWARE_MONITOR);
    Write_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, REG_ACTIVATE, 1);

    const int High = Read_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, REG_BASE_HIGH);
    const int Low = Read_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, REG_BASE_LOW);
    const int Base = High << 8 | Low;
    Write_SIO(Base + MONITOR_INDEX_OFFSET, Base + MONITOR_DATA_OFFSET, MONITOR_BANK_SELECT,
              MONITOR_BANK);
}

static void _OV_RTCQiYangJ1900BypassUninit()
{
    NCT6791D_Exit_SIO(SIO_INDEX_PORT);
}

/* One bit says which side, a pulse on the other moves the relay. */
static void _MoveRelay(uint8_t Side)
{
    OV_RTCOutPortb(SIO_INDEX_PORT, REG_GPIO0_DATA);
    const int Before = OV_RTCInPortb(SIO_DATA_PORT);
    /* The register stays selected for the write. */
    OV_RTCOutPortb(SIO_DATA_PORT, (Before & RELAY_KEEP) | RELAY_COIL | Side);
    OV_RTCDelay(RELAY_PULSE_MS);
    OV_RTCOutPortb(SIO_INDEX_PORT, REG_GPIO0_DATA);
    const int Pulsed = OV_RTCInPortb(SIO_DATA_PORT);
    OV_RTCOutPortb(SIO_DATA_PORT, Pulsed & RELAY_REST);
}

int OV_RTCQiYangJ1900Bypass(int Enable)
{
    _OV_RTCQiYangJ1900BypassInit();
    NCT6791D_WDT_set_time(0);
    NCT6791D_WDT_reset();

    /* The reset left the device of GPIO group 0 selected. */
    if (Enable == 0) {
        _MoveRelay(RELAY_NO_BYPASS);
    } else if (Enable == 1) {
        _MoveRelay(0);
    }

    /* A process must not keep the rights it raised: this goes on until they are given up, or a
     * signal ends the process and the rights with it. */
    for (;;) {
        _OV_RTCQiYangJ1900BypassUninit();
        const int Result = iopl(0);
        if (Result == 0) {
            return Result;
        }
        OV_LOG_ERROR("Hard Bypass error(ret: %d)", Result);
        SEQUENCE_SCOPE::LetSignalsAct();
    }
}

int32_t OV_RTCQiYangJ1900FeedDogInit(const int /*Timeout*/)
{
    _OV_RTCQiYangJ1900BypassInit();
    return 0;
}

int32_t OV_RTCQiYangJ1900FeedDog(const uint32_t Timeout)
{
    NCT6791D_WDT_set_time(static_cast<uint8_t>(Timeout));
    if (Timeout == 0) {
        NCT6791D_WDT_reset();
    }
    return 0;
}

int32_t OV_RTCQiYangJ1900FeedDogUninit(void)
{
    _OV_RTCQiYangJ1900BypassUninit();
    return 0;
}
