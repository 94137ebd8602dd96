#include "Table.h"

#include <QRegularExpression>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int repetitions = 5;
/// A run of millions of items is long enough to need fewer.
constexpr int millionRepetitions = 2;

using Costs = std::vector<double>;

/// A function with its arguments, and what an item cost in each run of it.
struct Side {
    const char *name;
    Workload::Function function;
    int size;
    int containers;
    Costs costs;
};

/// Takes what an item cost from a run.
class Reporter : public benchmark::BenchmarkReporter {
public:
    Reporter(const Workload &workload, Side &side) : m_workload(workload), m_side(side) { }

    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !hasFailed(run))
                m_side.costs.push_back(costOf(run));
        }
    }

private:
    // The member's name depends on the version of the library.
    static bool hasFailed(const auto &run)
    {
        if constexpr (requires { run.error_occurred; })
            return run.error_occurred;
        else
            return bool(run.skipped);
    }

    double costOf(const Run &run) const
    {
        if (m_workload.quantity == Workload::Bytes)
            return run.counters.at("bytes");
        const bool isWallTime = m_workload.quantity == Workload::WallTime;
        const double seconds = isWallTime ? run.real_accumulated_time : run.cpu_accumulated_time;
        return seconds * 1e9 / double(run.iterations) / m_side.size / m_side.containers;
    }

    const Workload &m_workload;
    Side &m_side;
};

/// The sides take turns, so that a slow moment of the machine meets all of them.
void run(const Workload &workload, std::vector<Side> &sides, int count, bool oneIteration)
{
    for (int i = 0; i < count; ++i) {
        for (Side &side : sides) {
            if (!side.function)
                continue;
            const std::string name = std::string(workload.name) + '/' + side.name;
            auto *benchmark = benchmark::RegisterBenchmark(name.c_str(), side.function);
            benchmark->Args({side.size, side.containers});
            if (oneIteration)
                benchmark->Iterations(1);
            else if (workload.quantity == Workload::WallTime)
                benchmark->UseRealTime()->MinTime(0.1);
            else
                benchmark->MinTime(0.03);
            Reporter reporter(workload, side);
            benchmark::RunSpecifiedBenchmarks(&reporter, ".*");
            benchmark::ClearRegisteredBenchmarks();
        }
    }
}

double median(Costs values)
{
    if (values.empty())
        return 0;
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double medianOfRatios(const Costs &values, const Costs &others)
{
    Costs ratios;
    for (size_t i = 0; i < std::min(values.size(), others.size()); ++i)
        ratios.push_back(values[i] / others[i]);
    return median(ratios);
}

/// An empty cell for 0.
void printCell(int width, int precision, double value, const char *unit = "")
{
    char text[32] = "";
    if (value > 0)
        std::snprintf(text, sizeof text, "%.*f%s", precision, value, unit);
    std::printf(" %*s", width, text);
}

void measureSmall(const Workload &workload)
{
    std::vector<Side> sides{{"ours", workload.ours, workload.size, 1, {}},
                            {"baseline", workload.baseline, workload.size, 1, {}}};
    const bool isHeap = workload.quantity == Workload::Bytes;
    run(workload, sides, isHeap ? 1 : repetitions, isHeap);
    const char *unit = isHeap ? " B" : " ns";
    std::printf("%-32s %8d", workload.name, workload.size);
    printCell(10, 0, median(sides[0].costs), unit);
    printCell(10, 0, median(sides[1].costs), unit);
    printCell(6, 2, medianOfRatios(sides[0].costs, sides[1].costs));
    if (workload.costGoal > 0)
        printCell(8, 0, workload.costGoal, unit);
    else
        printCell(8, 2, workload.ratioGoal);
    std::printf("\n");
}

// The small size is measured again: as many small queues or groups as make the number of items of the large one,
// so that both are equally far from the caches. What an item costs in one small queue would show those.
void measureLarge(const Workload &workload)
{
    const int containers = workload.largeSize / workload.size;
    const int count = workload.largeSize < 1'000'000 ? repetitions : millionRepetitions;
    std::vector<Side> sides{{"small", workload.ours, workload.size, containers, {}},
                            {"large", workload.ours, workload.largeSize, 1, {}}};
    run(workload, sides, count, true);
    std::printf("%-32s %8d", "", workload.largeSize);
    printCell(10, 0, median(sides[1].costs), " ns");
    printCell(10, 0, 0);
    printCell(6, 2, 0);
    printCell(8, 2, 0);
    printCell(6, 2, medianOfRatios(sides[1].costs, sides[0].costs));
    printCell(6, 2, workload.growthGoal);
    std::printf("\n");
}

} // namespace

void printHeading()
{
    std::printf("%-32s %8s %10s %10s %6s %8s %6s %6s\n", "workload", "items", "ours", "baseline", "ratio", "goal",
                "growth", "goal");
}

void measure(const Workload &workload, bool measuresGrowth)
{
    const auto filter = QString::fromStdString(benchmark::GetBenchmarkFilter());
    if (filter != u"all" && !QString::fromUtf8(workload.name).contains(QRegularExpression(filter)))
        return;
    measureSmall(workload);
    if (measuresGrowth && workload.largeSize > 0)
        measureLarge(workload);
    std::fflush(stdout);
}
