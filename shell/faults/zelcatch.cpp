// SPDX-License-Identifier: MIT
#include "zelcatch.h"
#include "zelguard_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <atomic>
#include <cstring>

static std::atomic<bool> restartWanted{false};

Exception::Exception()
    : m_where(QStringLiteral(""))
    , m_what(QStringLiteral(""))
    , m_file(QStringLiteral(""))
    , m_line(QStringLiteral("0"))
{
}

Exception::Exception(const char *what)
    : Exception()
{
    m_what = QString::fromUtf8(what);
}

Exception::Exception(const char *where, const char *what)
    : Exception(what)
{
    m_where = QString::fromUtf8(where);
}

Exception::Exception(const char *what, const char *file, int line)
    : Exception(what)
{
    m_file = QString::fromUtf8(file);
    m_line = QString::number(line);
}

Exception::Exception(const char *where, const char *what, const char *file, int line)
    : Exception(what, file, line)
{
    m_where = QString::fromUtf8(where);
}

Exception::Exception(const Exception &other) = default;

Exception::~Exception() = default;

static QString plainText(const Exception &e)
{
    return QStringLiteral("Exception in %1: %2, file %3, line %4").arg(e.where(), e.what(), e.file(), e.line());
}

static QString assertText(const Exception &e)
{
    return QStringLiteral("ASSERT failure %1: \"%2\", file %3, line %4").arg(e.where(), e.what(), e.file(), e.line());
}

QString Exception::ToString()
{
    return plainText(*this);
}

QString Exception::ToString() const
{
    return plainText(*this);
}

QString Exception::where()
{
    return m_where;
}

QString Exception::what()
{
    return m_what;
}

QString Exception::file()
{
    return m_file;
}

QString Exception::line()
{
    return m_line;
}

QString Exception::single()
{
    return const_cast<const Exception *>(this)->Exception::single();
}

QString Exception::where() const
{
    return m_where;
}

QString Exception::what() const
{
    return m_what;
}

QString Exception::file() const
{
    return m_file;
}

QString Exception::line() const
{
    return m_line;
}

QString Exception::single() const
{
    return QStringLiteral("Receive signal number is:'%1'").arg(m_single);
}

void Exception::setsingle(int number)
{
    m_single = number;
}

void Exception::setwhere(QString where)
{
    m_where = where;
}

void Exception::setwhat(QString what)
{
    m_what = what;
}

void Exception::setfile(QString file)
{
    m_file = file;
}

void Exception::setline(QString line)
{
    m_line = line;
}

void Exception::copy(const Exception &other)
{
    *this = other;
}

Exception *Exception::initException(Exception *e, const char *where, const char *what, const char *file, int line)
{
    e->setwhere(QString::fromUtf8(where));
    e->setwhat(QString::fromUtf8(what));
    return exception_creat(e, file, line);
}

AssertException::~AssertException() = default;

QString AssertException::ToString()
{
    return assertText(*this);
}

QString AssertException::ToString() const
{
    return assertText(*this);
}

ErrorException::~ErrorException() = default;

QString ErrorException::ToString()
{
    return what();
}

QString ErrorException::ToString() const
{
    return what();
}

Exception *exception_creat(Exception *e, const char *file, int line)
{
    e->setfile(QString::fromUtf8(file));
    e->setline(QString::number(line));
    return e;
}

Exception exception_creat(Exception e, const char *file, int line)
{
    exception_creat(&e, file, line);
    return e;
}

void exception_raise(Exception *e, const char *file, int line)
{
    zelRaise(exception_creat(e, file, line));
}

void zel_assert_x(const char *where, const char *what, const char *file, int line)
{
    exception_raise(Exception::initException(new AssertException, where, what, file, line), file, line);
}

Exception *exception_down()
{
    return new Exception("timer stoped");
}

void zel_noop() { }

ExceptionHelp::ExceptionHelp()
    : threadId(QThread::currentThreadId())
    , tid(pthread_self())
{
    memset(&env, 0, sizeof env);
}

ExceptionHelp::~ExceptionHelp() = default;

void ExceptionHelp::Config()
{
    if (exception && state != SIGQUIT)
        return;
    QString text = QStringLiteral("unknow error fault");
    if (state == SIGSEGV)
        text = QStringLiteral("Segmentation fault (core dumped)");
    else if (state == SIGQUIT)
        text = QStringLiteral("Thread or Process is forced exit!");
    else if (state == SIGABRT)
        text = QStringLiteral("Aborted (core dumped)");
    else if (state == SIGALRM)
        text = QStringLiteral("Application Timerout,Max time is %1").arg(timeoutMs);
    else if (state == SIGINT)
        text = QStringLiteral("Interrupted");
    delete exception;
    exception = new ErrorException;
    exception->setwhat(text);
    exception->setwhere(link.note);
    exception->setsingle(state);
    if (!link.note.isEmpty())
        qDebug() << "Exception of another type:" << link.note;
}

int ExceptionHelp::Kill()
{
    return except_stack->Kill(threadId);
}

/// Posted, because an event loop that has not started yet would not hear of it.
static void endApplication(int code)
{
    ZELCriticalSection section;
    if (QCoreApplication *application = QCoreApplication::instance())
        QMetaObject::invokeMethod(
            application, [code] { QCoreApplication::exit(code); }, Qt::QueuedConnection);
}

bool zelRestartWanted()
{
    return restartWanted;
}

void CloseApplication()
{
    endApplication(0);
}

void ReStartApplication()
{
    qDebug() << "System will restart now...";
    restartWanted = true;
    endApplication(8888);
}
