#ifndef NBASE_TESTS_NPRIVATENAMESPACE_H
#define NBASE_TESTS_NPRIVATENAMESPACE_H

#include <QtCore/QString>

/**
 * Lets a test program put other contents at fixed system paths: it moves into private namespaces (namespaces(7)),
 * so that its mounts are not visible outside and end with it. It works as root, and as an ordinary user where the
 * kernel allows user namespaces; the program is root there. Where it does not, the program restarts itself with
 * sudo.
 *
 * All operations end the program with a message if the kernel refuses, because no test can continue.
 */
namespace NPrivateNamespace {

enum Part {
    Mounts = 1,
    Network = 2 ///< a private network that has a loopback interface only
};

/** Moves the process into private namespaces. Must be called first in main(), while there is only one thread. */
void enter(int parts);

/** Mounts an empty directory in memory at @a path, which is created if it does not exist. */
void mountEmptyDirectory(const QString& path);

/** Mounts the directory or file @a source at @a path, too, which is created if it does not exist. */
void mountCopy(const QString& source, const QString& path);

/** Removes the latest mount at @a path. */
void unmount(const QString& path);

} // namespace NPrivateNamespace

/**
 * The main function of a test program that runs in private namespaces.
 * @param Application QCoreApplication or QApplication.
 */
#define NTEST_MAIN_IN_NAMESPACE(Application, TestObject, parts) \
    int main(int argc, char** argv) \
    { \
        NPrivateNamespace::enter(parts); \
        Application application(argc, argv); \
        TestObject test; \
        return QTest::qExec(&test, argc, argv); \
    }

#endif
