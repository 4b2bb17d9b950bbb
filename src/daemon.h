#ifndef DAEMON_H
#define DAEMON_H

#include <QObject>
#include <QString>

class PairingAgent;

// The adapter's name: the first line of the host-name file, its line feed included.
QString getHostname();

// The daemon's one-time start-up on the system bus.
class Daemon : public QObject
{
    Q_OBJECT

public:
    Daemon();

    // False when the daemon cannot run; the process then exits before its event loop.
    bool init();

private:
    PairingAgent *agent = nullptr;
};

#endif // DAEMON_H
