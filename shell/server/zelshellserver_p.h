// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSERVER_P_H
#define ZELSHELLSERVER_P_H

#include "zellife_p.h"
#include "zelshellcommandtree_p.h"
#include "zelshellserver.h"
#include "zelshellserverstate_p.h"

#include <atomic>
#include <memory>
#include <mutex>

class ZELAbstractStream;
class ZELAdmission;
class ZELStdDevice;
class ZELTcpServer;
class ZELTcpSocket;

class ZELShellServerPrivate
{
public:
    ZELShellServerPrivate();
    ~ZELShellServerPrivate();
    /// Hands a new shell the settings that are its own.
    void configure(ZELShell *shell, bool remote) const;
    QString cachePathNow() const;
    void closeOutgoing();
    /// Ends a terminal shell that was stopped and leaves the terminal to the next one.
    void replaceStoppedShell();

    const std::shared_ptr<ZELShellServerState> state = std::make_shared<ZELShellServerState>();
    ZELShellCollection collection;
    const std::shared_ptr<ZELAdmission> admission;
    const std::unique_ptr<ZELTcpServer> tcpServer;
    QPointer<ZELShell> mainShell;
    QPointer<ZELShell> stoppedShell; ///< by closeServer(), and perhaps still waiting for its next byte
    ZELStdDevice *mainDevice = nullptr; ///< of the last of these; goes with its shell
    std::shared_ptr<std::atomic<bool>> mainIsReplaced; ///< the end of that shell is not the process's
    ZELTcpSocket *outgoing = nullptr; ///< one that failed to connect; others belong to their shell
    ZELLife<ZELAbstractStream>::Ref served; ///< the outgoing connection that a shell has
    std::unique_ptr<QObject> jobCommands;

    mutable std::mutex mutex; ///< guards the fields below
    QString cachePath = QStringLiteral(".cache");
    QSqlDatabase database;
    QHostAddress listenAddress = QHostAddress::Any;
    int maxPendingConnections = 0;
};

/// What a registered path and a name stand for; an empty pin for nothing and for an illegal absolute path.
ZELShellCommandPin zelLocateCommand(const ZELShellServerState &state, const QString &path, const QString &name);

#endif
