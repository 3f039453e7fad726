// A program that serves the firmware update as a device does, without asking for a session.
//
//     firmwareupload_ours <socket> <socket of the daemon>

#include <nbase/device/nremovablemediaslist.h>
#include <nbase/firmware/nfirmwareupdatefcgiservice.h>
#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateprogressclient.h>

#include <nwebapi/nwaabstractfcgisessionidentifier.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

namespace {

class NoMedias : public NRemovableMediasList
{
public:
    const QHash<QString, NRemovableMedia*>& removableMedias() const override { return m_medias; }
    void refresh() override {}

private:
    const QHash<QString, NRemovableMedia*> m_medias;
};

class OneSession : public NwaAbstractFcgiSessionIdentifier
{
public:
    OneSession()
        : m_session(m_sessions.createSession())
    {
    }

    NwaWebSession* identifySession(NwaFcgiRequest*, bool) override { return m_session; }

private:
    NwaWebSessionManager m_sessions;
    NwaWebSession* const m_session;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    NwaFcgiServer server;
    OneSession identifier;
    NSWUpdateInstaller installer(arguments.value(2), nullptr);
    const NSWUpdateProgressClient progress(nullptr);
    const NoMedias medias;
    NFirmwareUpdateFcgiService service(&identifier, &installer, &progress, &medias, nullptr);
    server.registerService(QString::fromLatin1("/ours"), &service);
    if (!server.listenOnPath(arguments.value(1)))
        return 1;
    return application.exec();
}
