#include "StopSignal.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

int pipeEnds[2] = {-1, -1};

void onSignal(int)
{
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[1], "", 1);
    errno = error;
}

void handle(int signalNumber)
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    ::sigaction(signalNumber, &action, nullptr);
}

} // namespace

StopSignal::StopSignal(QObject *parent) : QObject(parent)
{
    if (::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("zel-sum: no pipe for signals");
    auto *notifier = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char taken;
        if (::read(pipeEnds[0], &taken, 1) == 1)
            Q_EMIT received();
    });
    handle(SIGINT);
    handle(SIGTERM);
}

int StopSignal::descriptor() const
{
    return pipeEnds[0];
}
