// SPDX-License-Identifier: MIT
#ifndef ZELSHELLGREETING_P_H
#define ZELSHELLGREETING_P_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>
#include <optional>

class QUuid;
class ZELArguments;
class ZELShellLoop;
class ZELShellPrivate;
struct ZELShellSettings;

/**
 * How a remote session begins: the handshake line, the login that it asks for, the banner.
 *
 * Who has not said who they are yet may neither send much nor take long: the line is bounded, and so is its time, the
 * more so while others wait to be accepted. On the core thread.
 */
class ZELShellGreeting
{
public:
    ZELShellGreeting(ZELShellPrivate &session, ZELShellLoop &loop);

    /// False when the session is not let in.
    bool shakeHands();
    void banner();

private:
    std::optional<QByteArray> readLine(int limit);
    bool isInTime();
    void log(const ZELArguments &args, const ZELShellSettings &settings);
    bool turnAway(const QString &reason);
    void login(const ZELArguments &args, const ZELShellSettings &settings);
    void loginByName(const ZELArguments &args, const QUuid &key, bool mayCreate);
    void joinLogin(const QUuid &key);
    void logFailedLogin(const QString &who, const QString &reason);

    ZELShellPrivate &m_session;
    ZELShellLoop &m_loop;
    QElapsedTimer m_begun;
};

#endif
