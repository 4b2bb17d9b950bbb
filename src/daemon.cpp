// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "daemon.h"

#include "adapter_proxy.h"
#include "agent_adaptor.h"
#include "constants.h"
#include "file_uploader.h"
#include "filemonitor.h"
#include "logging.h"
#include "pairing_agent.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusPendingReply>
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
    const QString name = QString::fromUtf8(file.readLine().constData());
    return name.isEmpty() ? Names::FallbackHostname : name;
}

namespace {
// One blocking agent-manager call; a refusal is logged and start-up goes on.
void callAgentManager(QDBusInterface *manager, const QString &method, const QVariantList &args,
    const char *failureText)
{
    QDBusPendingReply<> reply = manager->callWithArgumentList(QDBus::AutoDetect, method, args);
    reply.waitForFinished();
    if (!reply.isValid())
        qCCritical(lcDaemon) << failureText << manager->lastError().message();
}
} // namespace

Daemon::Daemon()
{
    auto *uploader = new FileUploader;
    uploader->moveToThread(&uploaderThread);
    connect(&uploaderThread, &QThread::finished, uploader, &QObject::deleteLater);
    connect(this, &Daemon::startUploader, uploader, &FileUploader::doWork);
    connect(uploader, &FileUploader::uploadDone, this, &Daemon::uploaderDone);
    connect(uploader, &FileUploader::error, this, &Daemon::uploadError);
    uploaderThread.start(QThread::InheritPriority);

    auto *monitor = new FileMonitor;
    monitor->moveToThread(&monitorThread);
    connect(&monitorThread, &QThread::finished, monitor, &QObject::deleteLater);
    connect(this, &Daemon::startMonitor, monitor, &FileMonitor::doWork);
    connect(monitor, &FileMonitor::fileEvent, this, &Daemon::processFileEvent);
    connect(monitor, &FileMonitor::fileFound, this, &Daemon::processFoundFile);
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

    // Kept until the process ends like every BlueZ proxy.
    adapter = new BluetoothAdapterInterface(Names::BluezService, Names::AdapterPath, bus, nullptr);
    if (!adapter->isValid()) {
        qCCritical(lcDaemon) << "iface not valid, something went wrong!";
        return false;
    }
    if (!setUpBluez())
        return false;

    // A restarted bluetoothd knows no agent: follow the owner of BlueZ's name and set it up
    // again, once its adapter is there.
    auto *watcher = new QDBusServiceWatcher(
        Names::BluezService, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &Daemon::bluezOwnerChanged);
    connect(agent, &PairingAgent::adapterAdded, this, &Daemon::adapterAdded);
    return true;
}

bool Daemon::setUpBluez()
{
    // A failed read counts as "off" and leads to the write.
    if (!adapter->property("Powered").toBool()
        && !adapter->setProperty("Powered", QVariant(true))) {
        qCCritical(lcDaemon) << "not powered...";
        return false;
    }
    // A refused name is no reason to stop.
    adapter->setProperty("Alias", QVariant(getHostname()));

    agent->loadDevices();

    if (!manager)
        manager = new QDBusInterface(Names::BluezService, Names::AgentManagerPath,
            Names::AgentManagerInterface, QDBusConnection::systemBus());
    const QVariant agentPath = QVariant::fromValue(QDBusObjectPath(Names::AgentPath));
    callAgentManager(manager, QStringLiteral("RegisterAgent"),
        { agentPath, QVariant(Names::AgentCapability) }, "RegisterAgent unsuccessful!");
    callAgentManager(manager, QStringLiteral("RequestDefaultAgent"), { agentPath },
        "RequestDefaultAgent unsuccessful!");
    return true;
}

void Daemon::bluezOwnerChanged(const QString &, const QString &oldOwner, const QString &newOwner)
{
    if (!oldOwner.isEmpty()) {
        qCCritical(lcDaemon) << "BlueZ left the system bus";
        agent->forgetBluez();
        waitingForAdapter = false;
    }
    if (newOwner.isEmpty())
        return;
    if (!adapter->property("Powered").isValid()) {
        qCCritical(lcDaemon) << "BlueZ is on the system bus without hci0: waiting for it";
        waitingForAdapter = true;
        return;
    }
    qCCritical(lcDaemon) << "BlueZ is on the system bus: registering the agent";
    setUpBluez();
}

void Daemon::adapterAdded()
{
    if (!waitingForAdapter)
        return;
    waitingForAdapter = false;
    qCCritical(lcDaemon) << "hci0 appeared: registering the agent";
    setUpBluez();
}

void Daemon::processFileEvent(const QByteArray &name, uint mask)
{
    // Equality, not a bit test: only a plain close-after-write, a writer done with a file, counts.
    if (mask == IN_CLOSE_WRITE)
        processFoundFile(name);
}

void Daemon::processFoundFile(const QByteArray &name)
{
    // The same file may come twice (its close event and a sweep): the uploader takes it once.
    emit startUploader(Names::ReceiveDir.toLocal8Bit() + '/' + name);
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
