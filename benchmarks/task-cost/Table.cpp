#include "Table.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double medianOfRatios(const std::vector<double> &values, const std::vector<double> &others)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(values.size(), others.size()); ++i)
        ratios.push_back(values[i] / others[i]);
    return median(ratios);
}

} // namespace

void Table::ReportRuns(const std::vector<Run> &runs)
{
    for (const Run &run : runs) {
        if (run.run_type != Run::RT_Iteration || run.error_occurred)
            continue;
        std::istringstream name(run.benchmark_name());
        std::string workload;
        std::string size;
        std::string side;
        std::getline(name, workload, '/');
        std::getline(name, size, '/');
        std::getline(name, side, '/');
        const auto known = std::find_if(m_workloads.begin(), m_workloads.end(),
                                        [&](const Workload &candidate) { return candidate.name == workload; });
        const double time = known->isWallTime ? run.real_accumulated_time : run.cpu_accumulated_time;
        Costs &costs = m_costs[{workload, std::stoi(size)}];
        const double perItem = time / double(run.iterations) / std::stoi(size) * 1e9;
        (side == "ours" ? costs.ours : costs.baseline).push_back(perItem);
    }
}

void Table::Finalize()
{
    std::printf("%-34s %8s %10s %10s %6s %6s %7s %6s\n", "workload", "items", "ours ns", "base ns", "ratio", "goal",
                "growth", "goal");
    for (const Workload &workload : m_workloads) {
        for (const int size : workload.sizes) {
            const auto costs = m_costs.find({workload.name, size});
            if (costs != m_costs.end())
                printSize(workload, size, costs->second, m_costs[{workload.name, workload.sizes.front()}]);
        }
    }
}

void Table::printSize(const Workload &workload, int size, const Costs &costs, const Costs &smallest) const
{
    const double ratio = medianOfRatios(costs.ours, costs.baseline);
    std::printf("%-34s %8d %10.0f %10.0f %6.2f %6.2f", workload.name, size, median(costs.ours), median(costs.baseline),
                ratio, workload.goal);
    if (workload.growthGoal > 0 && size == workload.sizes.back())
        std::printf(" %7.2f %6.2f", median(costs.ours) / median(smallest.ours), workload.growthGoal);
    std::printf("\n");
}
