#include "linuxRtcBypassLihua8865Internal.h"

#include "linuxRtcBypassInternal.h"
#include "linuxRtcBypassPortInternal.h"
#include "orvaneLibrtcLog.h"

/* Bits of one 32-bit port. */
struct LINE {
    uint16_t Port;
    uint32_t Bits;
};

/* A pair's when-off state is held by two lines that always take opposite levels. */
struct PAIR {
    uint64_t Mask;
    LINE OffHigh; /* high: bypass when off */
    LINE OffLow;  /* low: bypass when off */
    LINE Runtime; /* high: bypass now */
};

/* In the order of the pair numbers, from 1. */
static constexpr PAIR PAIRS[] = {
    {0x10, {0x538, 0x00200000}, {0x50C, 0x00100000}, {0x50C, 0x00000002}},
    {0x20, {0x538, 0x00800000}, {0x50C, 0x00000004}, {0x538, 0x00000004}},
    {0x40, {0x538, 0x00100000}, {0x538, 0x00400000}, {0x548, 0x00000080}},
};
static constexpr int32_t PAIR_COUNT = 3;

/* Low: a watchdog time-out throws the pairs into bypass; high: it resets the system. */
static constexpr LINE WDTO_RESET = {0x50C, 0x00000040};

/* The GPIO banks: which bits are GPIO, and which of those are inputs. */
struct GPIO_BANK {
    LINE Use;
    LINE Input;
};
static constexpr GPIO_BANK GPIO_BANKS[] = {
    {{0x500, 0x00100046}, {0x504, 0x00100046}},
    {{0x530, 0x00F00004}, {0x534, 0x00F00004}},
    {{0x540, 0x00000080}, {0x544, 0x00000080}},
};

static constexpr int W83627_ENTRY_KEY = 0x87;
static constexpr int W83627_EXIT_KEY = 0xAA;
static constexpr int32_t LDN_GLOBAL = 0;
static constexpr int32_t LDN_WATCHDOG = 8;
static constexpr int32_t REG_PIN_FUNCTION = 0x2D;
static constexpr int PIN_FUNCTION_KEEP = 0xFE; /* bit 0 clear: the pin is WDTO */
static constexpr int32_t REG_ACTIVATE = 0x30;
static constexpr int ACTIVATE = 0x01;
static constexpr int32_t REG_WATCHDOG_CONTROL = 0xF5;
static constexpr int WATCHDOG_CONTROL_KEEP = 0xF7; /* bit 3 clear */
static constexpr int32_t REG_WATCHDOG_COUNTER = 0xF6;
static constexpr int32_t REG_WATCHDOG_STATUS = 0xF7;
static constexpr int WATCHDOG_STATUS_KEEP = 0xEF; /* bit 4: timed out */

static void _SetLine(const LINE &Line)
{
    OV_RTCOutPortl(Line.Port, static_cast<int>(OV_RTCInPortl(Line.Port) | Line.Bits));
}

static void _ClearLine(const LINE &Line)
{
    OV_RTCOutPortl(Line.Port, static_cast<int>(OV_RTCInPortl(Line.Port) & ~Line.Bits));
}

static const PAIR *_PairOfMask(uint64_t Mask)
{
    for (const PAIR &Pair : PAIRS) {
        if (Pair.Mask == Mask) {
            return &Pair;
        }
    }
    return nullptr;
}

void OV_RTCBypass8865EnterW83627Config()
{
    OV_RTCOutPortb(SIO_INDEX_PORT, W83627_ENTRY_KEY);
    OV_RTCOutPortb(SIO_INDEX_PORT, W83627_ENTRY_KEY);
}

void OV_RTCBypass8865ExitW83627Config()
{
    OV_RTCOutPortb(SIO_INDEX_PORT, W83627_EXIT_KEY);
}

static void _EnterDevice(int32_t LDN)
{
    OV_RTCBypass8865EnterW83627Config();
    Write_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, SIO_LOGICAL_DEVICE_SELECT, static_cast<uint8_t>(LDN));
}

uint8_t OV_RTCBypass8865ReadW83627Config(int32_t LDN, int32_t Reg)
{
    _EnterDevice(LDN);
    const uint8_t Value = Read_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, static_cast<uint8_t>(Reg));
    OV_RTCBypass8865ExitW83627Config();
    return Value;
}

void OV_RTCBypass8865WriteW83627Config(int32_t LDN, int32_t Reg, int32_t Value)
{
    _EnterDevice(LDN);
    Write_SIO(SIO_INDEX_PORT, SIO_DATA_PORT, static_cast<uint8_t>(Reg),
              static_cast<uint8_t>(Value));
    OV_RTCBypass8865ExitW83627Config();
}

/* Two complete accesses: the chip is out of configuration mode between them. */
static void _UpdateRegister(int32_t LDN, int32_t Reg, int Keep, int Set)
{
    const int Value = OV_RTCBypass8865ReadW83627Config(LDN, Reg);

    OV_RTCBypass8865WriteW83627Config(LDN, Reg, (Value & Keep) | Set);
}

void OV_RTCBypass8865StartWatchdogTimer(int32_t Watchdog_time)
{
    OV_RTCBypass8865WriteW83627Config(LDN_WATCHDOG, REG_WATCHDOG_COUNTER, 0);
    _UpdateRegister(LDN_WATCHDOG, REG_WATCHDOG_CONTROL, WATCHDOG_CONTROL_KEEP, 0);
    _UpdateRegister(LDN_WATCHDOG, REG_WATCHDOG_STATUS, WATCHDOG_STATUS_KEEP, 0);
    /* The value is of no use; the read belongs to the sequence the board was released with. */
    OV_RTCBypass8865ReadW83627Config(LDN_WATCHDOG, REG_WATCHDOG_STATUS);
    OV_RTCBypass8865WriteW83627Config(LDN_WATCHDOG, REG_WATCHDOG_STATUS, 0);
    OV_RTCBypass8865WriteW83627Config(LDN_WATCHDOG, REG_ACTIVATE, ACTIVATE);
    OV_RTCBypass8865WriteW83627Config(LDN_WATCHDOG, REG_WATCHDOG_COUNTER, Watchdog_time);
}

void OV_RTCBypass8865StopWatchdogTimer()
{
    OV_RTCBypass8865WriteW83627Config(LDN_WATCHDOG, REG_WATCHDOG_COUNTER, 0);
}

int32_t OV_RTCBypass8865WdGpioInit()
{
    _UpdateRegister(LDN_GLOBAL, REG_PIN_FUNCTION, PIN_FUNCTION_KEEP, 0);
    OV_RTCBypass8865WriteW83627Config(LDN_WATCHDOG, REG_WATCHDOG_COUNTER, 0);
    _UpdateRegister(LDN_WATCHDOG, REG_ACTIVATE, 0xFF, ACTIVATE);
    for (const GPIO_BANK &Bank : GPIO_BANKS) {
        _SetLine(Bank.Use);
        _ClearLine(Bank.Input);
    }
    return 0;
}

void OV_RTCBypass8865SetBypassEnableWhenSystemOff(uint64_t Pair_no)
{
    const PAIR *Pair = _PairOfMask(Pair_no);

    if (Pair != nullptr) {
        _SetLine(Pair->OffHigh);
        _ClearLine(Pair->OffLow);
    }
}

void OV_RTCBypass8865SetBypassDisableWhenSystemOff(uint64_t Pair_no)
{
    const PAIR *Pair = _PairOfMask(Pair_no);

    if (Pair != nullptr) {
        _ClearLine(Pair->OffHigh);
        _SetLine(Pair->OffLow);
    }
}

/* A pair in bypass now stays in bypass when the power goes. */
void OV_RTCBypass8865SetRuntimeBypassEnable(uint64_t Pair_no)
{
    const PAIR *Pair = _PairOfMask(Pair_no);

    if (Pair != nullptr) {
        OV_RTCBypass8865SetBypassEnableWhenSystemOff(Pair_no);
        _SetLine(Pair->Runtime);
    }
}

void OV_RTCBypass8865SetRuntimeBypassDisable(uint64_t Pair_no)
{
    const PAIR *Pair = _PairOfMask(Pair_no);

    if (Pair != nullptr) {
        _ClearLine(Pair->Runtime);
    }
}

void OV_RTCBypass8865SetWdtoStateSystemReset()
{
    _SetLine(WDTO_RESET);
}

void OV_RTCBypass8865SetWdtoStateSystemBypass()
{
    _ClearLine(WDTO_RESET);
}

void OV_RTCBypass8865SetBpStatus(int32_t Pair_no, int32_t Bypass)
{
    if (Pair_no < 1 || Pair_no > PAIR_COUNT) {
        OV_LOG_ERROR("8865Bypass: Wrong pair number");
        return;
    }
    const uint64_t Mask = PAIRS[Pair_no - 1].Mask;
    if (Bypass) {
        OV_RTCBypass8865SetRuntimeBypassEnable(Mask);
    } else {
        OV_RTCBypass8865SetRuntimeBypassDisable(Mask);
    }
}

void OV_RTCBypass8865SetPoweroffBpStatus(int32_t Pair_no, int32_t Bypass)
{
    if (Pair_no < 1 || Pair_no > PAIR_COUNT) {
        OV_LOG_ERROR("8865:Wrong pair number");
        return;
    }
    const uint64_t Mask = PAIRS[Pair_no - 1].Mask;
    if (Bypass) {
        OV_RTCBypass8865SetBypassEnableWhenSystemOff(Mask);
    } else {
        OV_RTCBypass8865SetBypassDisableWhenSystemOff(Mask);
    }
}

void OV_RTCBypass8865SetBypass(int32_t Bypass)
{
    for (int32_t Pair = 1; Pair <= PAIR_COUNT; Pair++) {
        OV_RTCBypass8865SetBpStatus(Pair, Bypass);
    }
}

void OV_RTCBypass8865SetPoweroffBp(int32_t Bypass)
{
    for (int32_t Pair = 1; Pair <= PAIR_COUNT; Pair++) {
        OV_RTCBypass8865SetPoweroffBpStatus(Pair, Bypass);
    }
}

/* Whatever is asked for now, a box that loses power passes traffic on. The rights stay raised. */
int OV_RTCLihua8865Bypass(int Enable)
{
    iopl(3);
    OV_RTCBypass8865SetPoweroffBp(1);
    OV_RTCBypass8865SetBypass(Enable);
    return 0;
}

int32_t OV_RTCLihua8865FeedDogInit(const int /*Timeout*/)
{
    iopl(3);
    OV_RTCBypass8865WdGpioInit();
    OV_RTCBypass8865SetWdtoStateSystemBypass();
    OV_LOG_INFO("8865 Feed Dog Init");
    iopl(0);
    return 0;
}

int32_t OV_RTCLihua8865FeedDog(const uint32_t Timeout)
{
    iopl(3);
    OV_RTCBypass8865StartWatchdogTimer(static_cast<int32_t>(Timeout));
    OV_RTCBypass8865SetWdtoStateSystemBypass();
    iopl(0);
    return 0;
}

int32_t OV_RTCLihua8865FeedDogUninit(void)
{
    iopl(3);
    OV_RTCBypass8865StopWatchdogTimer();
    OV_LOG_INFO("8865 Feed Dog uninit");
    iopl(0);
    return 0;
}
