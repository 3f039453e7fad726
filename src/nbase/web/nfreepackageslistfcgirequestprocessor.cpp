#include <nbase/web/nfreepackageslistfcgirequestprocessor.h>

#include <nbase/web/nfreepackage.h>
#include <nbase/web/nfreepackageslist.h>

#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajson.h>

#include <QtCore/QObject>
#include <QtCore/QStringList>

#include <ostream>
#include <string.h>

namespace {

typedef QHash<QString, NFreePackage*> Packages;

// Nothing is written while this much waits for the client.
const int MaximumBacklog = 64 * 1024;

// A licence text is written in pieces of this size, so that a long one is no larger backlog than a short one.
const int PieceSize = 32 * 1024;

// What is written before others have their turn.
const int TurnSize = 512 * 1024;

QString key(const char* name)
{
    return QString::fromLatin1(name);
}

// Licence files are text in an encoding that nobody has noted down.
QString textOf(const QByteArray& content)
{
    return QString::fromLatin1(content.constData());
}

// What the document says about a package besides its licence texts.
QVariantMap descriptionOf(const NFreePackage* package)
{
    QVariantMap document;
    document.insert(key("version"), package->version());
    document.insert(key("licenses"), package->licenses());
    document.insert(key("sourceSite"), package->sourceSite());
    document.insert(key("sourceArchive"), package->sourceArchive());
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

// Makes the document of all packages piece by piece.
class DocumentPieces
{
public:
    explicit DocumentPieces(const Packages& packages)
        : m_packages(packages)
        , m_packageNames(sorted(packages.keys()))
        , m_package(nullptr)
        , m_textPosition(0)
        , m_isInText(false)
        , m_isFirst(true)
        , m_isFirstFile(true)
        , m_atEnd(false)
    {
    }

    bool atEnd() const { return m_atEnd; }

    QByteArray next()
    {
        if (m_isInText)
            return nextOfText();
        if (m_package)
            return m_fileNames.isEmpty() ? endOfPackage() : beginOfText();
        if (!m_packageNames.isEmpty())
            return beginOfPackage();
        m_atEnd = true;
        return m_isFirst ? "{}" : "}";
    }

private:
    Q_DISABLE_COPY(DocumentPieces)

    QByteArray beginOfPackage()
    {
        const QByteArray before(m_isFirst ? "{" : ",");
        const QString name = m_packageNames.takeFirst();
        m_isFirst = false;
        m_isFirstFile = true;
        m_package = m_packages.value(name);
        m_fileNames = sorted(m_package->licenseFiles().keys());
        return before + quoted(name) + ":{\"licenseFiles\":{";
    }

    QByteArray beginOfText()
    {
        const QByteArray before(m_isFirstFile ? "" : ",");
        const QString name = m_fileNames.takeFirst();
        m_isFirstFile = false;
        m_isInText = true;
        m_text = m_package->licenseFileContent(name);
        m_text.truncate(int(strlen(m_text.constData())));
        m_textPosition = 0;
        return before + quoted(name) + ":\"";
    }

    QByteArray nextOfText()
    {
        if (m_textPosition == m_text.size()) {
            m_isInText = false;
            m_text.clear();
            return "\"";
        }
        const QByteArray piece = m_text.mid(m_textPosition, PieceSize);
        m_textPosition += piece.size();
        return inner(textOf(piece));
    }

    QByteArray endOfPackage()
    {
        const QByteArray description = inner(descriptionOf(m_package));
        m_package = nullptr;
        return "}," + description + '}';
    }

    const Packages m_packages;
    QStringList m_packageNames; ///< those that have not begun
    const NFreePackage* m_package;
    QStringList m_fileNames; ///< those of the package that have not begun
    QByteArray m_text;
    int m_textPosition;
    bool m_isInText;
    bool m_isFirst;
    bool m_isFirstFile;
    bool m_atEnd;
};

// Writes the document to one request, which it owns, and deletes itself afterwards.
class Reply : public QObject
{
    Q_OBJECT

public:
    Reply(NwaFcgiRequest* request, const Packages& packages, QObject* parent)
        : QObject(parent)
        , m_request(request)
        , m_pieces(packages)
        , m_hasTurnToCome(false)
    {
        connect(request, SIGNAL(replyTaken()), SLOT(write()));
        connect(request, SIGNAL(aborted()), SLOT(deleteLater()));
    }

public slots:
    void write()
    {
        // What the client takes meanwhile does not give the reply a second turn.
        if (!m_request || m_hasTurnToCome)
            return;
        int written = 0;
        while (!m_pieces.atEnd() && !m_request->isAborted()) {
            // The client's taking it brings us here again.
            if (m_request->replyBacklog() >= MaximumBacklog)
                return;
            if (written >= TurnSize) {
                m_hasTurnToCome = true;
                QMetaObject::invokeMethod(this, "takeTurn", Qt::QueuedConnection);
                return;
            }
            const QByteArray piece = m_pieces.next();
            m_request->outputStream().write(piece.constData(), piece.size());
            written += piece.size();
        }
        m_request.reset();
        deleteLater();
    }

private slots:
    void takeTurn()
    {
        m_hasTurnToCome = false;
        write();
    }

private:
    Q_DISABLE_COPY(Reply)

    QScopedPointer<NwaFcgiRequest> m_request;
    DocumentPieces m_pieces;
    bool m_hasTurnToCome;
};

} // namespace

NFreePackagesListFcgiRequestProcessor::NFreePackagesListFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NFreePackagesList* list)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_list(list)
    , m_replies(new QObject)
{
}

NFreePackagesListFcgiRequestProcessor::~NFreePackagesListFcgiRequestProcessor() {}

void NFreePackagesListFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    NwaWebSession* const session = authenticateRequest(request, false);
    if (!session) {
        delete request;
        return;
    }
    if (!canReadFreePackagesListWithSession(session)) {
        request->sendHttpError(NwaFcgiRequest::Forbidden);
        delete request;
        return;
    }
    request->outputStream() << NwaHttpJsonHeader(QString::fromLatin1("utf-8"));
    if (request->method() == QLatin1String("HEAD")) {
        delete request;
        return;
    }
    (new Reply(request, m_list->freePackages(), m_replies.data()))->write();
} // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the reply belongs to its parent and deletes itself at its end

QVariantMap NFreePackagesListFcgiRequestProcessor::freePackageToVariantMap(const NFreePackage* package) const
{
    QVariantMap texts;
    const QStringList fileNames = package->licenseFiles().keys();
    for (const QString& fileName : fileNames)
        texts.insert(fileName, textOf(package->licenseFileContent(fileName)));

    QVariantMap document = descriptionOf(package);
    document.insert(key("licenseFiles"), texts);
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

#include "nfreepackageslistfcgirequestprocessor.moc"
