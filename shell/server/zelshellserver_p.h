// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSERVER_P_H
#define ZELSHELLSERVER_P_H

#include "zellife_p.h"
#include "zelshellcommandtree_p.h"
#include "zelshellserver.h"
#include "zelshellserverstate_p.h"

#include <memory>
#include <mutex>

class ZELAbstractStream;
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

    const std::shared_ptr<ZELShellServerState> state = std::make_shared<ZELShellServerState>();
    ZELShellCollection collection;
    const std::unique_ptr<ZELTcpServer> tcpServer;
    QPointer<ZELShell> mainShell;
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
