#ifndef NBASE_NFIRMWAREUPDATEFCGIREQUESTPROCESSOR_H
#define NBASE_NFIRMWAREUPDATEFCGIREQUESTPROCESSOR_H

#include <nbase/firmware/nswupdate.h>
#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgirequestprocessor.h>

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QPair>
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <QtCore/QVariant>

class NRemovableMediasList;
class NSWUpdateInstaller;
class NSWUpdateProgressClient;
class NSwUpdateInstallerImageWriter;
class NwaCgiMultipartFormDataReader;

/**
 * Installs firmware packages through the SWUpdate daemon and reports the progress:
 *
 * | request                              | does                                                           |
 * |--------------------------------------|----------------------------------------------------------------|
 * | GET                                  | replies with the state of the update                           |
 * | GET with "section=packages"          | lists the packages on the removable media                      |
 * | POST of a form (multipart/form-data) | installs the package that is uploaded as the part "package"    |
 * | POST of a JSON object                | installs the file "packageFileName" of the medium "media"      |
 *
 * Each is answered with JSON, a POST with the state (firmwareUpdateStatusToVariantMap()), or with 401 (no
 * session), 403 (no right), 400 (a form without the part or that breaks off, invalid JSON, a file name that is not
 * a bare name), 404 (no such medium), 409 (an installation is in progress, or the daemon or the file does not
 * allow one), 415 (another body) or 405 (another method, POST with "section=packages").
 *
 * An upload is passed on to the daemon while it arrives, in pieces of 4096 bytes and no faster than the daemon
 * takes them. It is answered when its last byte has been passed on, or as soon as the daemon no longer takes it;
 * the state then reports how the installation continues. When the client abandons it, or the form breaks off, the
 * image ends there, and the daemon rejects it. The end of the session that has sent it does not end an upload.
 *
 * The installation blocks the thread as described for NSWUpdateInstaller. Receivers of firmwareUpdateEvent() and
 * of the signals of installer and progress client may delete the processor, which answers the open uploads with
 * 503 and ends their images.
 */
class NBASE_EXPORT NFirmwareUpdateFcgiRequestProcessor : public QObject, public NwaStandardFcgiRequestProcessor
{
    Q_OBJECT

public:
    static const QString S_STREAM_FIELD_NAME;     ///< "stream", for clients that follow the events; not read here
    static const QString S_SECTION_FIELD_NAME;    ///< "section"
    static const QString S_PACKAGES_SECTION_NAME; ///< "packages"

    /**
     * @param identifier finds the session of a request; not owned.
     * @param installer installs the packages; not owned. When it has been deleted, every start is answered 409.
     * @param progressClient reports the progress; not owned.
     * @param medias the removable media that are present; not owned, and must outlive the processor.
     */
    NFirmwareUpdateFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, NSWUpdateInstaller* installer,
        const NSWUpdateProgressClient* progressClient, const NRemovableMediasList* medias, QObject* parent);
    ~NFirmwareUpdateFcgiRequestProcessor() override;

    /** Whether the user of @a session may use this service: every user, unless a derived class says otherwise. */
    virtual bool canUpdateFirmwareWithSession(NwaWebSession* session) const;

    /**
     * The state of the latest update, whichever program started it:
     *
     * | "state"      | further members                                                                |
     * |--------------|--------------------------------------------------------------------------------|
     * | "idle"       | none; there has been no update                                                 |
     * | "starting"   | "information", "stepsCount"                                                    |
     * | "installing" | "information", "stepsCount", "currentStep", "imageName", "stepPercentage"      |
     * | "finished"   | "information", "success"                                                       |
     *
     * "information" is the text of NSWUpdateProgressClient::updateStarted(), which may be empty.
     */
    QVariantMap firmwareUpdateStatusToVariantMap() const;

    /**
     * An object with a member for each removable medium whose top folder can be read: its device name, and the
     * list of the packages there ("*.swu", see NSWUpdateInstaller::listPackages()).
     */
    QVariant availableFirmwarePackagesAsVariant() const;

    /**
     * Reads the members "media" and "packageFileName" from a parsed JSON document.
     * @return whether it is an object with both, which must be strings.
     */
    static bool packageInformationFromVariant(const QVariant& variant, QString& media, QString& packageFileName);

signals:
    /** The state of the update has changed, or the installer has reported the end of an installation. */
    void firmwareUpdateEvent();

protected:
    void processGetMethod(NwaFcgiRequest* request) override;
    void processPostMethod(NwaFcgiRequest* request) override;

    /**
     * Reads the members "media" and "packageFileName" from the body of @a request.
     * @return whether both are there; if not, the request has been answered with 400 or 415 and deleted.
     */
    static bool getPackageInformation(NwaFcgiRequest* request, QString& media, QString& packageFileName);

private slots:
    /** The installer has seen the end; after a success, the post-update command follows. */
    void installationFinished(bool success);

    /**
     * @{
     * Follow the signals of the progress client.
     */
    void updateStarted(NSWUpdate::Source source, int nbSteps, const QString& info);
    void newStepStarted(int nbSteps, int step, const QString& imageName);
    void stepUpdate(int nbSteps, int step, const QString& imageName, quint8 percentage);
    void updateFinished(bool success);
    /** @} */

    /**
     * @{
     * Follow the image writer of an upload: its queue is empty, the daemon has dropped the image, or the installer
     * has been deleted.
     */
    void imageBytesWritten();
    void imageWritingSocketDisconnected();
    void imageWriterDestroyed(QObject* writer);
    /** @} */

    /**
     * @{
     * Follow the request of an upload: more of the form has arrived, the client has gone, or the request has been
     * deleted.
     */
    void formAvailable();
    void formAborted();
    void formDestroyed(QObject* request);
    /** @} */

private:
    Q_DISABLE_COPY(NFirmwareUpdateFcgiRequestProcessor)

    /** What m_state says of the latest update. */
    enum State { IdleState = 0, StartingState = 1, InstallingState = 2, FinishedState = 3 };

    /** The request of an upload and the reader of its form; both are owned. */
    typedef QPair<NwaFcgiRequest*, NwaCgiMultipartFormDataReader*> Upload;

    void installPackageOfMedia(NwaFcgiRequest* request);
    bool startPackageOfMedia(const QString& media, const QString& packageFileName);
    void readForm(const Upload& form);
    void startUpload(const Upload& form);
    void imageBytesWritten(NSwUpdateInstallerImageWriter* writer);
    bool pushChunks(NSwUpdateInstallerImageWriter* writer);
    void endUpload(NSwUpdateInstallerImageWriter* writer);
    void answerUpload(const Upload& upload) const;
    NSwUpdateInstallerImageWriter* writerOf(const QObject* object) const;

    QPointer<NSWUpdateInstaller> m_installer;
    const NRemovableMediasList* m_medias;
    int m_state; ///< a State
    int m_stepsCount;
    QString m_information; ///< the text of the request for the installation
    int m_currentStep;
    QString m_imageName; ///< of the current step
    quint8 m_stepPercentage;
    bool m_success;
    QTimer m_postUpdateTimer; ///< runs from a success to the post-update command
    QHash<NSwUpdateInstallerImageWriter*, Upload> m_uploads;
    QHash<QObject*, Upload> m_forms; ///< whose part "package" has not arrived yet, by request
};

#endif
