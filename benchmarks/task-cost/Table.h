#pragma once

#include <benchmark/benchmark.h>

/// What is measured: ours and what it is compared with, and what the goals ask of them.
///
/// A function handles state.range(0) items in each of state.range(1) queues, groups or the like.
struct Workload {
    using Function = void (*)(benchmark::State &state);
    enum Quantity {
        CpuTime,
        WallTime, ///< for threads: the work is not done on the measuring one
        Bytes,    ///< the counter of that name
    };

    const char *name;
    Function ours;
    Function baseline = nullptr; ///< null: none
    int size = 1;
    double ratioGoal = 0;  ///< largest ratio of ours and the baseline; 0: none
    double costGoal = 0;   ///< largest cost of an item; 0: none
    int largeSize = 0;     ///< up to which the growth is measured; 0: it is not
    double growthGoal = 0; ///< largest ratio of what an item costs in the large size and in the small one
    Quantity quantity = CpuTime;
};

void printHeading();
/// Measures a workload and prints its rows: medians of what an item costs, and of the ratios of runs side by side.
void measure(const Workload &workload, bool measuresGrowth);
