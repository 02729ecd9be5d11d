/*
 * A row is a ratio: our way against what one would do by hand, alternating in one run so that a
 * noisy machine falls on both. The median of the rounds counts.
 */
#ifndef BENCHMARK_H
#define BENCHMARK_H

#include <algorithm>
#include <functional>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <vector>

inline double Seconds()
{
    struct timespec Now;

    clock_gettime(CLOCK_MONOTONIC, &Now);
    return static_cast<double>(Now.tv_sec) + static_cast<double>(Now.tv_nsec) / 1e9;
}

inline double Median(std::vector<double> Values)
{
    std::sort(Values.begin(), Values.end());
    return Values[Values.size() / 2];
}

using WORK = std::function<void(int Count)>;

/* Count is the work of one round; each way does it Rounds times. Undo, if there is one, follows
 * each of them and is not timed. */
inline void Row(
    const char *Name, int Count, int Rounds, double Target, const WORK &Ours, const WORK &Theirs,
    const WORK &Undo = [](int /*Count*/) {})
{
    std::vector<double> OurTimes;
    std::vector<double> TheirTimes;
    const auto Time = [&](const WORK &Work) {
        const double Start = Seconds();
        Work(Count);
        const double Used = Seconds() - Start;
        Undo(Count);
        return Used / Count;
    };

    Time(Ours);
    Time(Theirs);
    for (int Round = 0; Round < Rounds; Round++) {
        OurTimes.push_back(Time(Ours));
        TheirTimes.push_back(Time(Theirs));
    }
    const double Mine = Median(OurTimes);
    const double Other = Median(TheirTimes);
    printf("%-58s %8d %10.3f us %10.3f us %6.3g  (at most %.3g)%s\n", Name, Count, Mine * 1e6,
           Other * 1e6, Mine / Other, Target, Mine / Other <= Target ? "" : "  MISSED");
    fflush(stdout);
}

/* First thing in main: the rows change routes, links and files of wherever they run. */
inline void Begin()
{
    if (getenv("RTC_SANDBOX") == nullptr) {
        fputs("run the benchmarks by ./dev bench: they need the sandbox\n", stderr);
        exit(1);
    }
    printf("%-58s %8s %13s %13s %6s\n", "ours / by hand", "count", "ours", "by hand", "ratio");
}

#endif
