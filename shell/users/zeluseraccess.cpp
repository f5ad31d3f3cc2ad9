// SPDX-License-Identifier: MIT
#include "zeluseraccess_p.h"

#include <QSqlDriver>
#include <QThread>
#include <QVector>
#include <algorithm>
#include <atomic>

namespace {

// Never destroyed: users may log out from destructors that run after main().
std::mutex &databaseMutex()
{
    static auto *one = new std::mutex;
    return *one;
}

bool isInMemory(const QString &name)
{
    return name.isEmpty() || name.contains(QLatin1String(":memory:")) || name.contains(QLatin1String("mode=memory"));
}

} // namespace

ZELUserAccess::ZELUserAccess(const QSqlDatabase &db)
    : m_lock(databaseMutex())
{
    if (!db.isValid() || db.driver()->thread() == QThread::currentThread())
        m_db = db;
    else if (isInMemory(db.databaseName()))
        qWarning("ZELUser: an in-memory database serves only the thread that opened it");
    else
        openClone(db);
}

ZELUserAccess::~ZELUserAccess()
{
    m_db = QSqlDatabase();
    if (!m_cloneName.isEmpty())
        QSqlDatabase::removeDatabase(m_cloneName);
}

void ZELUserAccess::openClone(const QSqlDatabase &db)
{
    static std::atomic<quint64> number{0};
    m_cloneName = QStringLiteral("ZELUser clone %1").arg(++number);
    m_db = QSqlDatabase::cloneDatabase(db, m_cloneName);
    QStringList options = m_db.connectOptions().split(QLatin1Char(';'), Qt::SkipEmptyParts);
    // The first of two equal options would be overruled, so a value that the host chose stands.
    options.prepend(QStringLiteral("QSQLITE_BUSY_TIMEOUT=30000"));
    m_db.setConnectOptions(options.join(QLatin1Char(';')));
    m_db.open();
}

// A lone surrogate counts too: the database engine takes the code unit behind it for its other half, and with it the
// closing quote of the statement. The two last code units it would store as another character.
bool zelFitsStatement(const QString &text)
{
    const QChar refused[]{QLatin1Char('\''), QChar(QChar::Null), QChar(0xfffe), QChar(0xffff)};
    const auto isRefused
        = [&](QChar c) { return std::find(std::begin(refused), std::end(refused), c) != std::end(refused); };
    return text.isValidUtf16() && std::none_of(text.begin(), text.end(), isRefused);
}

bool zelFitsTableName(const QString &name)
{
    // Every connection reads the names of all tables; a few huge ones would slow down everybody's login.
    constexpr int longest = 255;
    const auto isPart = [](QChar c) {
        return c.unicode() >= 128 || c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('$');
    };
    // The engine reads over a leading byte order mark: the history would be that of another name.
    const QString notFirst = QStringLiteral("0123456789$\uFEFF");
    return !name.isEmpty() && name.size() <= longest && !notFirst.contains(name.at(0)) && zelFitsStatement(name)
        && std::all_of(name.begin(), name.end(), isPart);
}
