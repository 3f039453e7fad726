#ifndef NBASE_TESTS_NRUNNERTEST_H
#define NBASE_TESTS_NRUNNERTEST_H

#include "nbase/network/nfakecommand.h"
#include "support/ntestwait.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

/** What the tests of the runners of commands have in common. */
namespace NTest {

/** How many descriptors this process has. */
inline int descriptorCount()
{
    return QDir(QString::fromLatin1("/proc/self/fd"))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

/** Whether this process has a child, a zombie included. */
inline bool hasChild()
{
    siginfo_t info;
    int result;
    do
        result = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
    while (result < 0 && errno == EINTR);
    return result == 0;
}

/** Deletes what has been deleted with deleteLater(). */
inline void deleteDeferred()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

/**
 * Starts this program again with @a argument, kills it when it has called @a command, which must be endless, and
 * waits until the command has ended, too.
 * @return whether it has, killed as well.
 */
inline bool commandEndsWithKilledProgram(const NFakeCommand& command, const char* argument)
{
    // The command becomes a child of this process when its parent ends.
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
        return false;
    QProcess program;
    program.start(QCoreApplication::applicationFilePath(), QStringList(QString::fromLatin1(argument)));
    const bool isRunning = waitUntil([&]() { return command.callCount() == 1; });
    program.kill();
    program.waitForFinished(-1);

    int status = 0;
    const bool hasEnded =
        isRunning && waitUntil([&]() { return ::waitpid(command.lastProcess(), &status, WNOHANG) > 0; });
    if (isRunning && !hasEnded)
        ::kill(command.lastProcess(), SIGKILL);
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    return hasEnded && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

} // namespace NTest

#endif
