#ifndef NBASE_TESTS_NPROCESSID_H
#define NBASE_TESTS_NPROCESSID_H

#include <QtCore/QProcess>

namespace NTest {

/** The process id of a running program. */
inline qint64 processIdOf(const QProcess& program)
{
#if QT_VERSION < QT_VERSION_CHECK(5, 0, 0)
    return program.pid();
#else
    return program.processId();
#endif
}

} // namespace NTest

#endif
