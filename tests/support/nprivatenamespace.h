#ifndef NBASE_TESTS_NPRIVATENAMESPACE_H
#define NBASE_TESTS_NPRIVATENAMESPACE_H

#include <QtCore/QString>

/**
 * Lets a test program put other contents at the system's fixed paths: the program moves into namespaces of its own
 * (see namespaces(7)), so nothing that it mounts is seen by anybody else or is left behind. It works as root, and
 * as an ordinary user where the kernel allows user namespaces; there the program sees itself as root. Where the
 * kernel allows him none, the program starts itself again with sudo.
 *
 * All operations end the program with a message when the kernel refuses, because no test can go on then.
 */
namespace NPrivateNamespace {

enum Part {
    Mounts = 1,
    Network = 2 ///< a network of its own, with nothing but a loopback interface that is up
};

/** Moves the process into its own namespaces. To be called first in main(), while there is only one thread. */
void enter(int parts);

/** Puts an empty directory, in memory, at @a path; where nothing is at the path yet, it comes into being. */
void mountEmptyDirectory(const QString& path);

/** Puts the directory or file @a source at @a path as well; where nothing is at the path yet, it comes into being.
 */
void mountCopy(const QString& source, const QString& path);

/** Takes the latest mount at @a path away. */
void unmount(const QString& path);

} // namespace NPrivateNamespace

/**
 * The main function of a test program whose tests run in namespaces of their own.
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
