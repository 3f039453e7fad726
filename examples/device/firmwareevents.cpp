#include "firmwareevents.h"

#include "mediarequestprocessor.h"

#include <nbase/device/nremovablemediaslist.h>
#include <nbase/firmware/nfirmwareupdatefcgirequestprocessor.h>
#include <nbase/firmware/nfirmwareupdatefcgiservice.h>
#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateprogressclient.h>

#include <nwebapi/nwaeventstreams.h>

namespace {

const char UnknownStatus[] = "unknown";

QString statusText(NSWUpdate::Status status)
{
    static const char* const Texts[] = {"idle",     "start", "run",        "success", "failure",
                                        "download", "done",  "subprocess", "progress"};
    const int count = int(sizeof(Texts) / sizeof(Texts[0]));
    const int index = int(status);
    return index >= 0 && index < count ? QString::fromLatin1(Texts[index]) : QString::number(index);
}

} // namespace

FirmwareEvents::FirmwareEvents(NwaEventStreams* streams)
    : m_streams(streams)
    , m_processor(nullptr)
    , m_medias(nullptr)
    , m_messageNumber(0)
    , m_isComplete(true)
    , m_hasBegun(true)
{
}

void FirmwareEvents::follow(
    const NFirmwareUpdateFcgiService* service, const NFirmwareUpdateFcgiRequestProcessor* processor)
{
    m_processor = processor;
    connect(service, SIGNAL(firmwareUpdateEvent()), SLOT(sendStatus()));
}

void FirmwareEvents::follow(const NSWUpdateInstaller* installer)
{
    connect(
        installer, SIGNAL(newStatus(NSWUpdate::Status,bool,QString)),
                          SLOT(addStatusMessage(NSWUpdate::Status,bool,QString)));
    connect(installer, SIGNAL(finished(bool)), SLOT(endInstallation(bool)));
}

void FirmwareEvents::follow(const NSWUpdateProgressClient* progress)
{
    connect(progress, SIGNAL(updateStarted(NSWUpdate::Source,int,QString)), SLOT(beginInstallation()));
    connect(progress, SIGNAL(subProcessNotification(QString)), SLOT(addSubProcessMessage(QString)));
}

void FirmwareEvents::follow(const NRemovableMediasList* medias)
{
    m_medias = medias;
    connect(medias, SIGNAL(removableMediaInserted(NRemovableMedia*)), SLOT(sendMedia()));
    connect(medias, SIGNAL(removableMediaRemoved(QString)), SLOT(sendMedia()));
}

QVariantList FirmwareEvents::messages() const
{
    return m_messages;
}

void FirmwareEvents::sendStatus()
{
    // The daemon continues after all.
    if (!m_messages.isEmpty() && m_messages.last().toMap().value(QString::fromLatin1("status")) ==
                                     QVariant(QString::fromLatin1(UnknownStatus)))
        m_messages.removeLast();
    m_streams->sendToAll("firmware", m_processor->firmwareUpdateStatusToVariantMap());
}

void FirmwareEvents::sendMedia()
{
    m_streams->sendToAll("media", MediaRequestProcessor::toVariant(*m_medias));
}

// Progress and messages come from two sockets: the first messages, and even the end, may come before the
// beginning.
void FirmwareEvents::beginInstallation()
{
    if (m_isComplete && m_hasBegun)
        forgetMessages();
    m_hasBegun = true;
}

void FirmwareEvents::forgetMessages()
{
    m_messages.clear();
    m_isComplete = false;
    m_hasBegun = false;
}

void FirmwareEvents::endInstallation(bool success)
{
    // The progress client reports each end that the daemon has reached.
    const QString state =
        m_processor->firmwareUpdateStatusToVariantMap().value(QString::fromLatin1("state")).toString();
    if (!success && (state == QLatin1String("starting") || state == QLatin1String("installing")))
        addMessage(
            QString::fromLatin1(UnknownStatus), true,
            QString::fromLatin1("The SWUpdate daemon does not answer. It may nevertheless continue."));
    m_isComplete = true;
}

void FirmwareEvents::addStatusMessage(NSWUpdate::Status status, bool isError, const QString& description)
{
    addMessage(statusText(status), isError, description);
}

void FirmwareEvents::addSubProcessMessage(const QString& description)
{
    addMessage(statusText(NSWUpdate::StatusSubprocess), false, description);
}

void FirmwareEvents::addMessage(const QString& status, bool isError, const QString& description)
{
    // A change of the status alone is in the status object.
    if (description.isEmpty())
        return;
    if (m_isComplete)
        forgetMessages();
    ++m_messageNumber;
    QVariantMap message;
    message.insert(QString::fromLatin1("number"), m_messageNumber);
    message.insert(QString::fromLatin1("isFirst"), m_messages.isEmpty());
    message.insert(QString::fromLatin1("status"), status);
    message.insert(QString::fromLatin1("isError"), isError);
    message.insert(QString::fromLatin1("description"), description.left(MaximumMessageSize));
    if (m_messages.size() == MaximumMessageCount)
        m_messages.removeFirst();
    m_messages.append(message);
    m_streams->sendToAll("firmware-message", message);
}
