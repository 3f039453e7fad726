#include "support/nmounttable.h"

#include "support/nprivatenamespace.h"

#include <QtCore/QFile>

#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

const char* const TablePath = "/proc/mounts";

void require(bool succeeded)
{
    if (!succeeded)
        qFatal("the mount table cannot be replaced");
}

} // namespace

// The kernel lets nothing be mounted over a process's own table of mounts, so all of /proc is replaced.
NMountTable::NMountTable()
    : m_directory("/tmp/nbase-proc-XXXXXX")
{
    require(::mkdtemp(m_directory.data()) != nullptr);
    require(::mount("/proc", m_directory.constData(), nullptr, MS_BIND | MS_REC, nullptr) == 0);
    NPrivateNamespace::mountEmptyDirectory(QString::fromLatin1("/proc"));
    const QByteArray process = QByteArray::number(::getpid());
    require(::symlink((m_directory + '/' + process).constData(), "/proc/self") == 0);
    require(::symlink((m_directory + '/' + process).constData(), ("/proc/" + process).constData()) == 0);
}

NMountTable::~NMountTable()
{
    NPrivateNamespace::unmount(QString::fromLatin1("/proc"));
    NPrivateNamespace::unmount(QFile::decodeName(m_directory));
    ::rmdir(m_directory.constData());
}

void NMountTable::write(const QByteArray& content)
{
    QFile file(QString::fromLatin1(TablePath));
    require(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size());
}
