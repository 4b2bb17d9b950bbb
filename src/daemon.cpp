// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "daemon.h"

#include "adapter_proxy.h"
#include "agent_adaptor.h"
#include "bluez_setup.h"
#include "constants.h"
#include "dbus_types.h"
#include "file_uploader.h"
#include "filemonitor.h"
#include "logging.h"
#include "pairing_agent.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QFile>

#include <sys/inotify.h>

QString getHostname()
{
    QFile file(Names::HostnameFile);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qCCritical(lcDaemon) << "could not open /etc/hostname";
        return Names::FallbackHostname;
    }
    // Not trimmed: the line feed stays part of the name. A NUL byte ends it.
    const QString name = textUpToNul(file.readLine());
    return name.isEmpty() ? Names::FallbackHostname : name;
}

Daemon::Daemon()
    : uploader(new FileUploader)
{
    uploader->moveToThread(&uploaderThread);
    connect(&uploaderThread, &QThread::finished, uploader, &QObject::deleteLater);
    // Half copies are gone before the first document can be taken, and before the daemon
    // counts as started (its watch on the receive folder).
    connect(
        this, &Daemon::startMonitor, uploader, &FileUploader::start, Qt::BlockingQueuedConnection);
    connect(uploader, &FileUploader::uploadDone, this, &Daemon::uploaderDone);
    connect(uploader, &FileUploader::error, this, &Daemon::uploadError);
    uploaderThread.start(QThread::InheritPriority);

    auto *monitor = new FileMonitor;
    monitor->moveToThread(&monitorThread);
    connect(&monitorThread, &QThread::finished, monitor, &QObject::deleteLater);
    connect(this, &Daemon::startMonitor, monitor, &FileMonitor::doWork);
    // Routed on the monitor's own thread: a document never waits for the main thread's work.
    connect(
        monitor, &FileMonitor::fileEvent, this, &Daemon::processFileEvent, Qt::DirectConnection);
    connect(
        monitor, &FileMonitor::fileFound, this, &Daemon::processFoundFile, Qt::DirectConnection);
    connect(monitor, &FileMonitor::spoolChanged, uploader, &FileUploader::spoolChanged,
        Qt::DirectConnection);
    monitorThread.start(QThread::InheritPriority);
}

bool Daemon::init()
{
    agent = new PairingAgent;
    new AgentAdaptor(agent);

    QDBusConnection bus = QDBusConnection::systemBus();
    const bool objectRegistered =
        bus.registerObject(Names::AgentPath, agent, QDBusConnection::ExportAdaptors);
    // Claimed even when the object could not be exported.
    const bool serviceRegistered = bus.registerService(Names::AgentService);
    if (!objectRegistered) {
        qCCritical(lcDaemon) << "regObj failed";
        return false;
    }
    if (!serviceRegistered) {
        qCCritical(lcDaemon) << "regSrv failed";
        return false;
    }

    // Kept until the process ends, like the agent.
    adapter = new BluetoothAdapterInterface(Names::BluezService, Names::AdapterPath, bus, this);
    if (!adapter->isValid()) {
        qCCritical(lcDaemon) << "iface not valid, something went wrong!";
        return false;
    }
    if (!BluezSetUp(BluezSetUp::Start, adapter, agent, nullptr).run())
        return false;

    // A restarted bluetoothd knows no agent: follow the owner of BlueZ's name and set it up
    // again, once its adapter is there.
    auto *watcher = new QDBusServiceWatcher(
        Names::BluezService, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &Daemon::bluezOwnerChanged);
    connect(agent, &PairingAgent::adapterAdded, this, &Daemon::adapterAdded);
    return true;
}

void Daemon::setUpBluez(BluezSetUp::Occasion occasion)
{
    // One set-up at a time: whatever the last one still waited for no longer matters.
    delete setUp;
    setUp = new BluezSetUp(occasion, adapter, agent, this);
    connect(setUp, &BluezSetUp::adapterMissing, this, [this] { waitingForAdapter = true; });
    setUp->run();
}

void Daemon::bluezOwnerChanged(const QString &, const QString &oldOwner, const QString &newOwner)
{
    if (!oldOwner.isEmpty()) {
        qCCritical(lcDaemon) << "BlueZ left the system bus";
        delete setUp;
        agent->forgetBluez();
        waitingForAdapter = false;
    }
    if (!newOwner.isEmpty())
        setUpBluez(BluezSetUp::BluezCame);
}

void Daemon::adapterAdded()
{
    if (!waitingForAdapter)
        return;
    waitingForAdapter = false;
    qCCritical(lcDaemon) << "hci0 appeared: registering the agent";
    setUpBluez(BluezSetUp::AdapterCame);
}

void Daemon::processFileEvent(const QByteArray &name, uint mask)
{
    // Equality, not a bit test: only a writer done with a file, or a whole file moved in, counts.
    if (mask == IN_CLOSE_WRITE || mask == IN_MOVED_TO)
        processFoundFile(name);
}

void Daemon::processFoundFile(const QByteArray &name)
{
    // The same file may come many times (its events and a sweep): the uploader takes it once.
    uploader->enqueue(name);
}

void Daemon::uploaderDone(const QString &file)
{
    // Without init() there is no agent, and nobody on the bus to tell.
    if (agent)
        emit agent->TransferComplete(file);
}

void Daemon::uploadError(const QString &message)
{
    qCCritical(lcDaemon) << "uploadError:" << message;
}
