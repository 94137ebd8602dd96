#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

/// What is measured: ours and what it is compared with, for each size. Names are "workload/size/ours" and
/// ".../baseline".
struct Workload {
    using Function = void (*)(benchmark::State &state);

    const char *name;
    Function ours;
    Function baseline;
    std::vector<int> sizes; ///< items that one iteration handles
    double goal;            ///< largest ratio of ours and baseline
    double growthGoal;      ///< largest ratio of the largest size and the smallest; 0: none
    bool isWallTime;        ///< threads: the work is not done on the measuring one
};

/// Prints one table: medians of what an item costs and of the ratios of runs side by side.
class Table : public benchmark::BenchmarkReporter {
public:
    explicit Table(const std::vector<Workload> &workloads) : m_workloads(workloads) { }

    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;

private:
    using Key = std::pair<std::string, int>;
    /// Nanoseconds per item, a value per repetition.
    struct Costs {
        std::vector<double> ours;
        std::vector<double> baseline;
    };

    void printSize(const Workload &workload, int size, const Costs &costs, const Costs &smallest) const;

    const std::vector<Workload> &m_workloads;
    std::map<Key, Costs> m_costs;
};
