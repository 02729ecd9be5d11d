/*
 * The drivers on the simulated board, access for access: a wrong mask, order, port or pause leaves
 * an appliance cut off. The expected texts are written by hand from the boards' sequences.
 *
 * How an access reads:  2E<87 a byte written   A07>3C a byte read   538<00400000 32 bits
 *                       [F6]<2C register F6 through index 2E and data 2F
 *                       p behind an access: the pausing write to port 80 follows it
 *                       ! behind iopl and ioperm: refused
 */
#include "boardModel.h"
#include "boardTrap.h"
#include "linuxRtcBypassInternal.h"
#include "linuxRtcBypassLihua8865Internal.h"
#include "orvaneSafeStr.h"
#include "testSupport.h"

#include <errno.h>
#include <sys/io.h>

static const char *const BOARD_PATH = "/tmp/board";

static std::string Hex(uint32_t Value, int Digits)
{
    char Text[16];

    OV_SNPrintf(Text, sizeof(Text), "%0*X", Digits, Value);
    return Text;
}

static bool IsIn(const BOARD_ACCESS &Entry)
{
    return Entry.Kind == BOARD_IN8 || Entry.Kind == BOARD_IN32;
}

/* One access beginning at Index, which moves past it. */
static std::string AccessText(const std::vector<BOARD_ACCESS> &Trace, size_t &Index)
{
    const auto PortIs = [&](uint32_t Port) {
        return Index < Trace.size() && Trace[Index].Kind <= BOARD_OUT32 &&
               Trace[Index].Port == Port;
    };
    const auto Change =
        [&](const BOARD_ACCESS &Entry) { /* what follows the place */
                                         const bool Paused = PortIs(0x80);
                                         Index += Paused ? 1 : 0;
                                         return (IsIn(Entry) ? ">" : "<") +
                                                Hex(Entry.Value,
                                                    2 * static_cast<int>(Entry.Count)) +
                                                (Paused ? "p" : "");
        };
    const BOARD_ACCESS &Entry = Trace[Index++];
    const std::string Refused = Entry.Result < 0 ? "!" : "";
    if (Entry.Kind == BOARD_IOPL) {
        return "iopl" + std::to_string(Entry.Value) + Refused;
    }
    if (Entry.Kind == BOARD_IOPERM) {
        return "ioperm" + Hex(Entry.Port, 1) + "+" + std::to_string(Entry.Count) + Refused;
    }
    std::string Alone = Hex(Entry.Port, 1) + Change(Entry);
    if (Entry.Port != 0x2E || !PortIs(0x2F)) {
        return Alone;
    }
    std::string Access = "[" + Hex(Entry.Value, 2) + "]" + Change(Trace[Index++]);
    EXPECT_EQ(Alone.ends_with("p"), Access.ends_with("p"));
    return Access;
}

class BoardDriver : public testing::Test {
  protected:
    void SetUp() override
    {
        RecordLog();
    }
    void TearDown() override
    {
        BoardDetach();
    }
    void Use(const char *ProductName)
    {
        BoardDetach();
        ASSERT_EQ(BoardFileCreate(BOARD_PATH, ProductName), 0);
        ASSERT_EQ(BoardAttach(BOARD_PATH), 0);
        Board = BoardAttached();
    }

    /* What was accessed since the last call, one blank between accesses. */
    std::string TakeTrace()
    {
        std::vector<BOARD_ACCESS> Accesses;
        std::string Result;

        for (uint32_t Index = 0; Index < Board->TraceCount; Index++) {
            const BOARD_ACCESS &Entry = Board->Trace[Index];
            EXPECT_NE(Entry.Kind, BOARD_FAULT) << Entry.Note;
            if (Entry.Kind < BOARD_SIGNAL) {
                Accesses.push_back(Entry);
            }
        }
        for (size_t Index = 0; Index < Accesses.size();) {
            Result += (Result.empty() ? "" : " ") + AccessText(Accesses, Index);
        }
        BoardClearTrace(Board);
        return Result;
    }

    BOARD_STATE *Board = nullptr;
};

/* One operation, which returns 0, on the board as the one before it left it. */
struct STEP {
    std::function<int()> Operation;
    std::string Trace;
    BOARD_RELAY Relay;
    uint32_t WatchdogSeconds;
};

template <typename... PARAMETERS>
static std::function<int()> Do(int (*Operation)(PARAMETERS...), PARAMETERS... Arguments)
{
    return [=] { return Operation(Arguments...); };
}

static void Walk(const std::vector<STEP> &Steps, BOARD_STATE *Board,
                 const std::function<std::string()> &TakeTrace)
{
    for (const STEP &Step : Steps) {
        EXPECT_EQ(Step.Operation(), 0);
        EXPECT_EQ(TakeTrace(), Step.Trace);
        for (unsigned Pair = 1; Pair <= BoardRelayCount(Board); Pair++) {
            EXPECT_EQ(BoardRelay(Board, Pair), Step.Relay) << "pair " << Pair;
        }
        EXPECT_EQ(BoardWatchdogRemaining(Board), Step.WatchdogSeconds);
    }
}

TEST_F(BoardDriver, QiYangJ1900)
{
    static const std::string ENTER =
        "iopl3 2E<87p 2E<87p [07]<0Bp [30]<01p [60]>02p [61]>90p 295<4Ep 296<04p";
    /* Pins 1 and 5: as the firmware left them, and once they are set up. */
    static const std::string PINS_FIRST =
        " [1C]>10p [1C]<12p [07]<08p [30]>01p [30]<03p [07]<08p [E4]>FFp [E4]<FDp"
        " [07]<0Fp [E9]>FFp [E9]<FDp [07]<08p [E0]>F9p [E0]<F9p"
        " [1C]>12p [1C]<52p [07]<08p [30]>03p [30]<03p [07]<08p [E4]>FDp [E4]<DDp"
        " [07]<0Fp [E9]>FDp [E9]<DDp [07]<08p [E0]>F9p [E0]<D9p";
    static const std::string PINS =
        " [1C]>52p [1C]<52p [07]<08p [30]>01p [30]<03p [07]<08p [E4]>DDp [E4]<DDp"
        " [07]<0Fp [E9]>DDp [E9]<DDp [07]<08p [E0]>D9p [E0]<D9p"
        " [1C]>52p [1C]<52p [07]<08p [30]>03p [30]<03p [07]<08p [E4]>DDp [E4]<DDp"
        " [07]<0Fp [E9]>DDp [E9]<DDp [07]<08p [E0]>D9p [E0]<D9p";
    static const std::string STOP = " [07]<08p [30]<01p [F6]<00p";
    static const std::string RESET =
        " [07]<08p [30]<01p [F7]>00p [07]<08p [30]<01p [F7]<00p" + PINS;
    static const std::string FIRST_RESET =
        " [07]<08p [30]<01p [F7]>10p [07]<08p [30]<01p [F7]<00p" + PINS;
    static const std::string LEAVE = " 2E<AAp iopl0";

    Use("Aptio CRB");
    EXPECT_EQ(OV_RTCQiYangJ1900FeedDogInit(30), 0);
    const BOARD_ACCESS *Keys = Board->Trace + 1; /* behind iopl: key, pause, key */
    EXPECT_GE(Keys[2].MilliSeconds - Keys[0].MilliSeconds, 1);

    Use("Aptio CRB");
    Board->SuperIo.Device[0x08][0xE1] = 0xAA;
    Walk({{Do(OV_RTCQiYangJ1900Bypass, 1),
           ENTER + STOP + PINS_FIRST + FIRST_RESET + " [E1]>AAp 2F<A4p [E1]>A4p 2F<A0p" + LEAVE,
           RELAY_BYPASS, 0},
          {Do(OV_RTCQiYangJ1900Bypass, 2), ENTER + STOP + PINS + RESET + LEAVE, RELAY_BYPASS, 0},
          {Do(OV_RTCQiYangJ1900Bypass, 0),
           ENTER + STOP + PINS + RESET + " [E1]>A0p 2F<A6p [E1]>A6p 2F<A2p" + LEAVE,
           RELAY_NO_BYPASS, 0},
          {Do(OV_RTCQiYangJ1900FeedDogInit, 30), ENTER, RELAY_NO_BYPASS, 0},
          {Do(OV_RTCQiYangJ1900FeedDog, 5U), "[07]<08p [30]<01p [F6]<05p" + PINS, RELAY_NO_BYPASS,
           5},
          {Do(OV_RTCQiYangJ1900FeedDog, 300U), "[07]<08p [30]<01p [F6]<2Cp" + PINS, RELAY_NO_BYPASS,
           44},
          {Do(OV_RTCQiYangJ1900FeedDog, 0U), STOP.substr(1) + PINS + RESET, RELAY_NO_BYPASS, 0},
          {Do(OV_RTCQiYangJ1900FeedDogUninit), "2E<AAp", RELAY_NO_BYPASS, 0}},
         Board, [this] { return TakeTrace(); });
    EXPECT_EQ(Board->FaultCount, 0U); /* a pulse shorter than a second would be one */
}

static const std::string HUIER_ENTER = "2E<87 2E<01 2E<55 2E<55 [07]<07 ";

TEST_F(BoardDriver, HuierJ1900AndTheSharedWatchdog)
{
    Use("B1904");
    Walk({{Do(OV_RTCHuierJ1900Bypass, 5), "iopl3 A07>3C A07<2C A07>2C A07<0C iopl0", RELAY_BYPASS,
           0},
          {Do(OV_RTCHuierJ1900Bypass, 0), "iopl3 A07>0C A07<1C A07>1C A07<3C iopl0",
           RELAY_NO_BYPASS, 0},
          {Do(OV_RTCHuierFeedDogInit, 0), "ioperm0+1023", RELAY_NO_BYPASS, 0},
          {Do(OV_RTCHuierFeedDogInit, 30),
           "ioperm0+1023 " + HUIER_ENTER + "[72]<80 [73]<1E [02]<02", RELAY_NO_BYPASS, 30},
          {Do(OV_RTCHuierFeedDog, 5U), HUIER_ENTER + "[73]<05 [74]<00 [02]<02", RELAY_NO_BYPASS, 5},
          {Do(OV_RTCHuierFeedDog, 300U), HUIER_ENTER + "[73]<2C [74]<00 [02]<02", RELAY_NO_BYPASS,
           44},
          {Do(OV_RTCHuierFeedDogUninit), "", RELAY_NO_BYPASS, 44},
          {Do(OV_RTCHuierFeedDog, 0U), HUIER_ENTER + "[71]<00 [73]<00 [74]<00 [02]<02",
           RELAY_NO_BYPASS, 0}},
         Board, [this] { return TakeTrace(); });
}

TEST_F(BoardDriver, HuierH61)
{
    Use("IEC-810N4SC");
    Walk({{Do(OV_RTCHuierH61Bypass, 1),
           "iopl3 533>41 533<43 537>82 537<80 53B>42 53B<40 541>10 541<11 545>30 549<30 549>30 "
           "549<30 iopl0",
           RELAY_BYPASS, 0},
          {[this] {
               Board->Ports[0x545] = 0x31; /* so that the clearing shows */
               return OV_RTCHuierH61Bypass(0);
           },
           "iopl3 533>43 533<43 537>80 537<80 53B>40 53B<42 541>11 541<11 545>31 545<30 549>30 "
           "549<31 iopl0",
           RELAY_NO_BYPASS, 0},
          {[this] {
               Board->Ports[0x545] = 0xC1;
               return OV_RTCHuierH61Bypass(1);
           },
           "iopl3 533>43 533<43 537>80 537<80 53B>42 53B<40 541>11 541<11 545>C1 549<C0 549>C0 "
           "549<C0 iopl0",
           RELAY_UNDEFINED, 0}},
         Board, [this] { return TakeTrace(); });
}

/* One complete access to a register of the W83627. */
static std::string Config(const char *Access, const char *Device = "08")
{
    return std::string(" 2E<87p 2E<87p [07]<") + Device + "p " + Access + "p 2E<AAp";
}

TEST_F(BoardDriver, Lihua8865)
{
    static const std::string START_WITHOUT_COUNT =
        "iopl3" + Config("[F6]<00") + Config("[F5]>0C") + Config("[F5]<04") + Config("[F7]>FF") +
        Config("[F7]<EF") + Config("[F7]>EF") + Config("[F7]<00") + Config("[30]<01");
    static const std::string RESTART_WITHOUT_COUNT =
        "iopl3" + Config("[F6]<00") + Config("[F5]>04") + Config("[F5]<04") + Config("[F7]>00") +
        Config("[F7]<00") + Config("[F7]>00") + Config("[F7]<00") + Config("[30]<01");

    Use("CARLOW");
    Walk({{Do(OV_RTCLihua8865Bypass, 1),
           "iopl3"
           " 538>00400000p 538<00600000p 50C>00100045p 50C<00000045p"
           " 538>00600000p 538<00E00000p 50C>00000045p 50C<00000041p"
           " 538>00E00000p 538<00F00000p 538>00F00000p 538<00B00000p"
           " 538>00B00000p 538<00B00000p 50C>00000041p 50C<00000041p 50C>00000041p 50C<00000043p"
           " 538>00B00000p 538<00B00000p 50C>00000043p 50C<00000043p 538>00B00000p 538<00B00004p"
           " 538>00B00004p 538<00B00004p 538>00B00004p 538<00B00004p 548>00000100p 548<00000180p",
           RELAY_BYPASS, 0},
          {Do(OV_RTCLihua8865Bypass, 0),
           "iopl3"
           " 538>00B00004p 538<00B00004p 50C>00000043p 50C<00000043p"
           " 538>00B00004p 538<00B00004p 50C>00000043p 50C<00000043p"
           " 538>00B00004p 538<00B00004p 538>00B00004p 538<00B00004p"
           " 50C>00000043p 50C<00000041p 538>00B00004p 538<00B00000p 548>00000180p 548<00000100p",
           RELAY_NO_BYPASS, 0},
          {[this] {
               Board->SuperIo.Device[0x08][0xF7] = 0xFF;
               return OV_RTCLihua8865FeedDog(300);
           },
           START_WITHOUT_COUNT + Config("[F6]<2C") + " 50C>00000041p 50C<00000001p iopl0",
           RELAY_NO_BYPASS, 44},
          {Do(OV_RTCLihua8865FeedDog, 5U),
           RESTART_WITHOUT_COUNT + Config("[F6]<05") + " 50C>00000001p 50C<00000001p iopl0",
           RELAY_NO_BYPASS, 5},
          {Do(OV_RTCLihua8865FeedDogUninit), "iopl3" + Config("[F6]<00") + " iopl0",
           RELAY_NO_BYPASS, 0},
          {Do(OV_RTCLihua8865FeedDog, 0U),
           RESTART_WITHOUT_COUNT + Config("[F6]<00") + " 50C>00000001p 50C<00000001p iopl0",
           RELAY_NO_BYPASS, 0}},
         Board, [this] { return TakeTrace(); });
    for (unsigned Pair = 1; Pair <= 3; Pair++) {
        EXPECT_EQ(BoardRelayWhenOff(Board, Pair), RELAY_BYPASS); /* whatever Enable was */
    }

    Use("CARLOW");
    EXPECT_EQ(OV_RTCLihua8865FeedDogInit(30), 0);
    EXPECT_EQ(TakeTrace(), "iopl3" + Config("[2D]>21", "00") + Config("[2D]<20", "00") +
                               Config("[F6]<00") + Config("[30]>00") + Config("[30]<01") +
                               " 500>10108046p 500<10108046p 504>E0000000p 504<E0000000p"
                               " 530>00F10004p 530<00F10004p 534>08000000p 534<08000000p"
                               " 540>00000180p 540<00000180p 544>00000000p 544<00000000p"
                               " 50C>00100045p 50C<00100005p iopl0");
    EXPECT_TRUE(
        IsLogLine(TakeLog().back(), "INFO", "OV_RTCLihua8865FeedDogInit", "8865 Feed Dog Init"));
}

TEST_F(BoardDriver, Lihua8865LinesAndPairs)
{
    Use("CARLOW");
    EXPECT_EQ(OV_RTCLihua8865Bypass(0), 0);
    TakeTrace();
    TakeLog();
    for (const int32_t Pair : {0, 4, -1}) {
        OV_RTCBypass8865SetBpStatus(Pair, 1);
        OV_RTCBypass8865SetPoweroffBpStatus(Pair, 1);
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), 2U);
        EXPECT_TRUE(IsLogLine(Log[0], "ERROR", "OV_RTCBypass8865SetBpStatus",
                              "8865Bypass: Wrong pair number"));
        EXPECT_TRUE(IsLogLine(Log[1], "ERROR", "OV_RTCBypass8865SetPoweroffBpStatus",
                              "8865:Wrong pair number"));
    }
    for (const uint64_t Mask : {0x00U, 0x30U, 0x01U}) {
        OV_RTCBypass8865SetRuntimeBypassEnable(Mask);
        OV_RTCBypass8865SetRuntimeBypassDisable(Mask);
        OV_RTCBypass8865SetBypassEnableWhenSystemOff(Mask);
        OV_RTCBypass8865SetBypassDisableWhenSystemOff(Mask);
    }
    EXPECT_EQ(TakeTrace(), "");

    OV_RTCBypass8865SetPoweroffBpStatus(2, 0);
    EXPECT_EQ(TakeTrace(), "538>00B00000p 538<00300000p 50C>00000041p 50C<00000045p");

    for (int32_t Pair = 1; Pair <= 3; Pair++) {
        const auto Number = static_cast<unsigned>(Pair);
        OV_RTCBypass8865SetBpStatus(Pair, 1);
        EXPECT_EQ(BoardRelay(Board, Number), RELAY_BYPASS);
        OV_RTCBypass8865SetPoweroffBpStatus(Pair, 0);
        EXPECT_EQ(BoardRelayWhenOff(Board, Number), RELAY_NO_BYPASS);
        OV_RTCBypass8865SetPoweroffBpStatus(Pair, 1);
        EXPECT_EQ(BoardRelayWhenOff(Board, Number), RELAY_BYPASS);
        OV_RTCBypass8865SetRuntimeBypassDisable(0x10U << (Number - 1)); /* by mask */
        EXPECT_EQ(BoardRelay(Board, Number), RELAY_NO_BYPASS);
    }
    OV_RTCBypass8865SetWdtoStateSystemReset();
    EXPECT_NE(Board->Ports[0x50C] & 0x40, 0);
}

/* The same operations on registers that are all zeros and all ones: a bit too many or too few in a
 * mask cannot hide behind what the firmware left. */
struct PLACES {
    const char *ProductName;
    unsigned PortWidth; /* in bytes */
    std::vector<unsigned> Ports;
    std::vector<unsigned> Registers; /* of device 8 or F, global below 0x30 */
};

static uint8_t *RegisterPlace(BOARD_STATE *Board, unsigned Register)
{
    if (Register < 0x30) {
        return &Board->SuperIo.Global[Register];
    }
    return &Board->SuperIo.Device[Register == 0xE9 ? 0x0F : 0x08][Register];
}

static std::string RunOn(uint8_t Background, const PLACES &Places,
                         const std::function<int()> &Operation, BOARD_STATE *Board)
{
    std::string Result;

    for (const unsigned Port : Places.Ports) {
        memset(Board->Ports + Port, Background, Places.PortWidth);
    }
    for (const unsigned Register : Places.Registers) {
        *RegisterPlace(Board, Register) = Background;
    }
    iopl(3); /* for the routines that leave it to the board's operation */
    Operation();
    for (const unsigned Port : Places.Ports) {
        uint32_t Value = 0;
        memcpy(&Value, Board->Ports + Port, Places.PortWidth);
        Result += Hex(Value, 2 * static_cast<int>(Places.PortWidth)) + " ";
    }
    for (const unsigned Register : Places.Registers) {
        Result += Hex(*RegisterPlace(Board, Register), 2) + " ";
    }
    return Result;
}

static int DisarmAndReset()
{
    OV_RTCBypass8865SetPoweroffBp(0);
    OV_RTCBypass8865SetWdtoStateSystemReset();
    return 0;
}

TEST_F(BoardDriver, EveryMaskShows)
{
    static const PLACES J1900 = {"B1904", 1, {0xA07}, {}};
    static const PLACES H61 = {"IEC-810N4SC", 1, {0x533, 0x537, 0x53B, 0x541, 0x545, 0x549}, {}};
    static const PLACES PAIRS = {"CARLOW", 4, {0x50C, 0x538, 0x548}, {}};
    static const PLACES BANKS = {
        "CARLOW", 4, {0x500, 0x504, 0x50C, 0x530, 0x534, 0x540, 0x544}, {0x2D, 0x30}};
    static const PLACES WATCHDOG = {"CARLOW", 4, {}, {0x30, 0xF5, 0xF7}};
    static const PLACES PINS = {"Aptio CRB", 1, {}, {0x1C, 0x30, 0xE0, 0xE1, 0xE4, 0xE9, 0xF7}};
    struct ROW {
        const PLACES &Places;
        std::function<int()> Operation;
        const char *FromZeros;
        const char *FromOnes;
    };
    const ROW Rows[] = {
        {J1900, Do(OV_RTCHuierJ1900Bypass, 1), "00 ", "CF "},
        {J1900, Do(OV_RTCHuierJ1900Bypass, 0), "30 ", "FF "},
        {H61, Do(OV_RTCHuierH61Bypass, 1), "02 00 00 01 00 00 ", "FF FD FD FF FF FE "},
        {H61, Do(OV_RTCHuierH61Bypass, 0), "02 00 02 01 00 01 ", "FF FD FF FF FE FF "},
        {PAIRS, Do(OV_RTCLihua8865Bypass, 1), "00000002 00B00004 00000080 ",
         "FFEFFFFB FFBFFFFF FFFFFFFF "},
        {PAIRS, Do(OV_RTCLihua8865Bypass, 0), "00000000 00B00000 00000000 ",
         "FFEFFFF9 FFBFFFFB FFFFFF7F "},
        {PAIRS, DisarmAndReset, "00100044 00400000 00000000 ", "FFFFFFFF FF4FFFFF FFFFFFFF "},
        {BANKS, Do(OV_RTCLihua8865FeedDogInit, 0),
         "00100046 00000000 00000000 00F00004 00000000 00000080 00000000 00 01 ",
         "FFFFFFFF FFEFFFB9 FFFFFFBF FFFFFFFF FF0FFFFB FFFFFFFF FFFFFF7F FE FF "},
        {WATCHDOG, Do(OV_RTCLihua8865FeedDog, 30U), "01 00 00 ", "01 F7 00 "},
        {PINS, Do(OV_RTCQiYangJ1900Bypass, 1), "42 03 00 00 00 00 00 ", "FF 03 DD F1 DD DD EF "},
        {PINS, Do(OV_RTCQiYangJ1900Bypass, 0), "42 03 00 02 00 00 00 ", "FF 03 DD F3 DD DD EF "},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.FromZeros);
        Use(Row.Places.ProductName);
        EXPECT_EQ(RunOn(0x00, Row.Places, Row.Operation, Board), Row.FromZeros);
        EXPECT_EQ(RunOn(0xFF, Row.Places, Row.Operation, Board), Row.FromOnes);
    }
}

/* A watchdog that nobody feeds throws each board into bypass, and feeding it again ends that. */
TEST_F(BoardDriver, AHungAppliance)
{
    static constexpr const char *PRODUCTS[] = {nullptr, "Aptio CRB", "B1904", "IEC-810N4SC",
                                               "CARLOW"};
    static const std::string UNINITS[] = {"", "2E<AAp", "", "",
                                          "iopl3 2E<87p 2E<87p [07]<08p [F6]<00p 2E<AAp iopl0"};
    for (int Platform = 1; Platform <= 4; Platform++) {
        SCOPED_TRACE(PRODUCTS[Platform]);
        const OV_RTC_BYPASS_OPS &Ops = g_RtcBypassTable[Platform];
        Use(PRODUCTS[Platform]);
        EXPECT_EQ(Ops.FeedDogInit(30), 0);
        EXPECT_EQ(Ops.FeedDog(30), 0);
        BoardAdvance(Board, 29);
        EXPECT_EQ(BoardRelay(Board, 1), RELAY_NO_BYPASS);
        BoardAdvance(Board, 2);
        EXPECT_EQ(BoardRelay(Board, 1), RELAY_BYPASS);
        EXPECT_EQ(Ops.FeedDog(30), 0);
        EXPECT_EQ(BoardRelay(Board, 1), RELAY_NO_BYPASS);
        EXPECT_EQ(Board->ResetCount, 0U);
        BoardClearTrace(Board);
        EXPECT_EQ(Ops.FeedDogUninit(), 0);
        EXPECT_EQ(TakeTrace(), UNINITS[Platform]);
    }
}

TEST_F(BoardDriver, RefusedRights)
{
    struct ROW {
        const char *ProductName;
        int Raise, Lower, Ioperm; /* how many calls are refused; -1: all */
        std::function<int()> Operation;
        int Result;
        const char *TraceEnd;
        const char *Message; /* null: no line */
        const char *Function;
    };
    const auto J1900 = Do(OV_RTCHuierJ1900Bypass, 1);
    const auto H61 = Do(OV_RTCHuierH61Bypass, 1);
    const auto Init = Do(OV_RTCHuierFeedDogInit, 30);
    const auto QiYang = Do(OV_RTCQiYangJ1900Bypass, 2);
    const auto Uninit = Do(OV_RTCLihua8865FeedDogUninit);
    static constexpr const char *HARD = "Hard Bypass error(ret: -1)";
    const ROW Rows[] = {
        {"B1904", -1, 0, 0, J1900, -1, "iopl3!", HARD, "OV_RTCHuierJ1900Bypass"},
        {"IEC-810N4SC", -1, 0, 0, H61, -1, "iopl3!", HARD, "OV_RTCHuierH61Bypass"},
        {"B1904", 0, -1, 0, J1900, -ENOENT, "A07<0C iopl0!", HARD, "OV_RTCHuierJ1900Bypass"},
        {"IEC-810N4SC", 0, -1, 0, H61, -ENOENT, "549<30 iopl0!", HARD, "OV_RTCHuierH61Bypass"},
        {"B1904", 0, 0, -1, Init, 0, "[02]<02", nullptr, nullptr},
        {"B1904", -1, 0, -1, Init, -1, "ioperm0+1023! iopl3!", "watchdog init error(ret: -1)",
         "OV_RTCHuierFeedDogInit"},
        {"Aptio CRB", 0, 1, 0, QiYang, 0, "2E<AAp iopl0! 2E<AAp iopl0", HARD,
         "OV_RTCQiYangJ1900Bypass"},
        {"CARLOW", 0, -1, 0, Uninit, 0, "iopl0!", "8865 Feed Dog uninit",
         "OV_RTCLihua8865FeedDogUninit"},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.TraceEnd);
        Use(Row.ProductName);
        Board->RefuseRaise = Row.Raise;
        Board->RefuseLower = Row.Lower;
        Board->RefuseIoperm = Row.Ioperm;
        TakeLog();
        EXPECT_EQ(Row.Operation(), Row.Result);
        EXPECT_TRUE(TakeTrace().ends_with(Row.TraceEnd));
        const STRINGS Log = TakeLog();
        ASSERT_EQ(Log.size(), Row.Message == nullptr ? 0U : 1U);
        if (Row.Message != nullptr) {
            const char *Level = Contains(Row.Message, "error") ? "ERROR" : "INFO";
            EXPECT_TRUE(IsLogLine(Log[0], Level, Row.Function, Row.Message));
        }
    }
}

/* The boards that do not look at the result of iopl end at their first access, before any other
 * port is touched. */
TEST_F(BoardDriver, RefusedRightsEndTheProcess)
{
    testing::GTEST_FLAG(death_test_style) = "fast";
    Use("Aptio CRB");
    Board->RefuseRaise = -1;
    EXPECT_DEATH(OV_RTCQiYangJ1900Bypass(1), "");
    EXPECT_EQ(BoardRelay(Board, 1), RELAY_NO_BYPASS);
    Use("CARLOW");
    Board->RefuseRaise = -1;
    EXPECT_DEATH(OV_RTCLihua8865Bypass(1), "");
    EXPECT_EQ(BoardRelay(Board, 1), RELAY_NO_BYPASS);
}

/* Every read all ones: no sequence hangs, and a computed port stays a port. */
TEST_F(BoardDriver, AnEmptyBus)
{
    Use("Aptio CRB");
    Board->EmptyBus = 1;
    for (int Platform = 1; Platform <= 4; Platform++) {
        const OV_RTC_BYPASS_OPS &Ops = g_RtcBypassTable[Platform];
        EXPECT_EQ(Ops.Bypass(1), 0);
        EXPECT_EQ(Ops.FeedDogInit(30), 0);
        EXPECT_EQ(Ops.FeedDog(30), 0);
        EXPECT_EQ(Ops.FeedDogUninit(), 0);
    }
}
