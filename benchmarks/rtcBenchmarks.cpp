/*
 * Each row is a ratio: our way against what one would do by hand, alternating in one run so that a
 * noisy machine falls on both. The median of the rounds counts. Runs inside simulator/sandbox.sh.
 */
#include "boardModel.h"
#include "linuxRtc.h"
#include "orvaneImcConfClient.h"
#include "orvaneLibrtcLog.h"

#include <algorithm>
#include <functional>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

static constexpr const char *BOARD_PATH = "/tmp/board";

static double Seconds()
{
    struct timespec Now;

    clock_gettime(CLOCK_MONOTONIC, &Now);
    return static_cast<double>(Now.tv_sec) + static_cast<double>(Now.tv_nsec) / 1e9;
}

static double Median(std::vector<double> Values)
{
    std::sort(Values.begin(), Values.end());
    return Values[Values.size() / 2];
}

using WORK = std::function<void(int Count)>;

/* Count is the work of one round; each way does it Rounds times. */
static void Row(const char *Name, int Count, int Rounds, double Target, const WORK &Ours,
                const WORK &Theirs)
{
    std::vector<double> OurTimes;
    std::vector<double> TheirTimes;
    const auto Time = [Count](const WORK &Work) {
        const double Start = Seconds();
        Work(Count);
        return (Seconds() - Start) / Count;
    };

    Ours(Count);
    Theirs(Count);
    for (int Round = 0; Round < Rounds; Round++) {
        OurTimes.push_back(Time(Ours));
        TheirTimes.push_back(Time(Theirs));
    }
    const double Mine = Median(OurTimes);
    const double Other = Median(TheirTimes);
    printf("%-58s %8d %10.2f us %10.2f us %6.2f  (at most %.2f)%s\n", Name, Count, Mine * 1e6,
           Other * 1e6, Mine / Other, Target, Mine / Other <= Target ? "" : "  MISSED");
    fflush(stdout);
}

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

static constexpr int EXCHANGES = 2000;

/* Reads each request exactly and sends it back: RetCode is 0 where Mod and OpType are. */
static bool AnswerImc(int Socket)
{
    static char Message[1 << 16];
    const auto *Header = reinterpret_cast<const OV_IMC_REQ_HDR *>(Message);

    if (recv(Socket, Message, sizeof(*Header), MSG_WAITALL) <= 0) {
        return false;
    }
    if (Header->PayloadBytes != 0) {
        recv(Socket, Message + sizeof(*Header), Header->PayloadBytes, MSG_WAITALL);
    }
    return send(Socket, Message, sizeof(*Header) + Header->PayloadBytes, MSG_NOSIGNAL) > 0;
}

/* Serves two connections in the turn that Row uses them. One thread for both: the system may have
 * put a second one on a busier processor. */
static void ServeImc(int Listening)
{
    const int Sockets[] = {accept(Listening, nullptr, nullptr),
                           accept(Listening, nullptr, nullptr)};
    const int One = 1;

    for (const int Socket : Sockets) {
        setsockopt(Socket, IPPROTO_TCP, TCP_NODELAY, &One, sizeof(One));
    }
    for (int Count = 0; AnswerImc(Sockets[Count / EXCHANGES % 2]);) {
        Count = (Count + 1) % (2 * EXCHANGES);
    }
    close(Sockets[0]);
    close(Sockets[1]);
}

/* The same bytes both ways, one send on each side. */
static void BenchImc()
{
    struct sockaddr_in Address = {};
    const int Listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int Plain = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto *Peer = reinterpret_cast<const struct sockaddr *>(&Address);

    Address.sin_family = AF_INET;
    Address.sin_port = htons(55435);
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(Listening, Peer, sizeof(Address)) != 0 || listen(Listening, 2) != 0 ||
        OV_ImcConfClientInit() != 0 || connect(Plain, Peer, sizeof(Address)) != 0) {
        abort();
    }
    std::thread Service(ServeImc, Listening);
    for (const size_t Bytes : {64U, 640U, 6400U}) {
        const std::string Name =
            "an IMC exchange of " + std::to_string(Bytes) + " bytes / a socket";
        std::vector<char> Request(sizeof(OV_IMC_REQ_HDR) + Bytes);
        std::vector<char> Reply(Request.size());
        reinterpret_cast<OV_IMC_REQ_HDR *>(Request.data())->PayloadBytes = Bytes;

        Row(
            Name.c_str(), EXCHANGES, 21, 1.2,
            [&](int Count) {
                for (int Index = 0; Index < Count; Index++) {
                    if (OV_ImcConfGet(0, 0, Request.data(), Bytes, Reply.data(), Bytes) != 0) {
                        abort();
                    }
                }
            },
            [&](int Count) {
                for (int Index = 0; Index < Count; Index++) {
                    if (send(Plain, Request.data(), Request.size(), MSG_NOSIGNAL) < 0 ||
                        recv(Plain, Reply.data(), Reply.size(), MSG_WAITALL) <= 0) {
                        abort();
                    }
                }
            });
    }
    OV_ImcConfClientRelease();
    close(Plain);
    Service.join();
    close(Listening);
}

int main()
{
    printf("%-58s %8s %13s %13s %6s\n", "ours / by hand", "count", "ours", "by hand", "ratio");
    BenchTool();
    BenchCommand();
    BenchLog();
    BenchImc();
    /* The figure includes what this process held when it started the tool. */
    printf("bypass_cmd peak memory: at most %ld kB (at most 8192)\n", RunTool().ru_maxrss);
    return 0;
}
