#include <nbase/web/nfreepackage.h>

#include <nbase/web/nfreepackageslist.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace {

// Whether a path that begins in the folder of the free packages leads out of it. What an application itself has
// put elsewhere is its own affair.
bool leavesFreePackagesDirectory(const QString& path)
{
    const QDir& directory = NFreePackagesList::S_FREE_PACKAGES_DIR;
    if (!path.startsWith(directory.path() + QLatin1Char('/')))
        return false;
    return !QFileInfo(path).canonicalFilePath().startsWith(directory.canonicalPath() + QLatin1Char('/'));
}

} // namespace

NFreePackage::NFreePackage(
    const QString& name, const QString& version, const QStringList& licenses,
    const QHash<QString, QString>& licenseFiles, const QString& sourceSite, const QString& sourceArchive)
    : m_name(name)
    , m_version(version)
    , m_licenses(licenses)
    , m_licenseFiles(licenseFiles)
    , m_sourceSite(sourceSite)
    , m_sourceArchive(sourceArchive)
{
}

NFreePackage::~NFreePackage() {}

QString NFreePackage::name() const
{
    return m_name;
}

QString NFreePackage::version() const
{
    return m_version;
}

QStringList NFreePackage::licenses() const
{
    return m_licenses;
}

QHash<QString, QString> NFreePackage::licenseFiles() const
{
    return m_licenseFiles;
}

QString NFreePackage::sourceSite() const
{
    return m_sourceSite;
}

QString NFreePackage::sourceArchive() const
{
    return m_sourceArchive;
}

QByteArray NFreePackage::licenseFileContent(const QString& fileName) const
{
    const QString path = m_licenseFiles.value(fileName);
    // Opening a pipe would wait for somebody to write to it, and a device may have no end.
    if (path.isEmpty() || !QFileInfo(path).isFile() || leavesFreePackagesDirectory(path))
        return QByteArray();
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
