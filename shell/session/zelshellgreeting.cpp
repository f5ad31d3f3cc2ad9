// SPDX-License-Identifier: MIT
#include "zelshellgreeting_p.h"

#include "zeladmission_p.h"
#include "zelshell_p.h"
#include "zelshelllog_p.h"
#include "zelshellloop_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"
#include "zeluser.h"

#include <QDeadlineTimer>
#include <QStringBuilder>

namespace {

const int longestHandshake = 4096;
const int crowdedTimeMs = 1000; ///< while others wait to be accepted
const int lookAgainMs = 250;

QString line(const QString &text)
{
    return text.isEmpty() ? QString() : text + QLatin1Char('\n');
}

} // namespace

ZELShellGreeting::ZELShellGreeting(ZELShellPrivate &session, ZELShellLoop &loop)
    : m_session(session)
    , m_loop(loop)
{
    m_begun.start();
}

bool ZELShellGreeting::isInTime()
{
    const int limit = m_session.server->settings()->handshakeTime;
    while (!m_loop.hasByte()) {
        if (m_loop.waitForInput(QDeadlineTimer(lookAgainMs)))
            return true;
        const bool isCrowded = m_session.admission && m_session.admission->isHeld();
        if (limit > 0 && m_begun.hasExpired(isCrowded ? std::min(limit, crowdedTimeMs) : limit))
            return false;
    }
    return true;
}

// Nothing when the peer left before the line's end, since half a name is another user's, or has no time left. One byte
// more than the limit when the line is longer.
std::optional<QByteArray> ZELShellGreeting::readLine(int limit)
{
    QByteArray bytes;
    for (;;) {
        if (!isInTime()) {
            turnAway(QStringLiteral("Error : no handshake in time"));
            return std::nullopt;
        }
        const char byte = m_loop.getChar();
        if (byte == 0 && m_session.isStopping())
            return std::nullopt;
        // What Enter is to a telnet client that has been told to send each key.
        if (byte == '\n' || (byte == '\r' && m_loop.isTelnetClient()))
            return bytes;
        if (bytes.size() <= limit)
            bytes += byte;
    }
}

bool ZELShellGreeting::shakeHands()
{
    const int lineLimit = m_session.lineLimit;
    const int limit = lineLimit > 0 ? std::min(lineLimit, longestHandshake) : longestHandshake;
    m_session.noteWaiting();
    const std::optional<QByteArray> hello = readLine(limit);
    m_session.endHandshake();
    m_session.waitingSince = 0;
    if (!hello)
        return false;
    if (hello->size() > limit)
        return turnAway(zelTooLong(limit));
    const ZELArguments args(nullptr, QLatin1String("ZELShell ") + zelTextOf(*hello));
    const auto settings = m_session.server->settings();
    log(args, *settings);
    if (args.containsOpt(QStringLiteral("--nt")))
        m_session.noTerminal = true;
    m_session.output.setColumns(args.getOptFromString(QStringLiteral("--columns")).toInt());
    m_session.output.setRows(args.getOptFromString(QStringLiteral("--rows")).toInt());
    login(args, *settings);
    if (!settings->loginRequired || ZELUser::getUser(m_session.sessionUuid()).isLogin())
        return true;
    return turnAway(QStringLiteral("Error : login required"));
}

void ZELShellGreeting::log(const ZELArguments &args, const ZELShellSettings &settings)
{
    const QString shown
        = settings.passwordHidden ? zelWithoutPassword(QStringList(args)) : args.ToString(QStringLiteral(" "));
    ZELShellPrivate::log(QLatin1String("================ get input =[") % zelLogged(shown) % QLatin1Char(']'));
}

bool ZELShellGreeting::turnAway(const QString &reason)
{
    m_session.output.write(line(reason));
    ZELShellPrivate::log(QLatin1Char('[') % m_session.text(&ZELShellPrivate::peer) % QLatin1String("] ") % reason);
    m_session.because("it was turned away");
    m_session.stopState = ZELShellPrivate::Ended;
    return false;
}

void ZELShellGreeting::login(const ZELArguments &args, const ZELShellSettings &settings)
{
    const QUuid key(QLatin1Char('{') + args.getOptFromString(QStringLiteral("--key")) + QLatin1Char('}'));
    const bool hasUser = args.containsOpt(QStringLiteral("--user"));
    const bool hasKey = settings.keyLogin && args.containsOpt(QStringLiteral("--key"));
    // A failed login is no error: the session stays anonymous.
    if (hasKey && (!hasUser || ZELUser::getUser(key).isLogin()))
        joinLogin(key);
    else if (hasUser)
        loginByName(args, key, !settings.loginRequired);
}

void ZELShellGreeting::loginByName(const ZELArguments &args, const QUuid &key, bool mayCreate)
{
    const QString name = args.getOptFromString(QStringLiteral("--user"));
    if (name.startsWith(QLatin1String("--"))) // the option behind a name that was left out
        return logFailedLogin(QStringLiteral("user"), QStringLiteral("no name"));
    const QString password = args.getOptFromString(QStringLiteral("--password"));
    ZELUser user = ZELUser::loginAs(name, password, m_session.loginDatabase(), key, mayCreate);
    if (!user.isLogin())
        logFailedLogin(QLatin1String("user ") + name, user.getErrorString());
    if (user.isLogin())
        m_session.setSessionUuid(user.tid().isNull() ? user.uid() : user.tid());
    if (user.isLogin())
        m_session.takeUserRoles(user.userName());
}

void ZELShellGreeting::joinLogin(const QUuid &key)
{
    m_session.setSessionUuid(key);
    ZELUser user = ZELUser::getUser(key);
    if (user.isLogin())
        user.autologin();
    if (user.isLogin())
        m_session.takeUserRoles(user.userName());
    m_session.takesPartInLogin = user.isLogin();
    if (!user.isLogin())
        logFailedLogin(QStringLiteral("key"), QStringLiteral("nobody has logged in with it"));
}

void ZELShellGreeting::logFailedLogin(const QString &who, const QString &reason)
{
    ZELShellPrivate::log(QLatin1Char('[') % m_session.text(&ZELShellPrivate::peer) % QLatin1String("] failed login of ")
        % who % QLatin1String(" : ") % reason);
}

void ZELShellGreeting::banner()
{
    const auto id = m_session.identity();
    if (id.product.isEmpty())
        m_session.output.write(QStringLiteral("ZELShell Start\n"));
    m_session.output.write((id.product.isEmpty() ? QStringLiteral("ZELShell\n") : line(id.product)) + line(id.version)
        + line(id.hardware) + line(id.custom) + QLatin1String("ConnectId = ")
        + line(m_session.sessionUuid().toString()));
}
