// SPDX-License-Identifier: MIT
#ifndef ZELSHELLSTATE_P_H
#define ZELSHELLSTATE_P_H

#include "zelenvironment_p.h"
#include "zelstream_p.h"

#include <QHash>
#include <QPointer>
#include <QStringList>
#include <QVector>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class ZELShellCommandTree;
class ZELShellServerState;
class ZELStdDevice;
class ZELStream;
class ZELThread;

// The pieces of a session that its core thread and its jobs share. Each guards itself; none holds its lock while
// anything else of the session, or a command, runs.

/// The commands that are executing, as "name#number" with the lowest number that is free; however they were typed.
class ZELRunningNames
{
public:
    struct Entry
    {
        QString name;
        int number = 0;
        QString path;
        bool operator==(const Entry &other) const { return number == other.number && name == other.name; }
    };
    /// Adds an entry for the command at that path in its tree and returns it.
    Entry take(const QString &path);
    void drop(const Entry &entry);
    /// By the command's name, or by the end of its path.
    bool contains(const QString &name) const;
    QStringList all() const;

private:
    mutable std::mutex m_mutex;
    QVector<Entry> m_entries;
};

/// The way from the main root to the current directory, and the rules of paths.
class ZELShellDirectories
{
public:
    explicit ZELShellDirectories(std::shared_ptr<ZELShellServerState> server);

    bool enter(const QString &name);
    void quit();
    void reset();
    /// Null above the tree.
    ZELShellCommandTree *current() const;
    /// The names from the root, or from below it, each behind a "/".
    QString path(bool withRoot) const;
    /// What "cd" does, in one step for other threads: the words behind it; the piece that failed, empty for success.
    QString change(const QStringList &arguments);

    struct Place
    {
        ZELShellCommandTree *start = nullptr; ///< null: above the tree, and no way back into it
        QStringList pieces;
    };
    /// Where a path begins and what is to be walked from there. "Main" in front of an absolute path is the root itself,
    /// unless the root holds a child of that name.
    Place place(const QString &path) const;
    static QStringList split(const QString &path);
    static bool isAbsolute(const QString &path);

private:
    using Stack = QVector<ZELShellCommandTree *>;
    bool enterOn(Stack &stack, const QString &name) const;
    bool namesRoot(const QStringList &pieces) const;

    const std::shared_ptr<ZELShellServerState> m_server;
    mutable std::mutex m_mutex;
    Stack m_stack;
};

/**
 * One background job. Shared by the session, which shows it and waits for it, and the job's thread, which outlives
 * its session when it must. The thread object may be deleted as soon as the job has ended.
 */
class ZELShellJob
{
public:
    explicit ZELShellJob(const QString &statement);

    /// Tells the job its thread and lets it begin; ended is called there when nothing of the job runs any more.
    void open(ZELThread *thread, const std::function<void()> &ended);
    /// On the job's thread: waits for open(); the job can be killed from now on.
    void begin();
    void end();
    /// Ends the job's thread body, and with it the job; false when it has not begun or has ended.
    bool kill();
    /// False when the job still runs after that time.
    bool waitForEnd(int ms);
    bool hasEnded() { return waitForEnd(0); }

    const QString statement;
    const QString label;
    int number = 0; ///< by which the user names it, among the jobs of its session
    QPointer<ZELThread> thread() const;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_change;
    Qt::HANDLE m_threadId = nullptr;
    QPointer<ZELThread> m_thread;
    bool m_open = false;
    bool m_ended = false;
};

/// The jobs of a session; those that have ended leave at the next addition.
class ZELShellJobs
{
public:
    void append(const std::shared_ptr<ZELShellJob> &job);
    QVector<std::shared_ptr<ZELShellJob>> running() const;
    void clear();

private:
    mutable std::mutex m_mutex;
    QVector<std::shared_ptr<ZELShellJob>> m_jobs;
};

/**
 * The session's way out: its stream, which may die before a job does, and the knowledge whether the prompt is the last
 * thing that was written there, by whomever.
 */
class ZELSessionOutput
{
public:
    explicit ZELSessionOutput(ZELStream *stream);

    ZELStream *stream() const { return m_stream; }
    void write(const QString &text);
    void write(const QByteArray &bytes);
    /// Writes the text unless it was the last one written here and still stands.
    void prompt(const QString &text);
    /// Somebody else has written to the screen.
    void forgetPrompt() { m_promptMark = 0; }
    /// False for a null stream and once the stream is closed.
    bool isOpen();
    /// Columns of the terminal; 0 when the stream is none and no columns were set.
    int width();
    /// True for a standard device that is open and no terminal.
    bool isPiped();
    /// Those of the terminal at the other end of a connection.
    void setColumns(int columns) { m_columns = columns; }
    void setRows(int rows) { m_rows = rows; }
    bool hasWindow() const { return m_columns > 0 || m_rows > 0; }
    /// Columns and rows of the terminal; 0 for what is not known.
    QPair<int, int> window();
    /// Makes what others write pass a composer, which has them write around what stands on the screen; null for none.
    void setComposer(const std::function<QByteArray(const QByteArray &)> &composer);
    /// Calls the action while nobody else writes here.
    void alone(const std::function<void()> &action);
    /// Leaves all keys of the process's terminal to the session.
    void takeAllKeys();
    /// Makes the terminal raw again, whatever a command left behind, or as it was found; nothing for other streams.
    void restoreRawMode();
    void leaveRawMode();
    /// Lets Ctrl-C of the process's terminal raise SIGINT; false for other streams.
    bool enableInterruptKey(bool on);
    /// Takes one such byte out of what the device has received; false when there is none.
    bool takeByte(char byte);
    /// Ends the connection.
    void closeDevice();
    /// The same without waiting for the end.
    void closeDeviceSoon();
    /// Gives a device that is owned by nobody else up for deletion.
    void releaseDevice();

private:
    template <class F>
    void withDevice(F &&action);

    ZELStream *const m_stream;
    const ZELLife<ZELAbstractStream>::Ref m_life;
    const std::shared_ptr<const std::atomic<quint64>> m_writes; ///< of the stream, whoever writes
    std::atomic<quint64> m_promptMark{0};
    std::atomic<int> m_columns{0};
    std::atomic<int> m_rows{0};
};

#endif
