// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef OBEX_AGENT_H
#define OBEX_AGENT_H

#include <QByteArray>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariantMap>

class ObexdWatch;

// obexd's agent: obexd asks it where to write each push. A push goes into a file of its own in
// the staging folder, and reaches the receive folder only when obexd reports it complete and the
// file holds exactly the announced length; anything else is removed. Bluedevil receives the same
// way: accept into a temporary place, move on completion.
class ObexAgent : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.obex.Agent1")

public:
    explicit ObexAgent(const QDBusConnection &bus);

    // Exports the agent and waits for obexd to register with it. False when the agent cannot be
    // exported; once running, the process ends with exit code 1 when obexd goes.
    bool start();

public slots:
    // A phone pushes a document: where obexd is to write it, or org.bluez.obex.Error.Rejected.
    Q_SCRIPTABLE QString AuthorizePush(const QDBusObjectPath &transfer);
    // obexd has dropped the agent: no push will be asked about any more.
    Q_SCRIPTABLE void Release();
    // obexd gave up on the latest AuthorizePush: the phone went before the answer was used.
    Q_SCRIPTABLE void Cancel();

private slots:
    void registerWithObexd();
    void transferChanged(const QString &interface, const QVariantMap &changed,
        const QStringList &invalidated, const QDBusMessage &signal);
    void objectRemoved(const QDBusObjectPath &path, const QStringList &interfaces);

private:
    struct Push
    {
        QString name;
        qulonglong size = 0;
        QByteArray staged;
    };

    void authorise(const QDBusMessage &call, const QString &transfer,
        const QDBusPendingReply<QVariantMap> &reply);
    void finish(const QString &transfer, const QString &status);
    void quit(const QString &why);

    QDBusConnection bus;
    ObexdWatch *obexd;
    // Accepted pushes by transfer object, until obexd reports how they ended.
    QHash<QString, Push> pushes;
    // The transfer of the latest AuthorizePush, the one a Cancel is about.
    QString latest;
    bool ending = false;
};

#endif // OBEX_AGENT_H
