/* Memory: an account that does not come out even, damage that is not seen or not survived, a size
 * that wraps, a block of a pool that is lost or freed under a reader. And the wrappers below it. */
#include "orvaneIo.h"
#include "orvaneLibrtcMem.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "orvanePlatformMutex.h"
#include "orvanePlatformRcu.h"
#include "orvaneSocket.h"
#include "orvaneThread.h"
#include "testSupport.h"

#include <atomic>
#include <bit>
#include <thread>

/* Counter and usage of both accounts. */
using FIGURES = std::array<int32_t, 4>;

static FIGURES FiguresOf(int32_t ModId)
{
    OV_USEAGE_INFO Info = {};

    OV_MemGetUsage(ModId, &Info);
    return {Info.MemCounter, Info.MemUsage, Info.VmemCounter, Info.VmemUsage};
}

class Memory : public testing::Test {
  protected:
    int32_t Id;

    void SetUp() override
    {
        Id = OV_MemModRegister("test", 4);
        TakeSystemLog();
    }
    void TearDown() override
    {
        OV_MemModUnRegister(Id);
    }
};

TEST_F(Memory, AModuleIsFoundByItsNameAndTheTableEnds)
{
    const std::string Long(31, 'n');
    EXPECT_EQ(OV_MemModRegister("test", 4), Id);
    EXPECT_NE(OV_MemModRegister("tes", 3), Id);
    EXPECT_EQ(OV_MemModRegister((Long + "n").c_str(), 32), -EINVAL);
    EXPECT_EQ(OV_MemModRegister(nullptr, 1), -EINVAL);
    EXPECT_EQ(OV_MemModRegister("", 0), -EINVAL);

    EXPECT_EQ(OV_MemModRegister(Long.c_str(), 31), 2);
    for (int Number = 3; Number < OV_MEM_MODULE_COUNT; Number++) {
        const std::string Name = "m" + std::to_string(Number);
        EXPECT_EQ(OV_MemModRegister(Name.c_str(), Name.size()), Number);
    }
    EXPECT_EQ(OV_MemModRegister("one more", 8), -EINVAL);
    OV_MemModUnRegister(100);
    EXPECT_EQ(OV_MemModRegister("one more", 8), 100);
    for (int32_t ModId = 0; ModId <= OV_MEM_MODULE_COUNT; ModId++) {
        OV_MemModUnRegister(ModId); /* the last is no module */
    }
    EXPECT_FALSE(OV_MemIsModRegistered(Id) || OV_MemIsModRegistered(-1));
    EXPECT_TRUE(TakeSystemLog().empty());

    OV_USEAGE_INFO Info = {};
    void *const Block = &Info;
    EXPECT_EQ(OV_MemAlloc(Id, 1, 0), nullptr);
    EXPECT_EQ(OV_VmemRealloc(256, Block, 0, 0), nullptr); /* left alone, both */
    OV_MemFree(-1, Block);
    strcpy(Info.Name, "kept");
    OV_MemGetUsage(Id, &Info);
    EXPECT_STREQ(Info.Name, "kept");
}

TEST_F(Memory, EachAccountThroughABlocksLife)
{
    struct ACCOUNT {
        std::function<void *(size_t)> ZeroAlloc;
        std::function<void *(void *, size_t)> Realloc;
        FIGURES (*Expected)(int32_t Bytes);
    };
    const ACCOUNT Accounts[] = {
        {[this](size_t Size) { return OV_MemAlloc(Id, Size, OV_GFP_ZERO); },
         [this](void *Block, size_t Size) { return OV_MemRealloc(Id, Block, Size, 0); },
         [](int32_t Bytes) {
             return FIGURES{1, Bytes, 0, 0};
         }},
        {[this](size_t Size) { return OV_VmemZeroAlloc(Id, Size); },
         [this](void *Block, size_t Size) { return OV_VmemRealloc(Id, Block, Size, 77); },
         [](int32_t Bytes) {
             return FIGURES{0, 0, 1, Bytes};
         }},
    };
    for (const auto &[ZeroAlloc, Realloc, Expected] : Accounts) {
        auto *Block = static_cast<char *>(ZeroAlloc(100));
        EXPECT_EQ(std::string(Block, 100), std::string(100, '\0'));
        EXPECT_EQ(FiguresOf(Id), Expected(112));
        memset(Block, 'x', 100);
        Block = static_cast<char *>(Realloc(Block, 20000)); /* big, and no warning of it */
        EXPECT_EQ(std::string(Block, 100), std::string(100, 'x'));
        EXPECT_EQ(FiguresOf(Id), Expected(20012));
        Block = static_cast<char *>(Realloc(Block, 50));
        EXPECT_EQ(std::string(Block, 50), std::string(50, 'x'));
        EXPECT_EQ(FiguresOf(Id), Expected(62));
        for (const size_t Size : {SIZE_MAX, SIZE_MAX - 11, size_t(UINT32_MAX) - 11}) {
            EXPECT_EQ(ZeroAlloc(Size), nullptr);
            EXPECT_EQ(Realloc(Block, Size), nullptr);
        }
        EXPECT_EQ(Realloc(Block, 0), nullptr);
        EXPECT_EQ(FiguresOf(Id), FIGURES{});
    }
    char *Copy = OV_MemStrDup("text", Id, 0);
    EXPECT_STREQ(Copy, "text");
    EXPECT_EQ(FiguresOf(Id), (FIGURES{1, 17, 0, 0}));
    OV_MemFree(Id, Copy);
    EXPECT_TRUE(TakeSystemLog().empty());
}

TEST_F(Memory, DamageIsReportedAndTheBlockReleased)
{
    struct ROW {
        size_t Offset; /* from the block's start */
        uint32_t Value;
        const char *Text; /* behind the pointer */
        int32_t UsageLeft;
    };
    static const ROW Rows[] = {
        {0, 0x11111111, ", prefix is corrupt(0x544F4C56 -> 0x11111111), size=28", 0},
        {24, 0x22222222, ", suffix is corrupt(0x52554D42 -- > 0x22222222), size=28", 0},
        /* A size that leads out of the block is not followed; the account bears it. */
        {4, 3, ", suffix is corrupt(0x52554D42 -- > 0x0), size=3", 25},
        {4, 0x7FFFFFFF, ", suffix is corrupt(0x52554D42 -- > 0x0), size=2147483647",
         28 - 0x7FFFFFFF},
    };
    for (const ROW &Row : Rows) {
        char Place[32];
        auto *Block = static_cast<char *>(OV_VmemAlloc(Id, 16));
        snprintf(Place, sizeof(Place), "%p", static_cast<void *>(Block));
        memcpy(Block - 8 + Row.Offset, &Row.Value, sizeof(Row.Value));
        OV_VmemFree(Id, Block);
        EXPECT_EQ(TakeSystemLog(),
                  STRINGS{"3 MODULE[test]free mem " + (Place + std::string(Row.Text)) + "\n"});
        EXPECT_EQ(FiguresOf(Id), (FIGURES{0, 0, 0, Row.UsageLeft}));
        OV_MemModUnRegister(Id);
        SetUp();
    }

    auto *Block = static_cast<char *>(OV_MemAlloc(Id, 3, 0));
    Block[3] = 'x'; /* one past the end; the end is at no boundary */
    Block = static_cast<char *>(OV_MemRealloc(Id, Block, 30, 0));
    OV_MemFree(Id, Block);
    const STRINGS Log = TakeSystemLog();
    ASSERT_EQ(Log.size(), 1U);
    EXPECT_TRUE(Contains(Log[0], "]realloc mem ") && Contains(Log[0], "-- > 0x52554D78), size=15"));
}

TEST_F(Memory, ALeakIsReportedWhenTheModuleGoes)
{
    void *Block = OV_MemAlloc(Id, 8, 0);
    void *Large = OV_VmemAlloc(Id, 88);
    OV_MemModUnRegister(Id);
    EXPECT_EQ(TakeSystemLog(), STRINGS{"4 MODULE[test] unregister with memory leak(MemCounter 1, "
                                       "MemUsage 20, VmemCounter 1, VmemUsage 100).\n"});
    OV_MemFree(Id, Block); /* does nothing: the module is gone */
    SetUp();
    EXPECT_EQ(FiguresOf(Id), FIGURES{});
    OV_MemFree(Id, Block);
    OV_VmemFree(Id, Large);
}

TEST_F(Memory, CountersAreExactAfterEightBusyThreads)
{
    std::atomic<bool> Stop = false;
    std::vector<std::jthread> Threads;

    for (int Number = 0; Number < 8; Number++) {
        Threads.emplace_back([&, Number] {
            void *Kept = nullptr;
            for (size_t Size = 1; !Stop; Size = Size % 500 + 1) {
                Kept = OV_MemRealloc(Id, Kept, Size, 0);
                OV_VmemFree(Id, OV_VmemAlloc(Id, Size));
            }
            OV_MemFree(Id, OV_MemRealloc(Id, Kept, 1, 0));
            if (Number == 7) {
                OV_LibrtcMemModuleRegister(); /* takes the table's lock meanwhile */
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Stop = true;
    Threads.clear();
    EXPECT_EQ(FiguresOf(Id), FIGURES{});

    char Usage[64];
    EXPECT_EQ(OV_LibrtcMemGetUsage(Usage, sizeof(Usage)), 0);
    EXPECT_STREQ(Usage, "[MEMINFO]LIBRTC:Counter=0,Size=0\n");
    OV_LibrtcMemModuleUnregister();
    OV_LibrtcMemModuleUnregister();
    memset(Usage, 'x', sizeof(Usage));
    EXPECT_EQ(OV_LibrtcMemGetUsage(Usage, sizeof(Usage)), 0);
    EXPECT_STREQ(Usage, "[MEMINFO]:Counter=0,Size=0\n");
    EXPECT_EQ(OV_LibrtcMemGetUsage(Usage, 10), -EOVERFLOW);
    EXPECT_TRUE(OV_RTCisSocketConfig());
}

class Pool : public testing::Test {
  protected:
    void SetUp() override
    {
        OV_RcuRegisterThread();
        TakeSystemLog();
    }
    void TearDown() override
    {
        OV_RcuUnregisterThread();
    }
    static uint32_t BlocksOut(int32_t Id)
    {
        MEMPOOL_INFO Info = {};

        OV_MemPoolUsageById(Id, &Info);
        return Info.BlockNum;
    }
};

TEST_F(Pool, BlocksAreCountedGuardedAndZeroedWhereAsked)
{
    const int32_t Id = OV_MemPoolCreate("blocks", 6, 40, 1000, OV_GFP_ZERO);
    EXPECT_EQ(OV_MemPoolCreate("blocks", 6, 80, 0, 0), Id);
    EXPECT_EQ(TakeSystemLog().back(),
              "7 mempool creat success,id=" + std::to_string(Id) + ",name=blocks\n");
    const int32_t Plain = OV_MemPoolCreate("plain", 5, 40, 0, 0);
    EXPECT_EQ(Plain, Id + 1);
    EXPECT_EQ(OV_MemPoolCreate("plains", 5, 40, 0, 0), Plain + 1) << "another length";
    OV_MemPoolDestroy(Plain + 1);
    EXPECT_EQ(OV_MemPoolCreate("x", 33, 40, 0, 0), -EINVAL);
    EXPECT_EQ(OV_MemPoolCreate(nullptr, 1, 40, 0, 0), -EINVAL);
    EXPECT_EQ(OV_MemPoolCreate("x", 1, UINT32_MAX - 11, 0, 0), -ENOEXEC);

    auto *Block = static_cast<char *>(OV_MemPoolAlloc(Id));
    auto *Other = static_cast<char *>(OV_MemPoolZeroAlloc(Plain));
    EXPECT_EQ(std::string(Block, 40) + std::string(Other, 40), std::string(80, '\0'));
    OV_MemPoolFree(Plain, Other);
    void *Second = OV_MemPoolAlloc(Id);
    EXPECT_EQ(BlocksOut(Id), 2U);
    TakeSystemLog();
    Block[40] = 'x';
    OV_MemPoolFree(Id, Block);
    memset(static_cast<char *>(Second) - 8, 'x', 4);
    OV_MemPoolFree(Id, Second);
    OV_MemPoolFree(Id, nullptr);
    const std::string Name = "3 MODULE blocks[" + std::to_string(Id) + "] ";
    EXPECT_EQ(TakeSystemLog(),
              (STRINGS{Name + "overflow other memory, size=52\n",
                       Name + "memory was overflowed, size=52, Canary=0x78787878\n"}));
    EXPECT_EQ(BlocksOut(Id), 0U);

    for (const int32_t Gone : {Plain, Id, Id}) {
        OV_MemPoolDestroy(Gone);
    }
    for (const int32_t None : {Id, -1, 32}) {
        EXPECT_EQ(OV_MemPoolAlloc(None), nullptr);
    }
}

TEST_F(Pool, AReaderNeverMeetsAPoolThatIsFreed)
{
    std::atomic<bool> Stop = false;
    std::atomic<int> Met = 0;
    std::vector<std::jthread> Readers(2);

    for (std::jthread &Reader : Readers) {
        Reader = std::jthread([&] {
            OV_RcuRegisterThread();
            while (!Stop) {
                MEMPOOL_INFO Info = {};
                OV_MemPoolUsageById(0, &Info);
                Met += Info.BlockSize == 8 && strcmp(Info.Name, "goes") == 0;
            }
            OV_RcuUnregisterThread();
        });
    }
    EXPECT_TRUE(WaitUntil([&] {
        for (int Count = 0; Count < 100; Count++) {
            const int32_t Id = OV_MemPoolCreate("goes", 4, 8, 0, 0);
            OV_MemPoolFree(Id, OV_MemPoolAlloc(Id));
            EXPECT_EQ(BlocksOut(Id), 0U);
            OV_MemPoolDestroy(Id);
        }
        return Met > 1000;
    }));
    Stop = true;
}

TEST(Wrappers, ResultsAreNegatedErrnoAndOutputsAreKept)
{
    OV_SOCKET Socket = 77;
    OV_FILE File = 77;
    EXPECT_EQ(OV_Socket(200, SOCK_STREAM, 0, &Socket), -EAFNOSUPPORT);
    EXPECT_EQ(Socket, 77);
    EXPECT_EQ(OV_Open(&File, "/tmp/none", O_RDONLY, 0), -ENOENT);
    EXPECT_EQ(File, -1);
    EXPECT_EQ(OV_Close(-1), -EBADF);

    WriteFile("/tmp/ten", "0123456789");
    FILE *Stream = fopen("/tmp/ten", "re");
    long Length = 0;
    EXPECT_EQ(OV_GetFileLen(Stream, &Length), 0);
    EXPECT_TRUE(Length == 10 && ftell(Stream) == 0);
    fclose(Stream);
    Stream = popen("true", "re");
    EXPECT_EQ(OV_GetFileLen(Stream, &Length), -ESPIPE);
    pclose(Stream);

    for (const intptr_t Error : {0, -12, -4095, -4096}) {
        EXPECT_EQ(OV_IS_ERR_OR_NULL(std::bit_cast<void *>(Error)), Error != -4096);
    }
}

TEST(Wrappers, AThreadGetsANameThatFits)
{
    for (const char *Name : {"fifteen letters", "sixteen letters!", (const char *)nullptr}) {
        OV_THREAD_T Thread = {1, TRUE};
        char Given[32] = "";
        const auto Wait = [](void *) -> void * {
            for (;;) {
                OV_ThreadAddStopTestPoint();
            }
        };
        ASSERT_EQ(OV_ThreadRun(&Thread, nullptr, Wait, nullptr, Name), 0);
        EXPECT_FALSE(OV_ThreadShouldStop(Thread));
        pthread_getname_np(Thread.Tid, Given, sizeof(Given));
        EXPECT_STREQ(Given, Name != nullptr && strlen(Name) == 15 ? Name : "memoryTest");
        pthread_cancel(Thread.Tid);
        pthread_join(Thread.Tid, nullptr);
    }
    TakeSystemLog();
    EXPECT_TRUE(OV_ThreadShouldStop({0, TRUE}));
    EXPECT_EQ(TakeSystemLog(), STRINGS{"7 isStop : 1\n"});
}

TEST(Wrappers, ALockThatFailsEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            OV_MUTEX_T Mutex;
            OV_MutexInit(&Mutex);
            OV_MutexLock(&Mutex);
            OV_MutexLock(&Mutex); /* recursive: fine */
            OV_MutexDestroy(&Mutex);
        },
        "orvanePlatformMutex:.*OV_MutexDestroy.*!ret");
}
