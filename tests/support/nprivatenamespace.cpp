#include "support/nprivatenamespace.h"

#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QVector>

#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void require(bool succeeded, const char* what, const QByteArray& path = QByteArray())
{
    if (succeeded)
        return;
    fprintf(stderr, "private namespace: %s %s: %s\n", what, path.constData(), strerror(errno));
    exit(EXIT_FAILURE);
}

void writeProcessFile(const char* path, const QByteArray& text)
{
    const int file = ::open(path, O_WRONLY | O_CLOEXEC);
    require(file >= 0 && ::write(file, text.constData(), text.size()) == text.size(), "cannot write", path);
    ::close(file);
}

void bind(const QByteArray& source, const QByteArray& target)
{
    require(
        ::mount(source.constData(), target.constData(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
        "cannot mount at", target);
}

// Restarts the program as root with sudo, which must not ask for a password, where the kernel gives an ordinary
// user no namespaces, inside a chroot for example.
void startAgainAsRoot()
{
    QFile file(QString::fromLatin1("/proc/self/cmdline"));
    require(file.open(QIODevice::ReadOnly), "cannot read", "/proc/self/cmdline");
    QList<QByteArray> words;
    words << "sudo"
          << "-n"
          << "--preserve-env"
          << "--" << file.readAll().split('\0');
    words.removeLast();
    words[4] = QFile::encodeName(QFile::symLinkTarget(QString::fromLatin1("/proc/self/exe")));
    QVector<char*> arguments;
    for (int index = 0; index < words.size(); ++index)
        arguments.append(words[index].data());
    arguments.append(nullptr);
    ::execvp("sudo", arguments.data());
    require(false, "the kernel refuses namespaces to an ordinary user, and sudo cannot be used:");
}

// An ordinary user may map only the own ids, and the group only after setgroups(2) is denied (user_namespaces(7)).
void enterUserNamespace(int flags)
{
    const QByteArray user = QByteArray::number(uint(::geteuid()));
    const QByteArray group = QByteArray::number(uint(::getegid()));
    if (::unshare(flags | CLONE_NEWUSER) != 0)
        startAgainAsRoot();
    writeProcessFile("/proc/self/setgroups", "deny");
    writeProcessFile("/proc/self/uid_map", "0 " + user + " 1");
    writeProcessFile("/proc/self/gid_map", "0 " + group + " 1");
}

bool setMountFlags(const char* path, unsigned long flags)
{
    return ::mount("none", path, nullptr, flags, nullptr) == 0;
}

// In a chroot whose root is not a mount point, the mounts below the root cannot be made private. /proc is a mount
// point there: below it, once it is private, a second, private view of the whole tree becomes the program's root.
void keepMountsPrivate()
{
    if (setMountFlags("/", MS_REC | MS_PRIVATE))
        return;
    const char* const view = "/proc/fs";
    const QByteArray workingDirectory = QFile::encodeName(QDir::currentPath());
    require(setMountFlags("/proc", MS_PRIVATE), "cannot keep mounts private at", "/proc");
    bind("/", view);
    require(setMountFlags(view, MS_REC | MS_PRIVATE), "cannot keep mounts private at", view);
    require(::chroot(view) == 0 && ::chdir(workingDirectory.constData()) == 0, "cannot enter", view);
}

void raiseLoopback()
{
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(socket >= 0 && ::ioctl(socket, SIOCSIFFLAGS, &request) == 0, "cannot raise the loopback interface");
    ::close(socket);
}

void makeMountPoint(const QByteArray& path, bool directory)
{
    if (directory) {
        require(::mkdir(path.constData(), 0755) == 0 || errno == EEXIST, "cannot create", path);
        return;
    }
    const int file = ::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    require(file >= 0, "cannot create", path);
    ::close(file);
}

// Mounts @a original at @a copy. In a directory that is used by others too, a listed entry may have been removed
// since; then there is no mount.
void showAt(const QByteArray& original, bool directory, const QByteArray& copy)
{
    makeMountPoint(copy, directory);
    if (::mount(original.constData(), copy.constData(), nullptr, MS_BIND | MS_REC, nullptr) == 0)
        return;
    require(errno == ENOENT, "cannot mount at", copy);
    ::remove(copy.constData());
}

void copyLink(const QByteArray& original, const QByteArray& copy)
{
    char link[4096];
    const ssize_t length = ::readlink(original.constData(), link, sizeof(link) - 1);
    if (length < 0 && errno == ENOENT)
        return;
    require(length >= 0, "cannot read", original);
    link[length] = '\0';
    require(::symlink(link, copy.constData()) == 0, "cannot create", copy);
}

// Mounts a directory in memory over @a path with all entries that it has, so that others can be added.
void makeExtendable(const QString& path)
{
    const QByteArray target = QFile::encodeName(path);
    QByteArray scratch = "/tmp/nbase-namespace-XXXXXX";
    require(::mkdtemp(scratch.data()) != nullptr, "cannot create", scratch);
    require(::mount("tmpfs", scratch.constData(), "tmpfs", 0, "mode=755") == 0, "cannot mount at", scratch);
    const QFileInfoList entries =
        QDir(path).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        const QByteArray original = QFile::encodeName(entry.absoluteFilePath());
        const QByteArray copy = scratch + '/' + QFile::encodeName(entry.fileName());
        if (entry.isSymLink())
            copyLink(original, copy);
        else
            showAt(original, entry.isDir(), copy);
    }
    require(
        ::mount(scratch.constData(), target.constData(), nullptr, MS_MOVE, nullptr) == 0, "cannot mount at",
        target);
    // A process keeps its root when something is mounted there; ".." of the root leads to the new one.
    const QByteArray workingDirectory = QFile::encodeName(QDir::currentPath());
    if (target == "/") {
        require(::chroot("/..") == 0 && ::chdir(workingDirectory.constData()) == 0, "cannot enter", target);
        // The new root shows /tmp with the temporary mount.
        ::umount2(scratch.constData(), MNT_DETACH);
    }
    ::rmdir(scratch.constData());
}

void provideMountPoint(const QString& path, bool directory)
{
    if (QFileInfo(path).exists())
        return;
    const QString parent = QFileInfo(path).path();
    provideMountPoint(parent, true);
    makeExtendable(parent);
    makeMountPoint(QFile::encodeName(path), directory);
}

} // namespace

void NPrivateNamespace::enter(int parts)
{
    int flags = 0;
    if (parts & Mounts)
        flags |= CLONE_NEWNS;
    if (parts & Network)
        flags |= CLONE_NEWNET;
    if (::geteuid() == 0)
        require(::unshare(flags) == 0, "the kernel refuses namespaces:");
    else
        enterUserNamespace(flags);
    if (parts & Mounts)
        keepMountsPrivate();
    if (parts & Network)
        raiseLoopback();
}

void NPrivateNamespace::mountEmptyDirectory(const QString& path)
{
    provideMountPoint(path, true);
    const QByteArray target = QFile::encodeName(path);
    require(::mount("tmpfs", target.constData(), "tmpfs", 0, "mode=755") == 0, "cannot mount at", target);
}

void NPrivateNamespace::mountCopy(const QString& source, const QString& path)
{
    provideMountPoint(path, QFileInfo(source).isDir());
    bind(QFile::encodeName(source), QFile::encodeName(path));
}

void NPrivateNamespace::unmount(const QString& path)
{
    const QByteArray target = QFile::encodeName(path);
    require(::umount2(target.constData(), MNT_DETACH) == 0, "cannot unmount", target);
}
