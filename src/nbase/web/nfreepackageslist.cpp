#include <nbase/web/nfreepackageslist.h>

#include <nbase/web/nfreepackage.h>

#include <QtCore/QFile>
#include <QtCore/QStringList>

namespace {

typedef QHash<QString, NFreePackage*> Packages;

enum Field { Name, Version, Licenses, LicenseFiles, SourceArchive, SourceSite, FieldCount };

const char* const Header =
    "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\"";

// The next line up to a NUL byte, without its line feed.
QString readLine(QFile& file)
{
    QString line = QString::fromLatin1(file.readLine().constData());
    if (line.endsWith(QLatin1Char('\n')))
        line.chop(1);
    return line;
}

QStringList splitWithoutEmptyParts(const QString& text, const char* separator)
{
    QStringList parts = text.split(QString::fromLatin1(separator));
    parts.removeAll(QString());
    return parts;
}

// The fields of a record; as many as there are when it is not well-formed.
QStringList fieldsOf(const QString& line)
{
    const QChar quote = QLatin1Char('"');
    if (line.size() < 2 || !line.startsWith(quote) || !line.endsWith(quote))
        return QStringList();
    return line.mid(1, line.size() - 2).split(QString::fromLatin1("\",\""));
}

QHash<QString, QString> licenseFilesOf(const QStringList& fields)
{
    QHash<QString, QString> files;
    const QStringList names = splitWithoutEmptyParts(fields.at(LicenseFiles), " ");
    for (const QString& name : names) {
        const QString path =
            QString::fromLatin1("licenses/%1-%2/%3").arg(fields.at(Name), fields.at(Version), name);
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

const QDir NFreePackagesList::S_FREE_PACKAGES_DIR = QDir(QString::fromLatin1("/usr/share/free_packages"));

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
    QFile file(S_FREE_PACKAGES_DIR.absoluteFilePath(QString::fromLatin1("manifest.csv")));
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning("Cannot open the free packages' manifest file");
        return packages;
    }
    const QString header = readLine(file);
    if (header != QString::fromLatin1(Header)) {
        qWarning("Bad header line in free packages' manifest: %s", header.toUtf8().constData());
        return packages;
    }
    while (!file.atEnd()) {
        const QString line = readLine(file);
        // Of a file that cannot be read further, the end is never reached.
        if (file.error() != QFile::NoError) {
            qWarning("Cannot read the free packages' manifest file to its end");
            return packages;
        }
        if (line.isEmpty())
            continue;
        const QStringList fields = fieldsOf(line);
        if (fields.size() != FieldCount) {
            qWarning("Bad line in free packages' manifest: %s", line.toUtf8().constData());
            continue;
        }
        delete packages.take(fields.at(Name));
        packages.insert(fields.at(Name), packageOf(fields));
    }
    return packages;
}
