#ifndef NBASE_TESTS_NMOUNTTABLE_H
#define NBASE_TESTS_NMOUNTTABLE_H

#include <QtCore/QByteArray>

/**
 * Puts a mount table of the test's at /proc/mounts during its scope; the process's own entries under /proc stay
 * available. The program must be in a private mount namespace.
 */
class NMountTable
{
public:
    /** At first there is no file at /proc/mounts. */
    NMountTable();
    ~NMountTable();

    void write(const QByteArray& content);

private:
    Q_DISABLE_COPY(NMountTable)

    QByteArray m_directory;
};

#endif
