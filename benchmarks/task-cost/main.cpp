// task-cost: what the library costs beyond what its design cannot avoid. Ours and a skeleton without logic take turns.
//
// Prints a table with the default event dispatcher and, when that is another one, a table with Qt's own. With
// --no-growth the sizes of 10'000 and more are left out, as they are in the second table; --benchmark_filter takes a
// regular expression for the names of the workloads.

#include "Table.h"
#include "workloads.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QProcess>

#include <cstdio>

#include <malloc.h>

using namespace Qt::StringLiterals;

namespace {

bool hasGlibDispatcher()
{
    return QByteArray(QAbstractEventDispatcher::instance()->metaObject()->className()).contains("Glib");
}

/// The system maps memory once: that is its work, not ours.
void keepMemory()
{
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, -1);
}

void measureAll(bool measuresGrowth)
{
    std::printf("event dispatcher: %s\n", hasGlibDispatcher() ? "glib" : "Qt's own");
    printHeading();
    for (const auto workloads : {taskWorkloads, queueWorkloads, groupWorkloads, coroutineWorkloads, threadWorkloads}) {
        for (const Workload &workload : workloads())
            measure(workload, measuresGrowth);
    }
}

void measureWithOwnDispatcher(QStringList arguments)
{
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"QT_NO_GLIB"_s, u"1"_s);
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    arguments.removeFirst();
    process.start(QCoreApplication::applicationFilePath(), arguments << u"--no-growth"_s);
    process.waitForFinished(-1);
}

} // namespace

void handleEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    benchmark::Initialize(&argc, argv);
    keepMemory();
    measureAll(!arguments.contains(u"--no-growth"_s));
    if (hasGlibDispatcher()) {
        std::printf("\n");
        std::fflush(stdout);
        measureWithOwnDispatcher(arguments);
    }
}
