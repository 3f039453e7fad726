#include <nbase/firmware/nfirmwareupdatefcgirequestprocessor.h>

#include <nbase/device/nremovablemedia.h>
#include <nbase/device/nremovablemediaslist.h>
#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateinstallerimagewriter.h>
#include <nbase/firmware/nswupdateprogressclient.h>

#include <nwebapi/nwacgimultipartformdatareader.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwajsonutilities.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QStringList>

namespace {

typedef NFirmwareUpdateFcgiRequestProcessor FirmwareProcessor;

const unsigned int UploadChunkSize = 4096;

// So many chunks fill a block of a socket's queue, which is sent with one call.
const int ChunksAtATime = 4;

// The daemon's post-update command usually restarts the device; before it, clients have time to read the result.
const int PostUpdateDelay = 500;

bool isForPackagesSection(const NwaFcgiRequest* request)
{
    QString section;
    return request->singleQueryParameter(FirmwareProcessor::S_SECTION_FIELD_NAME, section) &&
           section == FirmwareProcessor::S_PACKAGES_SECTION_NAME;
}

// Whether @a name is that of a file in the folder itself, so that no other folder can be reached with it.
bool isBareFileName(const QString& name)
{
    return !name.isEmpty() && name != latin1(".") && name != latin1("..") && !name.contains(QLatin1Char('/')) &&
           !name.contains(QChar(0));
}

QString cannotStart()
{
    return latin1("cannot start the installation of a package");
}

} // namespace

const QString NFirmwareUpdateFcgiRequestProcessor::S_STREAM_FIELD_NAME = latin1("stream");
const QString NFirmwareUpdateFcgiRequestProcessor::S_SECTION_FIELD_NAME = latin1("section");
const QString NFirmwareUpdateFcgiRequestProcessor::S_PACKAGES_SECTION_NAME = latin1("packages");

NFirmwareUpdateFcgiRequestProcessor::NFirmwareUpdateFcgiRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, NSWUpdateInstaller* installer,
    const NSWUpdateProgressClient* progressClient, const NRemovableMediasList* medias, QObject* parent)
    : QObject(parent)
    , NwaStandardFcgiRequestProcessor(identifier)
    , m_installer(installer)
    , m_medias(medias)
    , m_state(IdleState)
    , m_stepsCount(0)
    , m_currentStep(0)
    , m_stepPercentage(0)
    , m_success(false)
    , m_postUpdateTimer(this)
{
    setServedMethods(GetMethod | PostMethod);
    m_postUpdateTimer.setSingleShot(true);
    m_postUpdateTimer.setInterval(PostUpdateDelay);
    connect(&m_postUpdateTimer, SIGNAL(timeout()), installer, SLOT(sendPostUpdate()));
    connect(installer, SIGNAL(finished(bool)), SLOT(installationFinished(bool)));
    connect(
        progressClient, SIGNAL(updateStarted(NSWUpdate::Source,int,QString)),
                               SLOT(updateStarted(NSWUpdate::Source,int,QString)));
    connect(progressClient, SIGNAL(newStepStarted(int,int,QString)), SLOT(newStepStarted(int,int,QString)));
    connect(progressClient, SIGNAL(stepUpdate(int,int,QString,quint8)), SLOT(stepUpdate(int,int,QString,quint8)));
    connect(progressClient, SIGNAL(updateFinished(bool)), SLOT(updateFinished(bool)));
}

NFirmwareUpdateFcgiRequestProcessor::~NFirmwareUpdateFcgiRequestProcessor()
{
    const QList<Upload> unanswered = m_forms.values() + m_uploads.values();
    const QList<NSwUpdateInstallerImageWriter*> writers = m_uploads.keys();
    m_forms.clear();
    m_uploads.clear();
    for (const Upload& upload : unanswered) {
        delete upload.second;
        refuseRequest(upload.first, NwaFcgiRequest::ServiceUnavailable);
    }
    // Later, because the installer then asks the daemon for its status, which blocks, and emits signals.
    for (NSwUpdateInstallerImageWriter* writer : writers)
        QTimer::singleShot(0, writer, SLOT(endWriting()));
}

bool NFirmwareUpdateFcgiRequestProcessor::canUpdateFirmwareWithSession(NwaWebSession*) const
{
    return true;
}

QVariantMap NFirmwareUpdateFcgiRequestProcessor::firmwareUpdateStatusToVariantMap() const
{
    static const char* const stateNames[] = {"idle", "starting", "installing", "finished"};
    QVariantMap status;
    status.insert(latin1("state"), latin1(stateNames[m_state]));
    if (m_state != IdleState)
        status.insert(latin1("information"), m_information);
    if (m_state == StartingState || m_state == InstallingState)
        status.insert(latin1("stepsCount"), m_stepsCount);
    if (m_state == InstallingState) {
        status.insert(latin1("currentStep"), m_currentStep);
        status.insert(latin1("imageName"), m_imageName);
        status.insert(latin1("stepPercentage"), int(m_stepPercentage));
    }
    if (m_state == FinishedState)
        status.insert(latin1("success"), m_success);
    return status;
}

QVariant NFirmwareUpdateFcgiRequestProcessor::availableFirmwarePackagesAsVariant() const
{
    QVariantMap packagesOfMedias;
    const QStringList names = m_medias->removableMedias().keys();
    for (const QString& name : names) {
        QStringList packages;
        if (NSWUpdateInstaller::listPackages(name, packages, latin1("*.swu")))
            packagesOfMedias.insert(name, packages);
    }
    return packagesOfMedias;
}

bool NFirmwareUpdateFcgiRequestProcessor::packageInformationFromVariant(
    const QVariant& variant, QString& media, QString& packageFileName)
{
    QVariantMap package;
    return NwaJsonUtilities::objectValue(variant, package) &&
           NwaJsonUtilities::stringValue(package, latin1("media"), media) &&
           NwaJsonUtilities::stringValue(package, latin1("packageFileName"), packageFileName);
}

void NFirmwareUpdateFcgiRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (!requireSession(request, this, &NFirmwareUpdateFcgiRequestProcessor::canUpdateFirmwareWithSession))
        return;
    if (isForPackagesSection(request))
        return sendJsonReply(request, availableFirmwarePackagesAsVariant());
    sendJsonReply(request, firmwareUpdateStatusToVariantMap());
}

void NFirmwareUpdateFcgiRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    if (!requireSession(request, this, &NFirmwareUpdateFcgiRequestProcessor::canUpdateFirmwareWithSession))
        return;
    if (isForPackagesSection(request))
        return processNotAllowedMethod(request);

    const QString contentType = parseContentType(request);
    if (contentType == latin1("application/json"))
        return installPackageOfMedia(request);
    if (contentType != latin1("multipart/form-data"))
        return refuseRequest(
            request, NwaFcgiRequest::UnsupportedMediaType,
            latin1("Media type for a request body must be \"multipart/form-data\" or \"application/json\""));

    connect(request, SIGNAL(bodyAvailable()), SLOT(formAvailable()));
    connect(request, SIGNAL(aborted()), SLOT(formAborted()));
    connect(request, SIGNAL(destroyed(QObject*)), SLOT(formDestroyed(QObject*)));
    const Upload form(request, new NwaCgiMultipartFormDataReader(request));
    m_forms.insert(request, form);
    readForm(form);
}

bool NFirmwareUpdateFcgiRequestProcessor::getPackageInformation(
    NwaFcgiRequest* request, QString& media, QString& packageFileName)
{
    QVariant document;
    if (!requireJsonContent(request, document))
        return false;
    if (packageInformationFromVariant(document, media, packageFileName))
        return true;
    refuseRequest(request, NwaFcgiRequest::BadRequest);
    return false;
}

// Packages of removable media

void NFirmwareUpdateFcgiRequestProcessor::installPackageOfMedia(NwaFcgiRequest* request)
{
    QString media;
    QString packageFileName;
    if (!getPackageInformation(request, media, packageFileName))
        return;
    if (!isBareFileName(packageFileName))
        return refuseRequest(request, NwaFcgiRequest::BadRequest);
    if (!m_medias->removableMedias().contains(media))
        return refuseRequest(request, NwaFcgiRequest::NotFound);

    const QPointer<NFirmwareUpdateFcgiRequestProcessor> self(this);
    const bool isStarted = startPackageOfMedia(media, packageFileName);
    // The daemon has dropped the image already, and a receiver of the installer's signals has deleted this object.
    if (!self)
        return refuseRequest(request, NwaFcgiRequest::ServiceUnavailable);
    if (!isStarted)
        return refuseRequest(request, NwaFcgiRequest::Conflict, cannotStart());
    sendJsonReply(request, firmwareUpdateStatusToVariantMap());
}

bool NFirmwareUpdateFcgiRequestProcessor::startPackageOfMedia(const QString& media, const QString& packageFileName)
{
    // The path of a package on a medium that is not mounted would lead into the working directory.
    return m_installer && !NRemovableMedia::removableMediaMountPoint(media).isEmpty() &&
           m_installer->startImageInstallation(NSWUpdateInstaller::packagePath(media, packageFileName), QString());
}

// Uploads

// Looks for the part with the package, as far as the form has arrived.
void NFirmwareUpdateFcgiRequestProcessor::readForm(const Upload& form)
{
    QString name;
    QString fileName;
    QString contentType;
    while (form.second->nextPart(name, fileName, contentType)) {
        if (name == latin1("package"))
            return startUpload(form);
    }
    if (form.second->isWaiting())
        return;
    m_forms.remove(form.first);
    delete form.second;
    refuseRequest(form.first, NwaFcgiRequest::BadRequest);
}

void NFirmwareUpdateFcgiRequestProcessor::startUpload(const Upload& form)
{
    m_forms.remove(form.first);
    NSwUpdateInstallerImageWriter* const writer =
        m_installer ? m_installer->startInstallation(QString()) : nullptr;
    if (!writer) {
        delete form.second;
        return refuseRequest(form.first, NwaFcgiRequest::Conflict, cannotStart());
    }
    connect(writer, SIGNAL(bytesWritten()), SLOT(imageBytesWritten()));
    connect(writer, SIGNAL(imageWritingSocketDisconnected()), SLOT(imageWritingSocketDisconnected()));
    connect(writer, SIGNAL(destroyed(QObject*)), SLOT(imageWriterDestroyed(QObject*)));
    m_uploads.insert(writer, form);
    imageBytesWritten(writer);
}

// Passes on what has arrived of the package while the daemon takes it at once. When the client pauses,
// formAvailable() continues, and when the daemon does, bytesWritten() of the writer. What the connection holds of
// the body bounds the number of turns. Receivers of the signals that flush() emits may end the upload.
void NFirmwareUpdateFcgiRequestProcessor::imageBytesWritten(NSwUpdateInstallerImageWriter* writer)
{
    const QPointer<NFirmwareUpdateFcgiRequestProcessor> self(this);
    while (writer->flush() && self && m_uploads.contains(writer) && pushChunks(writer)) {
    }
}

// Hands the next bytes to the writer, whose queue must be empty. Returns whether there were any and the upload
// continues; when it does not, this object may have been deleted.
bool NFirmwareUpdateFcgiRequestProcessor::pushChunks(NSwUpdateInstallerImageWriter* writer)
{
    NwaCgiMultipartFormDataReader* const reader = m_uploads.value(writer).second;
    for (int count = 0; count < ChunksAtATime; ++count) {
        const QByteArray chunk = reader->readFromPart(UploadChunkSize);
        if (chunk.isEmpty() && reader->isWaiting())
            return count > 0;
        if (chunk.isEmpty() || writer->write(chunk) < 0) {
            endUpload(writer);
            return false;
        }
    }
    return true;
}

void NFirmwareUpdateFcgiRequestProcessor::endUpload(NSwUpdateInstallerImageWriter* writer)
{
    const QPointer<NSwUpdateInstallerImageWriter> guardedWriter(writer);
    disconnect(writer, nullptr, this, nullptr);
    // Answered first: in endWriting() the installer may ask the daemon for its status, which blocks, and emit
    // signals, in which this object may be deleted.
    answerUpload(m_uploads.take(writer));
    if (guardedWriter)
        guardedWriter->endWriting();
}

// The reply to a client that has gone is discarded.
void NFirmwareUpdateFcgiRequestProcessor::answerUpload(const Upload& upload) const
{
    const bool isBroken = upload.second->hasError();
    delete upload.second;
    if (isBroken)
        return refuseRequest(upload.first, NwaFcgiRequest::BadRequest);
    sendJsonReply(upload.first, firmwareUpdateStatusToVariantMap());
}

// The writer of the upload that @a object, which may be half destroyed, is the request or the writer of; null when
// there is none.
NSwUpdateInstallerImageWriter* NFirmwareUpdateFcgiRequestProcessor::writerOf(const QObject* object) const
{
    const QList<NSwUpdateInstallerImageWriter*> writers = m_uploads.keys();
    for (NSwUpdateInstallerImageWriter* writer : writers) {
        if (writer == object || m_uploads.value(writer).first == object)
            return writer;
    }
    return nullptr;
}

void NFirmwareUpdateFcgiRequestProcessor::formAvailable()
{
    if (m_forms.contains(sender()))
        return readForm(m_forms.value(sender()));
    NSwUpdateInstallerImageWriter* const writer = writerOf(sender());
    // Otherwise the writer still has bytes of the form; imageBytesWritten() continues when it has passed them on.
    if (writer && m_uploads.value(writer).second->isWaiting())
        imageBytesWritten(writer);
}

void NFirmwareUpdateFcgiRequestProcessor::formAborted()
{
    // Deleted here in any case, which leads to formDestroyed().
    delete sender();
}

void NFirmwareUpdateFcgiRequestProcessor::formDestroyed(QObject* request)
{
    delete m_forms.take(request).second;
    NSwUpdateInstallerImageWriter* const writer = writerOf(request);
    if (!writer)
        return;
    disconnect(writer, nullptr, this, nullptr);
    delete m_uploads.take(writer).second;
    writer->endWriting();
}

void NFirmwareUpdateFcgiRequestProcessor::imageBytesWritten()
{
    imageBytesWritten(static_cast<NSwUpdateInstallerImageWriter*>(sender()));
}

void NFirmwareUpdateFcgiRequestProcessor::imageWritingSocketDisconnected()
{
    endUpload(static_cast<NSwUpdateInstallerImageWriter*>(sender()));
}

// The installer has been deleted.
void NFirmwareUpdateFcgiRequestProcessor::imageWriterDestroyed(QObject* writer)
{
    answerUpload(m_uploads.take(writerOf(writer)));
}

// The state of the update

void NFirmwareUpdateFcgiRequestProcessor::installationFinished(bool success)
{
    if (success)
        m_postUpdateTimer.start();
    emit firmwareUpdateEvent();
}

void NFirmwareUpdateFcgiRequestProcessor::updateStarted(NSWUpdate::Source, int nbSteps, const QString& info)
{
    m_state = StartingState;
    m_stepsCount = nbSteps;
    m_information = info;
    m_currentStep = 0;
    m_imageName.clear();
    m_stepPercentage = 0;
    m_success = false;
    emit firmwareUpdateEvent();
}

void NFirmwareUpdateFcgiRequestProcessor::newStepStarted(int nbSteps, int step, const QString& imageName)
{
    stepUpdate(nbSteps, step, imageName, 0);
}

void NFirmwareUpdateFcgiRequestProcessor::stepUpdate(
    int nbSteps, int step, const QString& imageName, quint8 percentage)
{
    m_state = InstallingState;
    m_stepsCount = nbSteps;
    m_currentStep = step;
    m_imageName = imageName;
    m_stepPercentage = percentage;
    m_success = false;
    emit firmwareUpdateEvent();
}

void NFirmwareUpdateFcgiRequestProcessor::updateFinished(bool success)
{
    m_state = FinishedState;
    m_success = success;
    emit firmwareUpdateEvent();
}
