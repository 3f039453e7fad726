#ifndef DEMODEVICE_FIRMWAREEVENTS_H
#define DEMODEVICE_FIRMWAREEVENTS_H

#include <nbase/firmware/nswupdate.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QVariant>

class NFirmwareUpdateFcgiRequestProcessor;
class NFirmwareUpdateFcgiService;
class NRemovableMedia;
class NRemovableMediasList;
class NSWUpdateInstaller;
class NSWUpdateProgressClient;
class NwaEventStreams;

/**
 * Sends what concerns firmware updates to the event streams of all sessions, because there is one installation for
 * all of them:
 *
 * - "firmware": the status of the installation, as GET of the firmware service replies with it.
 * - "firmware-message": what the SWUpdate daemon reports in words,
 *
 *       {"number": 7, "isFirst": false, "status": "failure", "isError": true, "description": "Image invalid."}
 *
 *   or, with the status "unknown", that the daemon has stopped answering before the end of the installation. This
 *   one is dropped when the status changes after all.
 * - "media": the list of the removable media, see MediaRequestProcessor.
 *
 * The status does not contain the words of the daemon, without which a failed installation has no reason. The
 * latest ones are kept, so that a page that is loaded later can read them.
 */
class FirmwareEvents : public QObject
{
    Q_OBJECT

public:
    /** How many messages are kept. */
    static const int MaximumMessageCount = 50;

    /** How many characters a message has at most; the streams keep 8 KiB for each session. */
    static const int MaximumMessageSize = 300;

    /** @param streams is not owned, and must outlive this object. */
    explicit FirmwareEvents(NwaEventStreams* streams);

    /** @{ Passes on what these report. They are not owned. */
    void follow(const NFirmwareUpdateFcgiService* service, const NFirmwareUpdateFcgiRequestProcessor* processor);
    void follow(const NSWUpdateInstaller* installer);
    void follow(const NSWUpdateProgressClient* progress);
    void follow(const NRemovableMediasList* medias);
    /** @} */

    /** The messages about the latest installation, the oldest first. */
    QVariantList messages() const;

private slots:
    void sendStatus();
    void sendMedia();
    void beginInstallation();
    void endInstallation(bool success);
    void addStatusMessage(NSWUpdate::Status status, bool isError, const QString& description);
    void addSubProcessMessage(const QString& description);

private:
    Q_DISABLE_COPY(FirmwareEvents)

    void forgetMessages();
    void addMessage(const QString& status, bool isError, const QString& description);

    NwaEventStreams* m_streams;
    const NFirmwareUpdateFcgiRequestProcessor* m_processor;
    const NRemovableMediasList* m_medias;
    QVariantList m_messages;
    quint32 m_messageNumber; ///< of the latest one
    bool m_isComplete; ///< the installer has reported the end of the installation that the messages are about
    bool m_hasBegun;   ///< the progress client has reported the beginning of that installation
};

#endif
