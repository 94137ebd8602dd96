#pragma once

#include <QtGlobal>

#include <atomic>

/// How far the work is. Working threads add to it after each block, the run reads it now and then.
struct WorkDone {
    std::atomic<qint64> bytes = 0;
    std::atomic<qint64> files = 0;
};
