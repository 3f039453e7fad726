#include <nbase/web/nfreepackageslistfcgirequestprocessor.h>

#include <nbase/web/nfreepackage.h>
#include <nbase/web/nfreepackageslist.h>

#include <nbase/web/nlicensefile_p.h>

#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajson.h>
#include <nwebapi/nwareplysource.h>
#include <nwebapi/nwastreamedreply.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QQueue>
#include <QtCore/QStringList>

namespace {

typedef QHash<QString, NFreePackage*> Packages;

// Licence texts are read in pieces of this size. In JSON, a character has six bytes at the most.
const int ReadSize = 16 * 1024;

// What the document says about a package besides its licence texts.
QVariantMap descriptionOf(const NFreePackage* package)
{
    QVariantMap document;
    document.insert(latin1("version"), package->version());
    document.insert(latin1("licenses"), package->licenses());
    document.insert(latin1("sourceSite"), package->sourceSite());
    document.insert(latin1("sourceArchive"), package->sourceArchive());
    return document;
}

QStringList sorted(QStringList names)
{
    names.sort();
    return names;
}

// The members of a JSON object or the characters of a JSON string, without what encloses them.
QByteArray inner(const QVariant& value)
{
    const QByteArray document = NwaJson::serialize(value);
    return document.mid(1, document.size() - 2);
}

QByteArray quoted(const QString& text)
{
    return '"' + inner(text) + '"';
}

// The document of all packages, package by package, with the licence texts read in pieces. The members come in the
// order of their names, as NwaJson writes them: "licenseFiles" is the first of a package's.
class PackagesSource : public NwaReplySource
{
public:
    PackagesSource(const Packages& packages, const QStringList& packageNames)
        : m_packages(packages)
        , m_packageNames(packageNames)
        , m_packageCount(0)
        , m_licenseOffset(0)
    {
    }

    State appendPiece(QByteArray& body) override
    {
        if (m_parts.isEmpty() && m_packageCount == m_packageNames.size()) {
            body += m_packageCount == 0 ? "{}" : "}";
            return AtEnd;
        }
        if (m_parts.isEmpty())
            enqueuePackage(m_packageNames.at(m_packageCount++));
        if (!appendPartOf(m_parts.head(), body)) {
            m_parts.dequeue();
            m_licenseOffset = 0;
        }
        return MoreFollows;
    }

private:
    // A piece of JSON, and the licence text that follows it, if any.
    struct Part
    {
        QByteArray json;
        QString licenseFile;
    };

    void enqueuePackage(const QString& name)
    {
        const NFreePackage* const package = m_packages.value(name);
        const QHash<QString, QString> files = package->licenseFiles();
        const QStringList fileNames = sorted(files.keys());
        QByteArray json = (m_packageCount == 1 ? '{' : ',') + quoted(name) + ":{\"licenseFiles\":{";
        const char* separator = "";
        for (const QString& fileName : fileNames) {
            enqueue(json + separator + quoted(fileName) + ":\"", files.value(fileName));
            json = "\"";
            separator = ",";
        }
        enqueue(json + "}," + inner(descriptionOf(package)) + '}', QString());
    }

    void enqueue(const QByteArray& json, const QString& licenseFile)
    {
        const Part part = {json, licenseFile};
        m_parts.enqueue(part);
    }

    // Returns whether more of the part may follow.
    bool appendPartOf(const Part& part, QByteArray& body)
    {
        if (m_licenseOffset == 0)
            body += part.json;
        if (part.licenseFile.isEmpty())
            return false;
        const QByteArray bytes = NLicenseFile::read(part.licenseFile, m_licenseOffset, ReadSize);
        m_licenseOffset += bytes.size();
        // The text ends at the first NUL byte.
        const QString text = latin1(bytes.constData());
        body += inner(text);
        return text.size() == ReadSize;
    }

    const Packages m_packages;
    const QStringList m_packageNames;
    int m_packageCount;     ///< how many packages have begun
    QQueue<Part> m_parts;   ///< of the latest package
    qint64 m_licenseOffset; ///< in the first part's licence file
};

} // namespace

// The parent of the replies, and the names that they share: a copy for each slow client would add up.
class NFreePackagesListFcgiRequestProcessor::Replies : public QObject
{
public:
    QStringList packageNames;
};

NFreePackagesListFcgiRequestProcessor::NFreePackagesListFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NFreePackagesList* list)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_list(list)
    , m_replies(new Replies)
{
}

NFreePackagesListFcgiRequestProcessor::~NFreePackagesListFcgiRequestProcessor() {}

void NFreePackagesListFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (!requireSession(request, this, &NFreePackagesListFcgiRequestProcessor::canReadFreePackagesListWithSession))
        return;
    const Packages packages = m_list->freePackages();
    if (m_replies->packageNames.isEmpty())
        m_replies->packageNames = sorted(packages.keys());
    NwaStreamedReply::start(
        request, NwaHttpJsonHeader(latin1("utf-8")), new PackagesSource(packages, m_replies->packageNames),
        m_replies.data());
}

QVariantMap NFreePackagesListFcgiRequestProcessor::freePackageToVariantMap(const NFreePackage* package) const
{
    QVariantMap texts;
    const QStringList fileNames = package->licenseFiles().keys();
    for (const QString& fileName : fileNames)
        texts.insert(fileName, latin1(package->licenseFileContent(fileName).constData()));

    QVariantMap document = descriptionOf(package);
    document.insert(latin1("licenseFiles"), texts);
    return document;
}

QVariantMap NFreePackagesListFcgiRequestProcessor::freePackagesListToVariantMap() const
{
    QVariantMap document;
    const Packages packages = m_list->freePackages();
    for (Packages::const_iterator package = packages.constBegin(); package != packages.constEnd(); ++package)
        document.insert(package.key(), freePackageToVariantMap(package.value()));
    return document;
}

bool NFreePackagesListFcgiRequestProcessor::canReadFreePackagesListWithSession(NwaWebSession*) const
{
    return true;
}
