// SPDX-License-Identifier: MIT
#include "zelclientstatement_p.h"
#include "zelguard_p.h"
#include "zelshellclient_p.h"
#include "zelshellprocess_p.h"

#include <QDebug>
#include <algorithm>

using Lock = std::lock_guard<std::mutex>;

void ZELShellClientPrivate::deliver(const ZELShellProcessHeader &packet)
{
    std::function<void(ZELShellProcessHeader)> hook;
    {
        Lock lock(mutex);
        hook = requestHook;
    }
    if (hook && hooks->enter()) {
        ZELFrame frame;
        zelGuard(frame.get(), [&] { hook(packet); });
        hooks->leave();
    }
    const Entry entry = entryFor(packet);
    if (entry.process) {
        entry.process->append(packet);
        entry.process->doWork();
    }
}

ZELShellClientPrivate::Entry ZELShellClientPrivate::entryFor(const ZELShellProcessHeader &packet)
{
    Lock lock(mutex);
    const auto found = numbered.find(packet.requestMethod);
    const bool complete = packet.isComplete();
    if (found != numbered.end()) {
        const Entry entry = *found;
        if (complete)
            numbered.erase(found);
        return entry;
    }
    const int at = looseIndex(packet.requestMethod);
    if (at < 0)
        return {};
    return complete ? loose.takeAt(at) : loose.at(at);
}

int ZELShellClientPrivate::looseIndex(const QString &key) const
{
    const auto with = [this](const QString &wanted) {
        for (int i = 0; i < loose.size(); ++i)
            if (loose[i].pending && loose[i].process->key == wanted)
                return i;
        return -1;
    };
    const int exact = with(key);
    return exact >= 0 || isOldNumber(key) ? exact : with(QString());
}

/// Packets that still come for a removed record must not be taken for those of a statement without a number.
bool ZELShellClientPrivate::isOldNumber(const QString &key) const
{
    const quint64 n = key.section(QLatin1Char('#'), 1, 1).toULongLong();
    return n > 0 && n <= m_number;
}

QList<ZELShellClientPrivate::Entry> ZELShellClientPrivate::takePending()
{
    QList<Entry> result;
    QHash<QString, Entry> unsent;
    for (auto it = numbered.cbegin(); it != numbered.cend(); ++it) {
        if (it->pending)
            result.append(*it);
        else
            unsent.insert(it.key(), *it);
    }
    numbered.swap(unsent);
    for (int i = loose.size() - 1; i >= 0; --i)
        if (loose[i].pending)
            result.append(loose.takeAt(i));
    return result;
}

int ZELShellClientPrivate::pending() const
{
    ZELCriticalSection section;
    Lock lock(mutex);
    const auto isPending = [](const Entry &entry) { return entry.pending != nullptr; };
    return int(std::count_if(numbered.begin(), numbered.end(), isPending)
        + std::count_if(loose.begin(), loose.end(), isPending));
}

std::shared_ptr<ZELShellProcess> ZELShellClientPrivate::create(const QString &line, bool background)
{
    ZELCriticalSection section;
    Lock lock(mutex);
    const ZELClientStatement statement = zelNumberStatement(line, ++m_number);
    if (!statement.refusal.isEmpty() || (statement.numbered && numbered.contains(statement.key))) {
        const QString reason = statement.refusal.isEmpty() ? QStringLiteral("number in use") : statement.refusal;
        qWarning("ZELShellClient::createProcess: %s", qPrintable(reason));
        error = reason;
        return nullptr;
    }
    auto record = std::make_shared<ZELShellProcess>();
    ZELShellProcessPrivate &d = *record->d;
    d.client = weak_from_this();
    d.gate = hooks;
    d.record = record;
    d.commandLine = statement.line;
    d.key = statement.key;
    d.numbered = statement.numbered;
    d.background = background || statement.background;
    if (d.numbered)
        numbered.insert(d.key, {record->d, nullptr});
    return record;
}

bool ZELShellClientPrivate::send(const std::shared_ptr<ZELShellProcessPrivate> &process)
{
    const Entry entry{process, process->record.lock()};
    {
        ZELCriticalSection section;
        Lock lock(mutex);
        if (process->numbered)
            numbered.insert(process->key, entry);
        else
            loose.append(entry);
    }
    // Entered first: an end of the connection from here on releases the record, or lets the line fail.
    if (sendLine(process->commandLine, process->background))
        return true;
    // A stopped caller cannot release it; the end of the connection, which may be near, does that.
    return zelStopWanted() || !forget(process.get());
}

bool ZELShellClientPrivate::forget(const ZELShellProcessPrivate *process)
{
    Entry gone; // destroyed behind the lock: it may hold the last reference to a record
    ZELCriticalSection section;
    Lock lock(mutex);
    const auto found = numbered.find(process->key);
    if (found != numbered.end() && found->process.get() == process) {
        gone = *found;
        numbered.erase(found);
    }
    for (int i = 0; i < loose.size() && !gone.process; ++i)
        if (loose[i].process.get() == process)
            gone = loose.takeAt(i);
    return gone.process != nullptr;
}

void ZELShellClientPrivate::remove(const ZELShellProcess &record)
{
    forget(record.d.get());
}

std::shared_ptr<ZELShellProcess> ZELShellClientPrivate::find(const QString &key) const
{
    ZELCriticalSection section;
    Lock lock(mutex);
    const auto found = numbered.constFind(key);
    if (found != numbered.cend())
        return found->process->record.lock();
    for (const Entry &entry : loose)
        if (!key.isEmpty() && entry.process->key == key)
            return entry.pending;
    return nullptr;
}

ZELShellClient::ZELShellClient(QObject *parent)
    : QObject(parent)
    , d(std::make_shared<ZELShellClientPrivate>(this))
{
}

ZELShellClient::~ZELShellClient()
{
    d->life.end();
    d->hooks->close();
    d->close();
    d->hooks->awaitOthers();
}

void ZELShellClient::setUser(const QString &name, const QString &password)
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    d->user = name;
    d->password = password;
}

void ZELShellClient::setKey(const QUuid &key)
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    d->key = key;
}

bool ZELShellClient::connectToHost(const QString &host, quint16 port, int ms)
{
    const QDeadlineTimer deadline(ms);
    const auto opener = [&](QString &reason) { return ZELClientSocket::connectTo(host, port, deadline, reason); };
    return d->open(std::cref(opener), deadline);
}

bool ZELShellClient::listen(const QString &address, quint16 port)
{
    return d->listen(address, port);
}

quint16 ZELShellClient::listenPort() const
{
    const auto listener = d->get(&ZELShellClientPrivate::listener);
    return listener ? listener->localPort() : 0;
}

bool ZELShellClient::waitForHost(int ms)
{
    const QDeadlineTimer deadline(ms);
    const auto opener = [&](QString &reason) {
        const auto listener = d->get(&ZELShellClientPrivate::listener);
        if (listener)
            return listener->accept(deadline, reason);
        reason = QStringLiteral("not listening");
        return std::shared_ptr<ZELClientSocket>();
    };
    return d->open(std::cref(opener), deadline);
}

void ZELShellClient::close()
{
    d->close();
}

bool ZELShellClient::isConnected() const
{
    return d->liveConnection() != nullptr;
}

bool ZELShellClient::isLogin() const
{
    return d->get(&ZELShellClientPrivate::login);
}

QString ZELShellClient::banner() const
{
    return d->get(&ZELShellClientPrivate::banner);
}

QUuid ZELShellClient::connectId() const
{
    return d->get(&ZELShellClientPrivate::connectId);
}

QString ZELShellClient::errorString() const
{
    return d->get(&ZELShellClientPrivate::error);
}

std::shared_ptr<ZELShellProcess> ZELShellClient::createProcess(const QString &line, bool background)
{
    return d->create(line, background);
}

std::shared_ptr<ZELShellProcess> ZELShellClient::execute(const QString &line, bool background)
{
    auto process = d->create(line, background);
    if (process)
        process->send();
    return process;
}

std::shared_ptr<ZELShellProcess> ZELShellClient::findProcess(const QString &key) const
{
    return d->find(key);
}

void ZELShellClient::removeProcess(const std::shared_ptr<ZELShellProcess> &process)
{
    if (process)
        d->remove(*process);
}

int ZELShellClient::pendingProcesses() const
{
    return d->pending();
}

bool ZELShellClient::sendLine(const QString &line, bool background)
{
    return d->sendLine(line, background);
}

void ZELShellClient::setTerminalHook(std::function<void(QByteArray)> hook, int columns)
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    d->terminalHook = std::move(hook);
    d->terminalColumns = std::max(columns, 0);
}

bool ZELShellClient::sendKeys(const QByteArray &bytes)
{
    return d->sendBytes(bytes);
}

void ZELShellClient::setRequestHook(std::function<void(ZELShellProcessHeader)> hook)
{
    ZELCriticalSection section;
    Lock lock(d->mutex);
    d->requestHook = std::move(hook);
}
