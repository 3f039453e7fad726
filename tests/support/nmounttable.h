#ifndef NBASE_TESTS_NMOUNTTABLE_H
#define NBASE_TESTS_NMOUNTTABLE_H

#include <QtCore/QByteArray>

/**
 * Shows a made-up mount table at /proc/mounts during its scope. What a program needs to know of itself under /proc
 * stays there. The program has to be in a private mount namespace.
 */
class NMountTable
{
public:
    /** Begins with no file at /proc/mounts. */
    NMountTable();
    ~NMountTable();

    void write(const QByteArray& content);

private:
    Q_DISABLE_COPY(NMountTable)

    QByteArray m_directory;
};

#endif
