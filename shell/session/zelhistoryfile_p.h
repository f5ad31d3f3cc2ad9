// SPDX-License-Identifier: MIT
#ifndef ZELHISTORYFILE_P_H
#define ZELHISTORYFILE_P_H

#include <QString>
#include <QStringList>

/**
 * The lines entered, kept in a file over sessions and shared by all processes that use the same one.
 *
 * Each line is added with a single write to a file of mode 0600; once that holds twice as many as are kept it is
 * written anew beside itself and takes the old one's place at once. The folder is locked meanwhile (flock(2)), for a
 * fifth of a second at most: then, as on a full or read-only disk, the line is not kept. Links are not followed. A line
 * of a file is an entry's bytes, with "\n" for a line feed and "\\" for a backslash.
 *
 * Any thread; no kill is taken meanwhile.
 */
class ZELHistoryFile
{
public:
    /// \a path empty: nothing is kept.
    explicit ZELHistoryFile(const QString &path = QString(), int limit = 1000);

    /// The newest entries, the oldest first, each once; none when the file cannot be read.
    QStringList load() const;
    /// False when the line could not be kept. The folder is made when it is missing, with mode 0700.
    bool add(const QString &line) const;
    bool clear() const;
    /// The file for a user's name, whatever its characters; below \a folder. An empty name is the terminal's own.
    static QString pathFor(const QString &folder, const QString &user);

private:
    bool compact() const;

    QString m_path;
    int m_limit;
};

#endif
