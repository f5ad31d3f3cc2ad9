// SPDX-License-Identifier: MIT
#include "zelhistoryfile_p.h"

#include "zelguard_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int largestFile = 8 << 20;

/// The folder's lock, for as long as this lives. Waits no longer than a person notices.
class FolderLock
{
public:
    explicit FolderLock(const QString &file)
        : m_folder(open(QFile::encodeName(QFileInfo(file).path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        for (int tries = 0; m_folder >= 0 && !m_isHeld && tries < 40; ++tries) {
            m_isHeld = flock(m_folder, LOCK_EX | LOCK_NB) == 0;
            if (!m_isHeld)
                usleep(5000);
        }
    }
    ~FolderLock()
    {
        if (m_folder >= 0)
            close(m_folder);
    }
    Q_DISABLE_COPY(FolderLock)
    bool isHeld() const { return m_isHeld; }

private:
    const int m_folder;
    bool m_isHeld = false;
};

QByteArray encoded(const QString &line)
{
    return line.toLatin1().replace('\\', "\\\\").replace('\n', "\\n");
}

QString decoded(const QByteArray &bytes)
{
    QByteArray line;
    for (int i = 0; i < bytes.size(); ++i) {
        const bool isEscaped = bytes.at(i) == '\\' && i + 1 < bytes.size();
        line += !isEscaped ? bytes.at(i) : bytes.at(++i) == 'n' ? '\n' : bytes.at(i);
    }
    return QString::fromLatin1(line);
}

/// Opens a regular file that is nobody's link; -1 otherwise.
int openFile(const QString &path, int flags)
{
    const int file = open(QFile::encodeName(path).constData(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    struct stat status;
    if (file >= 0 && (fstat(file, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(file);
        return -1;
    }
    return file;
}

} // namespace

ZELHistoryFile::ZELHistoryFile(const QString &path, int limit)
    : m_path(path)
    , m_limit(limit)
{
}

QString ZELHistoryFile::pathFor(const QString &folder, const QString &user)
{
    const QString name = QString::fromLatin1(QUrl::toPercentEncoding(user, QByteArray(), "."));
    return folder + QLatin1String(user.isEmpty() ? "/history" : "/history-") + name;
}

QStringList ZELHistoryFile::load() const
{
    const ZELCriticalSection section;
    const int descriptor = m_path.isEmpty() ? -1 : openFile(m_path, O_RDONLY);
    QFile file;
    if (descriptor < 0 || !file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
        return {};
    QStringList lines;
    file.seek(qMax(qint64(0), file.size() - largestFile));
    for (const QByteArray &bytes : file.readAll().split('\n')) {
        const QString line = decoded(bytes);
        lines.removeOne(line);
        if (!line.isEmpty())
            lines += line;
        if (lines.size() > m_limit)
            lines.removeFirst();
    }
    return lines;
}

bool ZELHistoryFile::add(const QString &line) const
{
    const ZELCriticalSection section;
    if (m_path.isEmpty() || m_limit == 0)
        return false;
    const QString folder = QFileInfo(m_path).path();
    if (!QDir(folder).exists() && QDir().mkpath(folder))
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const FolderLock lock(m_path);
    const int file = lock.isHeld() ? openFile(m_path, O_RDWR | O_APPEND | O_CREAT) : -1;
    if (file < 0)
        return false;
    // What a full disk has torn off ends here, so that it spoils one line only.
    const off_t end = lseek(file, 0, SEEK_END);
    char last = '\n';
    const bool isTorn = end > 0 && pread(file, &last, 1, end - 1) == 1 && last != '\n';
    const QByteArray bytes = (isTorn ? "\n" : "") + encoded(line) + '\n';
    const bool isKept = write(file, bytes.constData(), size_t(bytes.size())) == bytes.size();
    close(file);
    return isKept && compact();
}

/// Under the lock: leaves the newest lines when there are too many.
bool ZELHistoryFile::compact() const
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    if (file.readAll().count('\n') <= 2 * m_limit)
        return true;
    file.close();
    QSaveFile fresh(m_path);
    if (!fresh.open(QIODevice::WriteOnly))
        return false;
    fresh.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    for (const QString &line : load())
        fresh.write(encoded(line) + '\n');
    return fresh.commit();
}

bool ZELHistoryFile::clear() const
{
    const ZELCriticalSection section;
    const FolderLock lock(m_path);
    return !m_path.isEmpty() && lock.isHeld() && (QFile::remove(m_path) || !QFile::exists(m_path));
}
