// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "obexd_watch.h"

#include "constants.h"
#include "obex_logging.h"

#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
sigset_t childSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}
} // namespace

void ObexdWatch::blockChildSignal()
{
    const sigset_t set = childSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ObexdWatch::ObexdWatch(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , bus(bus)
{ }

void ObexdWatch::start()
{
    auto *watcher = new QDBusServiceWatcher(
        Names::ObexService, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &ObexdWatch::ownerChanged);

    const sigset_t set = childSignalSet();
    signalFd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (signalFd == -1) {
        const int error = errno;
        qCWarning(lcObexAgent) << "cannot follow obexd's process:" << qt_error_string(error);
    } else {
        auto *notifier = new QSocketNotifier(signalFd, QSocketNotifier::Read, this);
        connect(notifier, &QSocketNotifier::activated, this, &ObexdWatch::childSignal);
    }
    // obexd may have ended before this program began.
    childSignal();

    present = bus.interface()->isServiceRegistered(Names::ObexService);
    if (present)
        emit appeared();
    else
        qCInfo(lcObexAgent) << "waiting for obexd on the session bus";
}

void ObexdWatch::ownerChanged(const QString &, const QString &oldOwner, const QString &newOwner)
{
    if (present && !oldOwner.isEmpty()) {
        present = false;
        emit gone(QStringLiteral("obexd left the session bus"));
    } else if (!present && !newOwner.isEmpty()) {
        present = true;
        emit appeared();
    }
}

void ObexdWatch::childSignal()
{
    signalfd_siginfo info;
    while (signalFd != -1 && read(signalFd, &info, sizeof info) == sizeof info) { }
    // Only an end counts; a child that was stopped or continued is left alone.
    int status = 0;
    const pid_t child = waitpid(-1, &status, WNOHANG);
    if (child > 0)
        emit gone(QStringLiteral("obexd (process %1) ended").arg(child));
}
