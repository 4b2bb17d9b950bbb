// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef DAEMON_H
#define DAEMON_H

#include "bluez_setup.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThread>

class BluetoothAdapterInterface;
class FileUploader;
class PairingAgent;

// The adapter's name: the first line of the host-name file, its line feed included.
QString getHostname();

// The heart of the process: start-up on the system bus, the two worker threads of the
// received-file intake, and the routing between them and the pairing agent.
class Daemon : public QObject
{
    Q_OBJECT

public:
    // Creates the file monitor and the uploader on threads of their own and starts both.
    Daemon();

    // False when the daemon cannot run; the process then exits before its event loop.
    bool init();

signals:
    void startMonitor();

public slots:
    void uploaderDone(const QString &file);
    void uploadError(const QString &message);
    // Called on the file monitor's thread.
    void processFileEvent(const QByteArray &name, uint mask);
    void processFoundFile(const QByteArray &name);

private slots:
    void bluezOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void adapterAdded();

private:
    // BlueZ's part of start-up again, without waiting for BlueZ.
    void setUpBluez(BluezSetUp::Occasion occasion);

    // Never quit or waited for: they run as long as the process.
    QThread uploaderThread;
    QThread monitorThread;
    // Lives on uploaderThread; its enqueue() may be called from any thread.
    FileUploader *const uploader;
    PairingAgent *agent = nullptr;
    BluetoothAdapterInterface *adapter = nullptr;
    QPointer<BluezSetUp> setUp;
    // A new BlueZ came without its adapter: set it up when hci0 is announced.
    bool waitingForAdapter = false;
};

#endif // DAEMON_H
