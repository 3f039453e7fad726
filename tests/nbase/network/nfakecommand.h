#ifndef NBASE_TESTS_NFAKECOMMAND_H
#define NBASE_TESTS_NFAKECOMMAND_H

#include "support/ntemporarydirectory.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtCore/QString>

#include <signal.h>

/**
 * A shell script in the place of a command. While the object exists, the search path is the directory of the
 * script alone. The script records its process id and its arguments, and sets $n to the number of the call,
 * from 1.
 */
class NFakeCommand
{
public:
    explicit NFakeCommand(const char* name)
        : m_name(QString::fromLatin1(name))
        , m_searchPath(qgetenv("PATH"))
    {
        qputenv("PATH", QFile::encodeName(m_directory.path()));
    }
    ~NFakeCommand() { qputenv("PATH", m_searchPath); }

    /** Makes the command run @a body, in which only builtin commands of the shell are found without their path. */
    void setScript(const QByteArray& body)
    {
        // Each call is recorded with one write(2), because commands may run at the same time.
        const QString path = m_directory.writeFile(
            m_name, "#!/bin/sh\n"
                    "directory=${0%/*}\n"
                    "n=0; [ ! -e $directory/count ] || read n < $directory/count\n"
                    "n=$((n + 1)); echo $n > $directory/count\n"
                    "line=$$; for argument; do line=\"$line|$argument\"; done\n"
                    "printf '%s\\n' \"$line\" >> $directory/calls\n" +
                        body + "\n");
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    /** Writes an empty file beside the command. */
    void writeFile(const char* name) const { m_directory.writeFile(QString::fromLatin1(name), QByteArray()); }

    /** Whether the file @a name exists beside the command. */
    bool hasFile(const char* name) const { return QFile::exists(m_directory.filePath(QString::fromLatin1(name))); }

    /** Removes the command. */
    void remove() { QFile::remove(m_directory.filePath(m_name)); }

    /** The arguments of each call, each preceded by "|". */
    QList<QByteArray> calls() const
    {
        QList<QByteArray> arguments;
        const QList<QByteArray> all = lines();
        for (const QByteArray& line : all)
            arguments.append(line.mid(qMax(line.indexOf('|'), 0)));
        return arguments;
    }

    int callCount() const { return lines().size(); }

    /** The process id of the last call. */
    pid_t lastProcess() const { return lines().isEmpty() ? -1 : pid_t(lines().last().split('|').first().toInt()); }

    /** Whether the process of any call still exists; a zombie does. */
    bool isAnyRunning() const
    {
        const QList<QByteArray> all = lines();
        for (const QByteArray& line : all) {
            if (::kill(pid_t(line.split('|').first().toInt()), 0) == 0)
                return true;
        }
        return false;
    }

    /** For commands that must find the system's. */
    QByteArray systemSearchPath() const { return m_searchPath; }

private:
    Q_DISABLE_COPY(NFakeCommand)

    // Only complete lines: the script may be writing.
    QList<QByteArray> lines() const
    {
        QFile file(m_directory.filePath(QString::fromLatin1("calls")));
        if (!file.open(QIODevice::ReadOnly))
            return QList<QByteArray>();
        QList<QByteArray> all = file.readAll().split('\n');
        all.removeLast();
        return all;
    }

    NTemporaryDirectory m_directory;
    const QString m_name;
    const QByteArray m_searchPath;
};

/** A script that ends only when it is killed. */
static const char* const NEndlessScript = "exec /bin/sleep 100000";

#endif
