#include "workloads.h"
std::vector<Workload> threadWorkloads()
{
    return {};
}
