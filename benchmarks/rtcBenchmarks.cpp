/* The tool, the log and the common layer. Runs inside simulator/sandbox.sh. */
#include "benchmark.h"
#include "boardModel.h"
#include "linuxRtc.h"
#include "orvaneDispatchClient.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"
#include "orvaneLogFile.h"
#include "orvaneMem.h"
#include "orvaneMemPool.h"
#include "orvanePlatformRcu.h"
#include "orvaneSafeStr.h"

#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr const char *BOARD_PATH = "/tmp/board";

static std::string BuildFolder()
{
    char Self[4096] = "";

    if (readlink("/proc/self/exe", Self, sizeof(Self) - 1) < 0) {
        abort();
    }
    *strrchr(Self, '/') = '\0';
    return Self;
}

/* bypass_cmd -b 1 on the simulated board; what its process used. */
static struct rusage RunTool()
{
    static const std::string Program = BuildFolder() + "/bypass_cmd";
    static const std::string Preload = "LD_PRELOAD=" + BuildFolder() + "/librtcBoard.so";
    static const std::string Path = std::string("PATH=") + getenv("PATH");
    const char *Arguments[] = {Program.c_str(), "-b", "1", nullptr};
    const char *Environment[] = {Preload.c_str(), Path.c_str(), "RTC_BOARD=/tmp/board",
                                 "RTC_BOARD_NAME=B1904", nullptr};
    struct rusage Usage = {};
    pid_t Process;
    int Status = -1;

    if (posix_spawn(&Process, Program.c_str(), nullptr, nullptr, const_cast<char **>(Arguments),
                    const_cast<char **>(Environment)) != 0 ||
        wait4(Process, &Status, 0, &Usage) != Process || Status != 0) {
        fputs("bypass_cmd did not run\n", stderr);
        exit(1);
    }
    return Usage;
}

static void CaptureByHand(const char *Command)
{
    char Output[48] = "";
    char Line[1024];
    size_t Length = 0;
    FILE *Pipe = popen(Command, "re");

    if (Pipe == nullptr) {
        abort();
    }
    while (fgets(Line, sizeof(Line), Pipe) != nullptr && Length + strlen(Line) < sizeof(Output)) {
        memcpy(Output + Length, Line, strlen(Line) + 1);
        Length += strlen(Line);
    }
    pclose(Pipe);
}

static void BenchTool()
{
    setenv("RTC_BOARD_NAME", "B1904", 1);
    if (BoardFileCreate(BOARD_PATH, "B1904") != 0) {
        abort();
    }
    BOARD_STATE *Board = BoardFileOpen(BOARD_PATH);

    Row(
        "bypass_cmd -b 1, simulated / dmidecode by popen", 1, 501, 1.5,
        [](int Count) {
            for (int Index = 0; Index < Count; Index++) {
                RunTool();
            }
        },
        [](int Count) {
            for (int Index = 0; Index < Count; Index++) {
                CaptureByHand("dmidecode -s baseboard-product-name");
            }
        });
    if (BoardRelay(Board, 1) != RELAY_BYPASS) {
        fputs("the relay did not move\n", stderr);
        exit(1);
    }
    BoardFileClose(Board);
}

static void BenchLog()
{
    static FILE *Plain = fopen("/tmp/plain.log", "ae");

    if (Plain == nullptr || OV_AgentFileLogCtor("/tmp/agent.log") != 0) {
        abort();
    }
    for (const int Count : {1000, 10000, 100000}) {
        Row(
            "a log line / fprintf + fflush of the same bytes", Count, 11, 1.5,
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    OV_LOG_INFO("set %s %s %s(ret: %d)", "Huier-J1900", "bypass", "success", Index);
                }
            },
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    fprintf(Plain, "%s[%s][%s-%d]set %s %s %s(ret: %d)\n",
                            "[2026/11/22_21:15:15.182]", "INFO", "operator()", 150, "Huier-J1900",
                            "bypass", "success", Index);
                    fflush(Plain);
                }
            });
    }
    OV_AgentLogDtor();
    fclose(Plain);
}

static void BenchLogFile()
{
    static constexpr char PATH[] = "/tmp/rotating.log";
    static const int32_t Id = OV_LogFileInit(PATH, strlen(PATH));
    static FILE *Plain = fopen("/tmp/plainFile.log", "ae");

    if (Plain == nullptr) {
        abort();
    }
    OV_LogFileSetMaxFileSize(static_cast<uint32_t>(Id), UINT32_MAX);
    for (const int Count : {1000, 10000, 100000}) {
        Row(
            "a log-file line / fprintf + fflush of the same bytes", Count, 11, 1.5,
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    OV_Log2File(static_cast<uint32_t>(Id), "set %s %s %s(ret: %d)\n", "Huier-J1900",
                                "bypass", "success", Index);
                }
            },
            [](int Lines) {
                for (int Index = 0; Index < Lines; Index++) {
                    fprintf(Plain, "%sset %s %s %s(ret: %d)\n", "[2026/11/22_21:15:15.182]",
                            "Huier-J1900", "bypass", "success", Index);
                    fflush(Plain);
                }
            });
    }
    OV_LogFileRelease(static_cast<uint32_t>(Id));
    fclose(Plain);
}

static void BenchCommand()
{
    for (const int Count : {10, 100, 1000}) {
        Row(
            "OV_RTCExecCmd(\"true\") / popen, fgets, pclose by hand", Count, 11, 1.05,
            [](int Commands) {
                char Output[48];
                for (int Index = 0; Index < Commands; Index++) {
                    OV_RTCExecCmd("true", Output, sizeof(Output));
                }
            },
            [](int Commands) {
                for (int Index = 0; Index < Commands; Index++) {
                    CaptureByHand("true 2>&1");
                }
            });
    }
}

/* Two threads at once, each doing the whole work with its own module or by itself. */
static WORK OnTwoThreads(const std::function<void(int Thread, int Count)> &Work)
{
    return [Work](int Count) {
        std::thread Other(Work, 1, Count);
        Work(0, Count);
        Other.join();
    };
}

static void MallocAndFree(int Count, size_t Size)
{
    for (int Index = 0; Index < Count; Index++) {
        void *Block = malloc(Size);
        __asm__ volatile("" : : "r"(Block) : "memory"); /* the pair is not to be optimised away */
        free(Block);
    }
}

static void BenchMemory()
{
    static const int32_t Modules[] = {OV_MemModRegister("first", 5),
                                      OV_MemModRegister("second", 6)};
    static const int32_t Pool = OV_MemPoolCreate("bench", 5, 64, 0, 0);
    const auto Accounted = [](int Thread, int Count, size_t Size) {
        for (int Index = 0; Index < Count; Index++) {
            OV_MemFree(Modules[Thread], OV_MemAlloc(Modules[Thread], Size, 0));
        }
    };

    for (const size_t Size : {64U, 640U, 6400U}) {
        const std::string Name = "accounted alloc + free / malloc + free, " + std::to_string(Size);
        Row(
            Name.c_str(), 1000000, 11, 5, [&](int Count) { Accounted(0, Count, Size); },
            [&](int Count) { MallocAndFree(Count, Size); });
    }
    Row("the same of 64, two threads on two modules", 1000000, 11, 5,
        OnTwoThreads([&](int Thread, int Count) { Accounted(Thread, Count, 64); }),
        OnTwoThreads([](int /*Thread*/, int Count) { MallocAndFree(Count, 64); }));

    OV_RcuRegisterThread();
    Row(
        "pool alloc + free / malloc + free, 64", 1000000, 11, 4,
        [](int Count) {
            for (int Index = 0; Index < Count; Index++) {
                OV_MemPoolFree(Pool, OV_MemPoolAlloc(Pool));
            }
        },
        [](int Count) { MallocAndFree(Count, 64); });
    OV_RcuUnregisterThread();
}

/* Every result goes into the sum, and both ways must come to the same one: no work can be left out,
 * and none can be another work. */
static uint32_t s_AddressSum;

static void AddAddress(const OV_INET_ADDR &Address)
{
    s_AddressSum =
        s_AddressSum * 31 + (Address.All[0] ^ Address.All[1] ^ Address.All[2]) + Address.All[3];
}

static void AddText(const char *Text, size_t Length)
{
    s_AddressSum =
        s_AddressSum * 31 + static_cast<uint32_t>(Text[Length - 1]) + static_cast<uint32_t>(Length);
}

static constexpr size_t ADDRESS_COUNT = 8;

/* An address row: each way does its work on the address of that index, over and over. */
template <typename OURS, typename THEIRS>
static void AddressRows(const char *Name, double Target, OURS Ours, THEIRS Theirs)
{
    const auto Repeat = [](int Count, auto Work) {
        s_AddressSum = 0;
        for (int Index = 0; Index < Count; Index++) {
            Work(static_cast<size_t>(Index) % ADDRESS_COUNT);
        }
        return s_AddressSum;
    };

    if (Repeat(ADDRESS_COUNT, Ours) != Repeat(ADDRESS_COUNT, Theirs)) {
        fprintf(stderr, "%s: different results\n", Name);
        exit(1);
    }
    for (const int Count : {10000, 100000, 1000000}) {
        Row(
            Name, Count, 11, Target, [&](int Addresses) { Repeat(Addresses, Ours); },
            [&](int Addresses) { Repeat(Addresses, Theirs); });
    }
}

/* Our reader takes the length: counting it belongs to the work, as libc counts it, too. */
static bool ReadAddress(const char *Text, OV_IN_ADDR *Address)
{
    const bool Read = OV_SafeStrGetIp4Addr(Text, strlen(Text), &Address->S4Addr) != nullptr;

    Address->S4Addr = htonl(Address->S4Addr);
    return Read;
}

static bool ReadAddress(const char *Text, OV_IN6_ADDR *Address)
{
    return OV_SafeStrGetIp6Addr(Text, strlen(Text), Address) != nullptr;
}

template <int Family, typename ADDRESS, auto Format>
static void BenchFamily(const char *ReadName, double ReadTarget, const char *WriteName,
                        const char *const (&Texts)[ADDRESS_COUNT])
{
    OV_INET_ADDR Addresses[ADDRESS_COUNT] = {};

    for (size_t Index = 0; Index < ADDRESS_COUNT; Index++) {
        inet_pton(Family, Texts[Index], &Addresses[Index]);
    }
    AddressRows(
        ReadName, ReadTarget,
        [&](size_t Index) {
            OV_INET_ADDR Address = {};
            if (!ReadAddress(Texts[Index], reinterpret_cast<ADDRESS *>(&Address))) {
                abort();
            }
            AddAddress(Address);
        },
        [&](size_t Index) {
            OV_INET_ADDR Address = {};
            if (inet_pton(Family, Texts[Index], &Address) != 1) {
                abort();
            }
            AddAddress(Address);
        });
    AddressRows(
        WriteName, 1.1,
        [&](size_t Index) {
            char Text[INET6_ADDRSTRLEN];
            const auto *Address = reinterpret_cast<const ADDRESS *>(&Addresses[Index]);
            AddText(Text, Format(Text, sizeof(Text), Address));
        },
        [&](size_t Index) {
            char Text[INET6_ADDRSTRLEN];
            inet_ntop(Family, &Addresses[Index], Text, sizeof(Text));
            AddText(Text, strlen(Text));
        });
}

static void BenchAddresses()
{
    BenchFamily<AF_INET, OV_IN_ADDR, OV_SafeStrFormatIp4Addr>(
        "IPv4 read / inet_pton", 0.7, "IPv4 write / inet_ntop",
        {"0.0.0.0", "10.0.0.1", "8.8.8.8", "192.168.1.1", "255.255.255.255", "172.16.254.13",
         "100.64.0.200", "1.2.3.4"});
    BenchFamily<AF_INET6, OV_IN6_ADDR, OV_SafeStrFormatIp6Addr>(
        "IPv6 read / inet_pton", 1.0, "IPv6 write / inet_ntop",
        {"::", "::1", "fe80::1", "2001:db8::1:0:0:1", "fe80::21a:2bff:fe3c:4d5e",
         "2001:db8:85a3:8d3:1319:8a2e:370:7348", "::ffff:192.168.1.1", "ff02::fb"});
}

/* What one message of the running row has, on both of its connections. */
static std::atomic<size_t> s_MessageSize;

/* Sends each message back. One thread serves both connections: two could be put on processors that
 * are not equally busy. */
static void ServeBoth(int Listening)
{
    static char Message[1 << 16];
    struct pollfd Sockets[] = {{accept(Listening, nullptr, nullptr), POLLIN, 0},
                               {accept(Listening, nullptr, nullptr), POLLIN, 0}};

    for (ssize_t Count = 1; Count > 0;) {
        poll(Sockets, 2, -1);
        const int Socket = Sockets[Sockets[0].revents != 0 ? 0 : 1].fd;
        Count = recv(Socket, Message, s_MessageSize, MSG_WAITALL);
        if (Count > 0) {
            send(Socket, Message, static_cast<size_t>(Count), MSG_NOSIGNAL);
        }
    }
    close(Sockets[0].fd);
    close(Sockets[1].fd);
}

/* A client of ours against a bare socket: the same bytes both ways, one send on each side. */
struct EXCHANGE {
    const char *Name;
    uint16_t Port;
    size_t HeaderSize;
    OV_ERR_T (*Start)();
    void (*Stop)();
    OV_ERR_T (*Exchange)(char *Payload, size_t Bytes);
};

static void ExchangeByHand(int Socket, std::vector<char> *Message)
{
    if (send(Socket, Message->data(), Message->size(), MSG_NOSIGNAL) < 0 ||
        recv(Socket, Message->data(), Message->size(), MSG_WAITALL) <= 0) {
        abort();
    }
}

static void BenchExchange(const EXCHANGE &Client)
{
    struct sockaddr_in Address = {};
    const int One = 1;
    const int Listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int Plain = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto *Peer = reinterpret_cast<const struct sockaddr *>(&Address);

    Address.sin_family = AF_INET;
    Address.sin_port = htons(Client.Port);
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(Listening, SOL_SOCKET, SO_REUSEADDR, &One, sizeof(One));
    if (bind(Listening, Peer, sizeof(Address)) != 0 || listen(Listening, 2) != 0 ||
        Client.Start() != 0 || connect(Plain, Peer, sizeof(Address)) != 0) {
        abort();
    }
    std::thread Service(ServeBoth, Listening);
    for (const size_t Bytes : {64U, 640U, 6400U}) {
        const std::string Name = std::string(Client.Name) + " exchange of " +
                                 std::to_string(Bytes) + " bytes / a bare socket";
        std::vector<char> Message(Client.HeaderSize + Bytes);

        s_MessageSize = Message.size();
        Row(
            Name.c_str(), 2000, 21, 1.2,
            [&](int Count) {
                for (int Index = 0; Index < Count; Index++) {
                    if (Client.Exchange(Message.data(), Bytes) != 0) {
                        abort();
                    }
                }
            },
            [&](int Count) {
                for (int Index = 0; Index < Count; Index++) {
                    ExchangeByHand(Plain, &Message);
                }
            });
    }
    close(Plain);
    Client.Stop();
    Service.join();
    close(Listening);
}

static OV_DISPATCH_DESC *s_Dispatch;

static void BenchExchanges()
{
    BenchExchange({"IMC", 55435, sizeof(OV_IMC_REQ_HDR), OV_ImcConfClientInit,
                   OV_ImcConfClientRelease,
                   [](char *Payload, size_t Bytes) { /* module and operation 0 come back as 0 */
                                                     return OV_ImcConfGet(0, 0, Payload, Bytes,
                                                                          Payload, Bytes);
                   }});
    BenchExchange({"dispatch", 54321, sizeof(OV_DISPATCH_HDR),
                   [] {
                       const OV_ERR_T Error = OV_DispatchClientInitNoNotify();
                       s_Dispatch = OV_DispatchAllocDesc(0);
                       return Error;
                   },
                   [] {
                       OV_DispatchFreeDesc(s_Dispatch);
                       OV_DispatchClientExit();
                   },
                   [](char *Payload, size_t Bytes) {
                       OV_DispatchInitHdr(s_Dispatch, 0, 0);
                       OV_DispatchPut(s_Dispatch, Payload, static_cast<int32_t>(Bytes));
                       return OV_DispatchConfigure(s_Dispatch);
                   }});
}

int main()
{
    Begin();
    BenchTool();
    BenchCommand();
    BenchLog();
    BenchLogFile();
    BenchMemory();
    BenchAddresses();
    BenchExchanges();
    /* The figure includes what this process held when it started the tool. */
    printf("bypass_cmd peak memory: at most %ld kB (at most 8192)\n", RunTool().ru_maxrss);
    return 0;
}
