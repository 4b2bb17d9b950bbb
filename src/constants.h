// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef CONSTANTS_H
#define CONSTANTS_H

#include <QString>

// Every bus name, object path, interface name and fixed file path of the daemon and of the OBEX
// receiver's agent.
namespace Names {

// Our own face on the system bus.
inline const QString AgentService = QStringLiteral("com.quorvane.BluetoothAgent");
inline const QString AgentPath = QStringLiteral("/BluetoothAgent");
inline const QString AgentInterface = QStringLiteral("org.bluez.Agent1");
inline const QString AgentCapability = QStringLiteral("DisplayYesNo");

// BlueZ.
inline const QString BluezService = QStringLiteral("org.bluez");
inline const QString AdapterPath = QStringLiteral("/org/bluez/hci0");
inline const QString AdapterInterface = QStringLiteral("org.bluez.Adapter1");
inline const QString DeviceInterface = QStringLiteral("org.bluez.Device1");
inline const QString DevicePathPrefix = QStringLiteral("/org/bluez/hci0/dev_");
inline const QString AgentManagerPath = QStringLiteral("/org/bluez");
inline const QString AgentManagerInterface = QStringLiteral("org.bluez.AgentManager1");
inline const QString ObjectManagerPath = QStringLiteral("/");
inline const QString ObjectManagerInterface = QStringLiteral("org.freedesktop.DBus.ObjectManager");
inline const QString PropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

// The one refusal BlueZ ever gets from the agent.
inline const QString RejectedError = QStringLiteral("org.bluez.Agent1.Rejected");
inline const QString RejectedMessage = QStringLiteral("Rejected");

// The host.
inline const QString HostnameFile = QStringLiteral("/etc/hostname");
inline const QString FallbackHostname = QStringLiteral("QuorvaneEmbosser");

// Received-file intake: the OBEX receiver writes into ReceiveDir, the print spooler reads SpoolDir.
inline const QString ReceiveDir = QStringLiteral("/var/spool/lp/obex");
inline const QString SpoolDir = QStringLiteral("/var/spool/lp/www");
// Where a received file goes, inside ReceiveDir, in the moment it is removed once its copy is
// spooled: its name is gone at once, so a writer who comes back either found it before or not at
// all.
inline const QString TakenName = QStringLiteral(".bluetooth-agent-taken");

// The OBEX receiver: obexd on a session bus of its own asks bluetooth-agent-obex about each push,
// which obexd writes into StagingDir; only whole documents are moved on into ReceiveDir. Inside
// the receive folder, so that the move is a rename; the daemon takes no folder from it.
inline const QString StagingDir = QStringLiteral("/var/spool/lp/obex/.incoming");
inline const QString ObexService = QStringLiteral("org.bluez.obex");
inline const QString ObexAgentManagerPath = QStringLiteral("/org/bluez/obex");
inline const QString ObexAgentManagerInterface = QStringLiteral("org.bluez.obex.AgentManager1");
inline const QString ObexTransferInterface = QStringLiteral("org.bluez.obex.Transfer1");
inline const QString ObexAgentPath = QStringLiteral("/ObexAgent");
inline const QString ObexRejectedError = QStringLiteral("org.bluez.obex.Error.Rejected");
inline const QString ObexCanceledError = QStringLiteral("org.bluez.obex.Error.Canceled");

} // namespace Names

#endif // CONSTANTS_H
