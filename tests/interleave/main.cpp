// Threads do random things with tasks, groups and queues, round after round, each with the next seed.
//
// Arguments: for how many seconds (default: 10), and the first seed. ZEL_INTERLEAVE_WITHOUT names operations to be left
// out, as in Operations.cpp, and what else World::has() asks for, with commas between.
#include "World.h"

#include <Interleaving.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QRandomGenerator>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

quint64 presentSeed = 0;

void report()
{
    std::fprintf(stderr, "This is seed %llu. Where the threads are:\n", static_cast<unsigned long long>(presentSeed));
    zel::reportInterleaving();
}

void onAbort(int)
{
    report();
    std::_Exit(3);
}

} // namespace

#ifdef __SANITIZE_ADDRESS__
extern "C" void __sanitizer_set_death_callback(void (*callback)());
extern "C" int __lsan_do_recoverable_leak_check();
#endif

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_set_death_callback(report);
#endif
    std::signal(SIGABRT, onAbort);
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
    presentSeed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : QRandomGenerator::global()->generate();
    int rounds = 0;
    for (const QDeadlineTimer end(qint64(seconds) * 1000); rounds == 0 || !end.hasExpired(); ++rounds, ++presentSeed) {
        std::fprintf(stderr, "seed %llu\n", static_cast<unsigned long long>(presentSeed));
        World(presentSeed).run();
#ifdef __SANITIZE_ADDRESS__
        // After each round, so that the seed is known.
        if (__lsan_do_recoverable_leak_check())
            std::abort();
#endif
    }
    std::printf("%d rounds\n", rounds);
    return 0;
}
