#include <nbase/web/nlicensefile_p.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <unistd.h>

namespace {

// Files that an application itself has named elsewhere are not restricted.
bool leavesFreePackagesDirectory(const QString& path)
{
    const QDir directory(latin1(NLicenseFile::FreePackagesDirectory));
    if (!path.startsWith(directory.path() + QLatin1Char('/')))
        return false;
    return !QFileInfo(path).canonicalFilePath().startsWith(directory.canonicalPath() + QLatin1Char('/'));
}

} // namespace

NFileDescriptor NLicenseFile::open(const QString& path)
{
    if (leavesFreePackagesDirectory(path))
        return NFileDescriptor();
    return NSystem::openRegularFile(QFile::encodeName(path).constData());
}

QByteArray NLicenseFile::read(const QString& path, qint64 offset, int maximumSize)
{
    const NFileDescriptor file = open(path);
    if (!file.isOpen() || ::lseek(file.number(), off_t(offset), SEEK_SET) < 0)
        return QByteArray();
    QByteArray bytes;
    bytes.resize(maximumSize);
    const ssize_t size = NSystem::readAll(file.number(), bytes.data(), size_t(maximumSize));
    bytes.resize(int(qMax(size, ssize_t(0))));
    return bytes;
}
