// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#include "obex_agent.h"

#include "constants.h"
#include "obex_logging.h"
#include "obexd_watch.h"
#include "receive_folder.h"

#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QFile>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {
void removeStaged(const QByteArray &staged)
{
    if (unlink(staged.constData()) != 0 && errno != ENOENT) {
        const int error = errno;
        qCWarning(lcObexAgent) << "cannot remove a staged push:" << staged
                               << qt_error_string(error);
    }
}
} // namespace

ObexAgent::ObexAgent(const QDBusConnection &bus)
    : bus(bus)
    , obexd(new ObexdWatch(bus, this))
{ }

bool ObexAgent::start()
{
    if (!bus.registerObject(Names::ObexAgentPath, this, QDBusConnection::ExportScriptableSlots)) {
        qCCritical(lcObexAgent) << "cannot export the agent on the session bus:"
                                << bus.lastError().message();
        return false;
    }
    // One subscription each for all transfers; obexd is the only sender that counts.
    bus.connect(Names::ObexService, QString(), Names::PropertiesInterface,
        QStringLiteral("PropertiesChanged"), this,
        SLOT(transferChanged(QString, QVariantMap, QStringList, QDBusMessage)));
    bus.connect(Names::ObexService, Names::ObjectManagerPath, Names::ObjectManagerInterface,
        QStringLiteral("InterfacesRemoved"), this,
        SLOT(objectRemoved(QDBusObjectPath, QStringList)));
    connect(obexd, &ObexdWatch::appeared, this, &ObexAgent::registerWithObexd);
    // Queued: obexd may be gone before the event loop runs, and only a running loop can end.
    connect(obexd, &ObexdWatch::gone, this, &ObexAgent::quit, Qt::QueuedConnection);
    obexd->start();
    return true;
}

void ObexAgent::registerWithObexd()
{
    const QDBusMessage call =
        QDBusMessage::createMethodCall(Names::ObexService, Names::ObexAgentManagerPath,
            Names::ObexAgentManagerInterface, QStringLiteral("RegisterAgent"))
        << QVariant::fromValue(QDBusObjectPath(Names::ObexAgentPath));
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        // Without the agent obexd refuses every push: start again, obexd with it.
        if (w->isError())
            quit(QStringLiteral("obexd refused the agent: ") + w->error().message());
        else
            qCInfo(lcObexAgent) << "registered with obexd";
    });
}

QString ObexAgent::AuthorizePush(const QDBusObjectPath &transfer)
{
    // Answered once obexd has told the push's name and length; obexd serves us meanwhile.
    setDelayedReply(true);
    latest = transfer.path();
    QDBusMessage getAll = QDBusMessage::createMethodCall(Names::ObexService, transfer.path(),
                              Names::PropertiesInterface, QStringLiteral("GetAll"))
        << Names::ObexTransferInterface;
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(getAll), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
        [this, call = message(), path = transfer.path()](QDBusPendingCallWatcher *w) {
            w->deleteLater();
            authorise(call, path, *w);
        });
    return {};
}

void ObexAgent::authorise(
    const QDBusMessage &call, const QString &transfer, const QDBusPendingReply<QVariantMap> &reply)
{
    if (transfer != latest) {
        bus.send(call.createErrorReply(Names::ObexCanceledError, QStringLiteral("Cancelled")));
        return;
    }
    if (reply.isError()) {
        qCWarning(lcObexAgent) << "push refused, obexd did not tell what it is:"
                               << reply.error().message();
        bus.send(call.createErrorReply(Names::ObexRejectedError, QStringLiteral("Unknown")));
        return;
    }
    const QVariantMap properties = reply.value();
    const QString name = properties.value(QStringLiteral("Name")).toString();
    // Without a length, obexd reports a push that the phone broke off as complete: nothing would
    // tell half a document from a whole one.
    const QVariant size = properties.value(QStringLiteral("Size"));
    if (!size.isValid()) {
        qCInfo(lcObexAgent) << "push refused, it has no length:" << name;
        bus.send(call.createErrorReply(Names::ObexRejectedError, QStringLiteral("No length")));
        return;
    }
    const QByteArray staged = ReceiveFolder::stage();
    if (staged.isEmpty()) {
        const int error = errno;
        qCWarning(lcObexAgent) << "push refused, cannot stage it:" << name
                               << qt_error_string(error);
        bus.send(call.createErrorReply(Names::ObexRejectedError, QStringLiteral("No room")));
        return;
    }
    pushes.insert(transfer, { name, size.toULongLong(), staged });
    qCInfo(lcObexAgent) << "push accepted:" << name << size.toULongLong() << "bytes";
    bus.send(call.createReply(QFile::decodeName(staged)));
}

void ObexAgent::Release() { quit(QStringLiteral("obexd released the agent")); }

void ObexAgent::Cancel() { finish(std::exchange(latest, QString()), QStringLiteral("cancelled")); }

void ObexAgent::transferChanged(const QString &interface, const QVariantMap &changed,
    const QStringList &, const QDBusMessage &signal)
{
    const QString status = changed.value(QStringLiteral("Status")).toString();
    if (interface == Names::ObexTransferInterface
        && (status == QLatin1String("complete") || status == QLatin1String("error")))
        finish(signal.path(), status);
}

void ObexAgent::objectRemoved(const QDBusObjectPath &path, const QStringList &interfaces)
{
    // Gone without a last word: it may have ended either way.
    if (interfaces.contains(Names::ObexTransferInterface))
        finish(path.path(), QStringLiteral("gone"));
}

void ObexAgent::finish(const QString &transfer, const QString &status)
{
    const auto found = pushes.constFind(transfer);
    if (found == pushes.constEnd())
        return;
    const Push push = *found;
    pushes.erase(found);
    if (status == QLatin1String("complete")) {
        struct stat written;
        const bool whole = lstat(push.staged.constData(), &written) == 0 && S_ISREG(written.st_mode)
            && qulonglong(written.st_size) == push.size;
        if (whole) {
            const QString published =
                ReceiveFolder::publish(push.staged, ReceiveFolder::safeName(push.name));
            if (!published.isEmpty()) {
                qCInfo(lcObexAgent) << "published:" << push.name << "as" << published;
                return;
            }
            const int error = errno;
            qCWarning(lcObexAgent) << "cannot publish:" << push.name << qt_error_string(error);
        } else {
            qCInfo(lcObexAgent) << "dropped:" << push.name << "complete, but not of its length";
        }
    } else {
        qCInfo(lcObexAgent) << "dropped:" << push.name << status;
    }
    removeStaged(push.staged);
}

void ObexAgent::quit(const QString &why)
{
    // One end of obexd is often seen twice (off the bus, and its process ended) before the loop
    // returns: said once, as the journal counts one warning per end.
    if (ending)
        return;
    ending = true;
    qCWarning(lcObexAgent).noquote() << why;
    QCoreApplication::exit(1);
}
