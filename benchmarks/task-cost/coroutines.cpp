#include "workloads.h"
std::vector<Workload> coroutineWorkloads()
{
    return {};
}
