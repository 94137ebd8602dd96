#include "Options.h"
#include "Output.h"
#include "ProgressLine.h"
#include "StopSignal.h"
#include "SumRun.h"

#include <QCoreApplication>

#include <unistd.h>

#include <csignal>
#include <cstdlib>

int main(int argc, char **argv)
{
    int exitStatus = 0;
    const auto options = parseOptions(argc, argv, exitStatus);
    if (!options)
        return exitStatus;

    // A reader that is gone shows as an error of the write.
    std::signal(SIGPIPE, SIG_IGN);
    const QCoreApplication application(argc, argv);
    const StopSignal stopSignal;
    Output output(STDOUT_FILENO, stopSignal.descriptor());
    Output errorOutput(STDERR_FILENO, stopSignal.descriptor());
    ProgressLine progressLine(STDERR_FILENO, options->showsProgress);
    for (Output *on : {&output, &errorOutput})
        on->setBeforeWrite([&progressLine] { progressLine.clear(); });
    SumRun run(*options, output, errorOutput, progressLine);
    QObject::connect(&stopSignal, &StopSignal::received, &progressLine, &ProgressLine::requestCancel);
    QObject::connect(&run, &SumRun::finished, &application, &QCoreApplication::exit);

    run.start();
    exitStatus = application.exec();
    // Work may stand in a read that the system does not give back; it must not see the end of main().
    if (run.isStopped())
        std::_Exit(exitStatus);
    return exitStatus;
}
