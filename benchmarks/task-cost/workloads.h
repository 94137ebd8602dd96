#pragma once

#include "Table.h"

#include <zel/common/Error.h>

#include <cstdint>
#include <memory>
#include <vector>

// The workloads by topic, in the order of the table.
std::vector<Workload> taskWorkloads();
std::vector<Workload> queueWorkloads();
std::vector<Workload> groupWorkloads();
std::vector<Workload> coroutineWorkloads();
std::vector<Workload> threadWorkloads();

/// Handles all posted events, deletions included.
void handleEvents();

inline const auto noWork = [] { return zel::Error(); };

/// How many items one container of an iteration takes.
inline int64_t sizeOf(const benchmark::State &state)
{
    return state.range(0);
}

/// How many queues, groups or the like an iteration has.
inline int64_t containersOf(const benchmark::State &state)
{
    return state.range(1);
}

template <typename Made, typename... Arguments>
std::vector<std::unique_ptr<Made>> make(int64_t count, const Arguments &...arguments)
{
    std::vector<std::unique_ptr<Made>> all;
    for (int64_t i = 0; i < count; ++i)
        all.push_back(std::make_unique<Made>(arguments...));
    return all;
}
