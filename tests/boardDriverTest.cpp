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
#include "linuxRtcBypass.h"
#include "linuxRtcBypassInternal.h"
#include "linuxRtcBypassLihua8865Internal.h"
#include "orvaneSafeStr.h"
#include "testSupport.h"

#include <errno.h>
#include <future>
#include <signal.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

static const char *const BOARD_PATH = "/tmp/board";
static constexpr BOARD_RELAY ON = RELAY_BYPASS;
static constexpr BOARD_RELAY OFF = RELAY_NO_BYPASS;

static std::string Hex(uint32_t Value, uint32_t Digits)
{
    char Text[16];

    OV_SNPrintf(Text, sizeof(Text), "%0*X", static_cast<int>(Digits), Value);
    return Text;
}

/* One access beginning at Index, which moves past it. */
static std::string AccessText(const std::vector<BOARD_ACCESS> &Trace, size_t &Index)
{
    const auto PortIs = [&](uint32_t Port) {
        return Index < Trace.size() && Trace[Index].Kind <= BOARD_OUT32 &&
               Trace[Index].Port == Port;
    };
    /* What follows the place. */
    const auto Change = [&](const BOARD_ACCESS &Entry) {
        const bool IsIn = Entry.Kind == BOARD_IN8 || Entry.Kind == BOARD_IN32;
        const bool Paused = PortIs(0x80);
        Index += Paused ? 1 : 0;
        return (IsIn ? ">" : "<") + Hex(Entry.Value, 2 * Entry.Count) + (Paused ? "p" : "");
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

    void Walk(const std::vector<STEP> &Steps)
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

    BOARD_STATE *Board = nullptr;
};

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
           ENTER + STOP + PINS_FIRST + FIRST_RESET + " [E1]>AAp 2F<A4p [E1]>A4p 2F<A0p" + LEAVE, ON,
           0},
          {Do(OV_RTCQiYangJ1900Bypass, 2), ENTER + STOP + PINS + RESET + LEAVE, ON, 0},
          {Do(OV_RTCQiYangJ1900Bypass, 0),
           ENTER + STOP + PINS + RESET + " [E1]>A0p 2F<A6p [E1]>A6p 2F<A2p" + LEAVE, OFF, 0},
          {Do(OV_RTCQiYangJ1900FeedDogInit, 30), ENTER, OFF, 0},
          {Do(OV_RTCQiYangJ1900FeedDog, 300U), "[07]<08p [30]<01p [F6]<2Cp" + PINS, OFF, 44},
          {Do(OV_RTCQiYangJ1900FeedDog, 0U), STOP.substr(1) + PINS + RESET, OFF, 0},
          {Do(OV_RTCQiYangJ1900FeedDogUninit), "2E<AAp", OFF, 0}});
    EXPECT_EQ(Board->FaultCount, 0U); /* a pulse shorter than a second would be one */
}

/* Handled while the object lives, SIGALRM comes at short intervals. */
class ALARMS {
  public:
    explicit ALARMS(suseconds_t MicroSeconds, void (*Handler)(int))
    {
        const struct itimerval Often = {{0, MicroSeconds}, {0, MicroSeconds}};
        struct sigaction Action = {};

        Action.sa_handler = Handler; /* without SA_RESTART */
        sigaction(SIGALRM, &Action, nullptr);
        setitimer(ITIMER_REAL, &Often, nullptr);
    }
    ~ALARMS()
    {
        const struct itimerval Never = {};
        setitimer(ITIMER_REAL, &Never, nullptr);
    }
};
static volatile sig_atomic_t gs_Alarms;
static volatile sig_atomic_t gs_AlarmsInside; /* with the chip in configuration mode */

TEST_F(BoardDriver, ASignalDoesNotCutThePulseShort)
{
    Use("Aptio CRB");
    gs_Alarms = 0;
    {
        const ALARMS Often(100000, [](int) { gs_Alarms = gs_Alarms + 1; });
        EXPECT_EQ(OV_RTCQiYangJ1900Bypass(1), 0);
    }
    EXPECT_GE(gs_Alarms, 5);
    EXPECT_EQ(BoardRelay(Board, 1), ON);
    EXPECT_EQ(Board->FaultCount, 0U);
}

static const std::string HUIER_ENTER = "2E<87 2E<01 2E<55 2E<55 [07]<07 ";

TEST_F(BoardDriver, HuierJ1900AndTheSharedWatchdog)
{
    Use("B1904");
    Walk({{Do(OV_RTCHuierJ1900Bypass, 5), "iopl3 A07>3C A07<2C A07>2C A07<0C iopl0", ON, 0},
          {Do(OV_RTCHuierJ1900Bypass, 0), "iopl3 A07>0C A07<1C A07>1C A07<3C iopl0", OFF, 0},
          {Do(OV_RTCHuierFeedDogInit, 0), "ioperm0+1023", OFF, 0},
          {Do(OV_RTCHuierFeedDogInit, 30),
           "ioperm0+1023 " + HUIER_ENTER + "[72]<80 [73]<1E [02]<02", OFF, 30},
          {Do(OV_RTCHuierFeedDog, 300U), HUIER_ENTER + "[73]<2C [74]<00 [02]<02", OFF, 44},
          {Do(OV_RTCHuierFeedDogUninit), "", OFF, 44},
          {Do(OV_RTCHuierFeedDog, 0U), HUIER_ENTER + "[71]<00 [73]<00 [74]<00 [02]<02", OFF, 0}});
}

TEST_F(BoardDriver, HuierH61)
{
    Use("IEC-810N4SC");
    Walk({{Do(OV_RTCHuierH61Bypass, 1),
           "iopl3 533>41 533<43 537>82 537<80 53B>42 53B<40 541>10 541<11 545>30 549<30 549>30 "
           "549<30 iopl0",
           ON, 0},
          {Do(OV_RTCHuierH61Bypass, 0),
           "iopl3 533>43 533<43 537>80 537<80 53B>40 53B<42 541>11 541<11 545>30 545<30 549>30 "
           "549<31 iopl0",
           OFF, 0}});
}

/* One complete access to a register of the W83627. */
static std::string Config(const char *Access, const char *Device = "08")
{
    return std::string(" 2E<87p 2E<87p [07]<") + Device + "p " + Access + "p 2E<AAp";
}

TEST_F(BoardDriver, Lihua8865)
{
    static const std::string START = "iopl3" + Config("[F6]<00") + Config("[F5]>0C") +
                                     Config("[F5]<04") + Config("[F7]>FF") + Config("[F7]<EF") +
                                     Config("[F7]>EF") + Config("[F7]<00") + Config("[30]<01");

    Use("CARLOW");
    Board->SuperIo.Device[0x08][0xF7] = 0xFF;
    Walk({{Do(OV_RTCLihua8865Bypass, 1),
           "iopl3"
           " 538>00400000p 538<00600000p 50C>00100045p 50C<00000045p"
           " 538>00600000p 538<00E00000p 50C>00000045p 50C<00000041p"
           " 538>00E00000p 538<00F00000p 538>00F00000p 538<00B00000p"
           " 538>00B00000p 538<00B00000p 50C>00000041p 50C<00000041p 50C>00000041p 50C<00000043p"
           " 538>00B00000p 538<00B00000p 50C>00000043p 50C<00000043p 538>00B00000p 538<00B00004p"
           " 538>00B00004p 538<00B00004p 538>00B00004p 538<00B00004p 548>00000100p 548<00000180p",
           ON, 0},
          {Do(OV_RTCLihua8865Bypass, 0),
           "iopl3"
           " 538>00B00004p 538<00B00004p 50C>00000043p 50C<00000043p"
           " 538>00B00004p 538<00B00004p 50C>00000043p 50C<00000043p"
           " 538>00B00004p 538<00B00004p 538>00B00004p 538<00B00004p"
           " 50C>00000043p 50C<00000041p 538>00B00004p 538<00B00000p 548>00000180p 548<00000100p",
           OFF, 0},
          {Do(OV_RTCLihua8865FeedDog, 300U),
           START + Config("[F6]<2C") + " 50C>00000041p 50C<00000001p iopl0", OFF, 44},
          {Do(OV_RTCLihua8865FeedDogUninit), "iopl3" + Config("[F6]<00") + " iopl0", OFF, 0}});
    for (unsigned Pair = 1; Pair <= 3; Pair++) {
        EXPECT_EQ(BoardRelayWhenOff(Board, Pair), ON); /* whatever Enable was */
    }

    Use("CARLOW");
    EXPECT_EQ(OV_RTCLihua8865FeedDogInit(30), 0);
    EXPECT_EQ(TakeTrace(), "iopl3" + Config("[2D]>21", "00") + Config("[2D]<20", "00") +
                               Config("[F6]<00") + Config("[30]>00") + Config("[30]<01") +
                               " 500>10108046p 500<10108046p 504>E0000000p 504<E0000000p"
                               " 530>00F10004p 530<00F10004p 534>08000000p 534<08000000p"
                               " 540>00000180p 540<00000180p 544>00000000p 544<00000000p"
                               " 50C>00100045p 50C<00100005p iopl0");
    EXPECT_TRUE(TakeMessages("0123").ends_with("1 8865 Feed Dog Init\n"));
}

TEST_F(BoardDriver, Lihua8865LinesAndPairs)
{
    Use("CARLOW");
    EXPECT_EQ(OV_RTCLihua8865Bypass(0), 0);
    TakeTrace();
    for (const int32_t Pair : {0, 4, -1}) {
        TakeLog();
        OV_RTCBypass8865SetBpStatus(Pair, 1);
        OV_RTCBypass8865SetPoweroffBpStatus(Pair, 1);
        EXPECT_EQ(TakeMessages("0123"),
                  "3 8865Bypass: Wrong pair number\n3 8865:Wrong pair number\n");
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
}

/* The operation on ports and registers that are all zeros, or all ones: what it changed. */
static std::string ChangesOn(BOARD_STATE *Board, uint8_t Background,
                             const std::function<int()> &Operation)
{
    std::vector<std::pair<std::string, uint8_t *>> Places;
    for (unsigned Port = 0x500; Port <= 0xA07; Port++) {
        Places.emplace_back(Hex(Port, 3), Board->Ports + Port);
    }
    BOARD_SUPER_IO &Chip = Board->SuperIo;
    for (const unsigned Register : {0x1CU, 0x2DU}) {
        Places.emplace_back(Hex(Register, 2), &Chip.Global[Register]);
    }
    for (const unsigned Register : {0x30U, 0xE0U, 0xE1U, 0xE4U, 0xF5U, 0xF7U}) {
        Places.emplace_back("8:" + Hex(Register, 2), &Chip.Device[0x08][Register]);
    }
    Places.emplace_back("F:E9", &Chip.Device[0x0F][0xE9]);

    std::string Changes;
    for (const auto &[Name, Place] : Places) {
        *Place = Background;
    }
    iopl(3); /* for the routines that leave it to the board's operation */
    Operation();
    for (const auto &[Name, Place] : Places) {
        Changes += *Place == Background ? "" : Name + "=" + Hex(*Place, 2) + " ";
    }
    return Changes;
}

static int DisarmAndReset()
{
    OV_RTCBypass8865SetPoweroffBp(0);
    OV_RTCBypass8865SetWdtoStateSystemReset();
    return 0;
}

/* A bit too many or too few in a mask cannot hide behind what the firmware left. */
TEST_F(BoardDriver, EveryMaskShows)
{
    struct ROW {
        const char *ProductName;
        std::function<int()> Operation;
        const char *FromZeros;
        const char *FromOnes;
    };
    const ROW Rows[] = {
        {"B1904", Do(OV_RTCHuierJ1900Bypass, 1), "", "A07=CF "},
        {"B1904", Do(OV_RTCHuierJ1900Bypass, 0), "A07=30 ", ""},
        {"IEC-810N4SC", Do(OV_RTCHuierH61Bypass, 1), "533=02 541=01 ", "537=FD 53B=FD 549=FE "},
        {"IEC-810N4SC", Do(OV_RTCHuierH61Bypass, 0), "533=02 53B=02 541=01 549=01 ",
         "537=FD 545=FE "},
        {"CARLOW", Do(OV_RTCLihua8865Bypass, 1), "50C=02 538=04 53A=B0 548=80 ",
         "50C=FB 50E=EF 53A=BF "},
        {"CARLOW", Do(OV_RTCLihua8865Bypass, 0), "53A=B0 ", "50C=F9 50E=EF 538=FB 53A=BF 548=7F "},
        {"CARLOW", DisarmAndReset, "50C=44 50E=10 53A=40 ", "53A=4F "},
        {"CARLOW", Do(OV_RTCLihua8865FeedDogInit, 0), "500=46 502=10 530=04 532=F0 540=80 8:30=01 ",
         "504=B9 506=EF 50C=BF 534=FB 536=0F 544=7F 2D=FE "},
        {"CARLOW", Do(OV_RTCLihua8865FeedDog, 30U), "8:30=01 ", "50C=BF 8:30=01 8:F5=F7 8:F7=00 "},
        {"Aptio CRB", Do(OV_RTCQiYangJ1900Bypass, 1), "1C=42 8:30=03 ",
         "8:30=03 8:E0=DD 8:E1=F1 8:E4=DD 8:F7=EF F:E9=DD "},
        {"Aptio CRB", Do(OV_RTCQiYangJ1900Bypass, 0), "1C=42 8:30=03 8:E1=02 ",
         "8:30=03 8:E0=DD 8:E1=F3 8:E4=DD 8:F7=EF F:E9=DD "},
    };
    for (const ROW &Row : Rows) {
        SCOPED_TRACE(Row.FromZeros);
        Use(Row.ProductName);
        EXPECT_EQ(ChangesOn(Board, 0x00, Row.Operation), Row.FromZeros);
        EXPECT_EQ(ChangesOn(Board, 0xFF, Row.Operation), Row.FromOnes);
    }
}

/* By platform number. */
static constexpr const char *PRODUCTS[] = {nullptr, "Aptio CRB", "B1904", "IEC-810N4SC", "CARLOW"};

/* A watchdog that nobody feeds throws each board into bypass, and feeding it again ends that. */
TEST_F(BoardDriver, AHungAppliance)
{
    for (int Platform = 1; Platform <= 4; Platform++) {
        SCOPED_TRACE(PRODUCTS[Platform]);
        const OV_RTC_BYPASS_OPS &Ops = g_RtcBypassTable[Platform];
        Use(PRODUCTS[Platform]);
        EXPECT_EQ(Ops.FeedDogInit(30), 0);
        EXPECT_EQ(Ops.FeedDog(30), 0);
        BoardAdvance(Board, 29);
        EXPECT_EQ(BoardRelay(Board, 1), OFF);
        BoardAdvance(Board, 2);
        EXPECT_EQ(BoardRelay(Board, 1), ON);
        EXPECT_EQ(Ops.FeedDog(30), 0);
        EXPECT_EQ(BoardRelay(Board, 1), OFF);
        EXPECT_EQ(Board->ResetCount, 0U);
    }
}

/* A daemon's handlers run before or after what it does to the chip. */
TEST_F(BoardDriver, NoSignalInTheMiddleOfAFeeding)
{
    for (const int Platform : {2, 4}) {
        SCOPED_TRACE(PRODUCTS[Platform]);
        Use(PRODUCTS[Platform]);
        gs_Alarms = 0;
        gs_AlarmsInside = 0;
        const ALARMS Often(200, [](int) {
            gs_Alarms = gs_Alarms + 1;
            gs_AlarmsInside =
                gs_AlarmsInside + (BoardAttached()->SuperIo.ConfigurationMode != 0 ? 1 : 0);
        });
        while (gs_Alarms < 200) {
            EXPECT_EQ(OV_RTCFeedDogInit(Platform, 30), 0);
            EXPECT_EQ(OV_RTCFeedDog(Platform, 30), 0);
            EXPECT_EQ(OV_RTCFeedDogUninit(Platform), 0);
        }
        EXPECT_EQ(gs_AlarmsInside, 0);
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
        std::string Messages;
    };
    const auto J1900 = Do(OV_RTCHuierJ1900Bypass, 1);
    const auto H61 = Do(OV_RTCHuierH61Bypass, 1);
    const auto Init = Do(OV_RTCHuierFeedDogInit, 30);
    const auto QiYang = Do(OV_RTCQiYangJ1900Bypass, 2);
    const auto Uninit = Do(OV_RTCLihua8865FeedDogUninit);
    static const std::string HARD = "3 Hard Bypass error(ret: -1)\n";
    const ROW Rows[] = {
        {"B1904", -1, 0, 0, J1900, -1, "iopl3!", HARD},
        {"IEC-810N4SC", -1, 0, 0, H61, -1, "iopl3!", HARD},
        {"B1904", 0, -1, 0, J1900, -ENOENT, "A07<0C iopl0!", HARD},
        {"IEC-810N4SC", 0, -1, 0, H61, -ENOENT, "549<30 iopl0!", HARD},
        {"B1904", 0, 0, -1, Init, 0, "[02]<02", ""},
        {"B1904", -1, 0, -1, Init, -1, "ioperm0+1023! iopl3!", "3 watchdog init error(ret: -1)\n"},
        {"Aptio CRB", 0, 1, 0, QiYang, 0, "2E<AAp iopl0! 2E<AAp iopl0", HARD},
        {"CARLOW", 0, -1, 0, Uninit, 0, "iopl0!", "1 8865 Feed Dog uninit\n"},
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
        EXPECT_EQ(TakeMessages("0123"), Row.Messages);
    }
}

/* The boards that do not look at the result of iopl end at their first access, before any other
 * port is touched. */
TEST_F(BoardDriver, RefusedRightsEndTheProcess)
{
    testing::GTEST_FLAG(death_test_style) = "fast";
    for (const int Platform : {1, 4}) {
        Use(PRODUCTS[Platform]);
        Board->RefuseRaise = -1;
        EXPECT_DEATH(g_RtcBypassTable[Platform].Bypass(1), "");
        EXPECT_EQ(BoardRelay(Board, 1), OFF);
    }
}

using WORK = std::function<void()>;

/* The status of a process that does this alone. */
static int Ends(const WORK &Work)
{
    const pid_t Child = fork();
    if (Child == 0) {
        Work();
        _exit(0);
    }
    return WaitForProcess(Child);
}

/* The second by a thread that was there before the first was done. */
static void ThenByAnElder(const WORK &First, const WORK &Second)
{
    std::promise<void> Done;
    std::thread Elder([&] {
        Done.get_future().wait();
        Second();
    });
    First();
    Done.set_value();
    Elder.join();
}

/* A daemon that raises its rights on one thread and feeds on another ends on a real board. */
TEST_F(BoardDriver, RightsAreAThreadsOwn)
{
    const WORK Raise = [] { iopl(3); };
    const WORK Lower = [] { iopl(0); };
    const WORK RaiseOne = [] { ioperm(0x80, 1, 1); };
    const WORK Touch = [] { outb(0, 0x80); };
    const auto Younger = [](const WORK &Work) { std::thread(Work).join(); };
    static constexpr int FAULT = 128 + SIGSEGV;
    const std::pair<WORK, int> Rows[] = {
        {[&] { ThenByAnElder(Raise, Touch); }, FAULT},
        {[&] { ThenByAnElder(RaiseOne, Touch); }, FAULT},
        {[&] { Younger(Raise), Touch(); }, FAULT},
        {[&] { Raise(), Lower(), Younger(Touch); }, FAULT},
        {[&] { Raise(), Younger(Touch); }, 0},
        {[&] { RaiseOne(), Younger([&] { Younger(Touch); }); }, 0},
        {[&] { Raise(), Younger(Lower), Touch(); }, 0},
        {[&] { Raise(), ThenByAnElder(Lower, Touch); }, 0}, /* has what its maker had */
        {[&] { Younger([&] { Raise(), _exit(Ends(Touch)); }); }, 0},
        {[&] { Raise(), Ends(Lower), Touch(); }, 0},
    };
    Use("B1904");
    for (const auto &Row : Rows) {
        EXPECT_EQ(Ends(Row.first), Row.second) << "row " << &Row - Rows;
    }
    EXPECT_EQ(Board->FaultCount, 4U);
    iopl(3);
    Use("B1904"); /* another board */
    EXPECT_EQ(Ends([&] { Younger(Raise), Touch(); }), FAULT);
}

TEST_F(BoardDriver, ClosingNoBoardUnmapsNothing)
{
    void *const Lowest = reinterpret_cast<void *>(0x10000); /* that the kernel gives anybody */
    const size_t Size = 0x1000;
    ASSERT_EQ(
        mmap(Lowest, Size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0),
        Lowest);
    BoardFileClose(nullptr);
    EXPECT_EQ(msync(Lowest, Size, MS_ASYNC), 0) << "gone";
    munmap(Lowest, Size);
}

/* The lock and the trace after an owner that was killed, and before one that takes its time. */
TEST_F(BoardDriver, OwnersOfTheLock)
{
    const BOARD_ACCESS What = {};
    Use("B1904");
    Ends([&] {
        BoardLock(Board);
        BoardRecord(Board, &What, "%s", reinterpret_cast<const char *>(1)); /* ends here */
    });
    const auto Start = std::chrono::steady_clock::now();
    BoardLock(Board);
    EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::seconds(1));
    EXPECT_EQ(Board->TraceCount, 0U) << "a line that nobody finished";

    std::thread Waiting([&] {
        BoardLock(Board);
        BoardUnlock(Board);
    });
    for (int Tenths = 0; Tenths < 23; Tenths++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        BoardRecord(Board, &What, "at work");
    }
    EXPECT_EQ(__atomic_load_n(&Board->LockOwner, __ATOMIC_RELAXED), gettid()) << "taken away";
    BoardUnlock(Board);
    Waiting.join();
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
