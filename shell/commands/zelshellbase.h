// SPDX-License-Identifier: MIT
#ifndef ZELSHELLBASE_H
#define ZELSHELLBASE_H

#include "zelshell_export.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QUuid>
#include <QVariant>
#include <memory>

class ZELAbstractStream;
class ZELArguments;
class ZELShellBasePrivate;
class ZELShellCommandTree;
class ZELThread;

/**
 * The face of a shell session that commands and the server see; ZELShell is the implementation.
 *
 * A command reaches its session through ZELArguments::Sender(). The identity texts (product, version, hardware,
 * custom) are plain data of the host, shown in the banner of a remote session; set them before the session starts,
 * best in a slot on ZELShellServer::shellConnected connected with Qt::DirectConnection.
 *
 * Threads: getStream(), getUuid(), shellName(), IsMain(), isNoTerminal() may be called from any thread while the
 * session lives; Stop() from any thread.
 */
class ZELSHELL_EXPORT ZELShellBase : public QObject
{
    Q_OBJECT
public:
    explicit ZELShellBase(QObject *parent = nullptr);
    ~ZELShellBase() override;

    /// The session's byte stream; not owned by the caller, dies with the session.
    virtual ZELAbstractStream *getStream() = 0;
    /// The connection id shown in the banner; the user's id after a login.
    virtual QUuid getUuid() = 0;
    virtual void setUuid(QUuid uuid) = 0;
    /// Runs the code given with "--string" or read with "--file", statement by statement; the last one's value.
    virtual QVariant ExecuteString(ZELArguments args) = 0;
    /// A copy of the command tree, owned by the caller; null here.
    virtual ZELShellCommandTree *getCommandTree(bool withSystem);
    /// True for the session on the process's terminal; false here.
    virtual bool IsMain();
    /// True when the session neither echoes nor prompts.
    virtual bool isNoTerminal() = 0;
    virtual QString shellName() = 0;

    virtual QString productId();
    virtual void setProductId(QString id);
    virtual QString versionId();
    virtual void setVersionId(QString id);
    virtual QString hardId();
    virtual void setHardId(QString id);
    virtual QString custom();
    virtual void setCustomId(QString id);

    /// shellName(), "@" and the session's index: an identity, not a licence text.
    virtual QString shellLicence() = 0;
    /// The threads of the background jobs started from this session; empty here.
    virtual QList<QPointer<ZELThread>> getRunnings();
    /// Asks the session to end; it does so at its next byte or at the end of its input.
    virtual void Stop() = 0;

Q_SIGNALS:
    void Started();
    void Stoped(); // the spelling is part of the interface
    void Error(QString errorString);
    void ProcessReceived();

protected:
    /// To be called first in a subclass's destructor: from then on records no longer reach this session, and those
    /// that are reaching it on other threads have finished.
    void endLife();

private:
    friend class ZELArgumentsPrivate;
    std::unique_ptr<ZELShellBasePrivate> d;
};

#endif
