#include <nbase/web/nfreepackageslist.h>

#include <nbase/web/nfreepackage.h>
#include <nbase/web/nlicensefile_p.h>

#include <nsystem/nlatin1_p.h>
#include <nsystem/nlinereader_p.h>
#include <nsystem/nsystemcall_p.h>

#include <QtCore/QFile>
#include <QtCore/QStringList>

namespace {

typedef QHash<QString, NFreePackage*> Packages;

enum Field { Name, Version, Licenses, LicenseFiles, SourceArchive, SourceSite, FieldCount };

const char* const Header =
    "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\"";

QStringList splitWithoutEmptyParts(const QString& text, const char* separator)
{
    QStringList parts = text.split(latin1(separator));
    parts.removeAll(QString());
    return parts;
}

// The fields of a record, or another number of them than FieldCount when the line is not well-formed.
QStringList fieldsOf(const QString& line)
{
    const QChar quote = QLatin1Char('"');
    if (line.size() < 2 || !line.startsWith(quote) || !line.endsWith(quote))
        return QStringList();
    return line.mid(1, line.size() - 2).split(latin1("\",\""));
}

QHash<QString, QString> licenseFilesOf(const QStringList& fields)
{
    QHash<QString, QString> files;
    const QStringList names = splitWithoutEmptyParts(fields.at(LicenseFiles), " ");
    for (const QString& name : names) {
        const QString path = latin1("licenses/%1-%2/%3").arg(fields.at(Name), fields.at(Version), name);
        files.insert(name, NFreePackagesList::S_FREE_PACKAGES_DIR.absoluteFilePath(path));
    }
    return files;
}

NFreePackage* packageOf(const QStringList& fields)
{
    return new NFreePackage(
        fields.at(Name), fields.at(Version), splitWithoutEmptyParts(fields.at(Licenses), ", "),
        licenseFilesOf(fields), fields.at(SourceSite), fields.at(SourceArchive));
}

} // namespace

const QDir NFreePackagesList::S_FREE_PACKAGES_DIR = QDir(latin1(NLicenseFile::FreePackagesDirectory));

NFreePackagesList::NFreePackagesList(QObject* parent)
    : QObject(parent)
    , m_freePackages(loadFreePackages())
{
}

NFreePackagesList::~NFreePackagesList()
{
    while (!m_freePackages.isEmpty())
        delete m_freePackages.take(m_freePackages.constBegin().key());
}

QHash<QString, NFreePackage*> NFreePackagesList::freePackages() const
{
    return m_freePackages;
}

QHash<QString, NFreePackage*> NFreePackagesList::loadFreePackages()
{
    Packages packages;
    const QByteArray path = QFile::encodeName(S_FREE_PACKAGES_DIR.absoluteFilePath(latin1("manifest.csv")));
    const NFileDescriptor file = NSystem::openRegularFile(path.constData());
    if (!file.isOpen()) {
        qWarning("Cannot open the free packages' manifest file");
        return packages;
    }
    NLineReader reader;
    reader.start(file.number());
    NLineReader::Line line;
    const QString header = reader.next(&line) ? line.textUpToNul() : QString();
    if (header != latin1(Header)) {
        qWarning("Bad header line in free packages' manifest: %s", header.toUtf8().constData());
        return packages;
    }
    while (reader.next(&line)) {
        const QString text = line.textUpToNul();
        if (text.isEmpty())
            continue;
        const QStringList fields = fieldsOf(text);
        if (fields.size() != FieldCount || !line.isTextComplete()) {
            qWarning("Bad line in free packages' manifest: %s", text.toUtf8().constData());
            continue;
        }
        delete packages.take(fields.at(Name));
        packages.insert(fields.at(Name), packageOf(fields));
    }
    if (reader.hasFailed())
        qWarning("Cannot read the free packages' manifest file to its end");
    return packages;
}
