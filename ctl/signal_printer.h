// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef SIGNAL_PRINTER_H
#define SIGNAL_PRINTER_H

#include <QObject>
#include <QVariantMap>

class BluetoothAgentInterface;
class QDBusServiceWatcher;
class QTextStream;

// Prints every signal of the daemon as one readable line with a time stamp, and when the daemon
// leaves or joins the bus.
class SignalPrinter : public QObject
{
    Q_OBJECT

public:
    SignalPrinter(BluetoothAgentInterface *agent, QTextStream &out);

    // "Phone" AA:BB:CC:DD:EE:FF, "Tablet" ..., or "none".
    // One line with the time stamp in front.
    void print(const QString &line);

    static QString deviceList(const QVariantMap &devices);
    static QString quoted(const QString &text);

private:
    QTextStream &out;
    QDBusServiceWatcher *watcher;
};

#endif // SIGNAL_PRINTER_H
