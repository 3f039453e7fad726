#include <nbase/web/nfreepackage.h>

#include <nbase/web/nlicensefile_p.h>

#include <QtCore/QFile>

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
    if (path.isEmpty())
        return QByteArray();
    const NFileDescriptor descriptor = NLicenseFile::open(path);
    QFile file;
    if (!descriptor.isOpen() || !file.open(descriptor.number(), QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}
