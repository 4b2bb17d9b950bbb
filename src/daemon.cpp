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

    // Used for start-up only, and kept until the process ends like every BlueZ proxy.
    auto *adapter =
        new BluetoothAdapterInterface(Names::BluezService, Names::AdapterPath, bus, nullptr);
    if (!adapter->isValid()) {
        qCCritical(lcDaemon) << "iface not valid, something went wrong!";
        return false;
    }
    // A failed read counts as "off" and leads to the write.
    if (!adapter->property("Powered").toBool()
        && !adapter->setProperty("Powered", QVariant(true))) {
        qCCritical(lcDaemon) << "not powered...";
        return false;
    }
    // A refused name is no reason to stop.
    adapter->setProperty("Alias", QVariant(getHostname()));

    agent->loadDevices();

    auto *manager = new QDBusInterface(
        Names::BluezService, Names::AgentManagerPath, Names::AgentManagerInterface, bus);
    const QVariant agentPath = QVariant::fromValue(QDBusObjectPath(Names::AgentPath));
    callAgentManager(manager, QStringLiteral("RegisterAgent"),
        { agentPath, QVariant(Names::AgentCapability) }, "RegisterAgent unsuccessful!");
    callAgentManager(manager, QStringLiteral("RequestDefaultAgent"), { agentPath },
        "RequestDefaultAgent unsuccessful!");
    return true;
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
