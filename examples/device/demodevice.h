#ifndef DEMODEVICE_DEMODEVICE_H
#define DEMODEVICE_DEMODEVICE_H

#include "firmwareevents.h"
#include "ioboard.h"
#include "mountedmedias.h"
#include "networkevents.h"
#include "timetable.h"
#include "timezonesetting.h"

#include <nbase/config/nucicursor.h>
#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/network/nnetworkproxyparameters.h>
#include <nbase/network/nnetworkproxyparametersaccessor.h>
#include <nbase/time/nbuildrootuclibctimezonedatabase.h>
#include <nbase/web/nfreepackageslist.h>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwaeventstreams.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QObject>
#include <QtCore/QTimer>

class NSysLog;

/** The settings of the demo device. */
struct DemoDeviceSettings
{
    DemoDeviceSettings()
        : sessionTimeout(NwaWebSessionManager::DefaultIdleTimeout)
        , updaterSocket(QString::fromLatin1("/tmp/sockinstctrl"))
        , controlRecords(NSWUpdateInstaller::Record2072)
        , progressRecords(NSWUpdateProgressClient::Record2400)
    {
    }

    int sessionTimeout;                              ///< after how many seconds without a request a session ends
    QString configurationDirectory;                  ///< of the configuration store; null for its default
    QString stagingDirectory;                        ///< of the configuration store; null for its default
    QString updaterSocket;                           ///< the control socket of the SWUpdate daemon
    NSWUpdateInstaller::RecordLayout controlRecords; ///< of the daemon's control socket
    NSWUpdateProgressClient::RecordLayout progressRecords; ///< of the daemon's progress socket
};

/**
 * The demo device's services: every web service of the library, a timetable, simulated inputs and outputs, the
 * device's own state, the removable media and a stream of live events, behind one login.
 */
class DemoDevice : public QObject
{
    Q_OBJECT

public:
    /** @param log must live longer. */
    DemoDevice(const DemoDeviceSettings& settings, const NSysLog* log);

    /** Serves FastCGI on the Unix socket @a path. @return whether that succeeded; errorString() gives the reason.
     */
    bool listen(const QString& path);

    QString errorString() const;

private slots:
    void sendSignOfLife();
    void sendIo();

private:
    Q_DISABLE_COPY(DemoDevice)

    void registerNetworkTests();
    void registerFirmwareUpdate(const DemoDeviceSettings& settings);

    NBuildrootUclibcTimeZoneDatabase m_timeZones;
    TimeZoneSetting m_timeZone;
    Timetable m_timetable;
    IoBoard m_io;
    NFreePackagesList m_packages;
    NUciCursor m_proxyConfiguration;
    NNetworkProxyParameters m_proxy;
    NNetworkProxyParametersAccessor m_proxyAccess;
    NwaWebSessionManager m_sessions;
    NwaCookieFcgiSessionIdentifier m_identifier;
    NwaEventStreams m_streams;
    NetworkEvents m_networkEvents;
    MountedMedias m_medias;
    NSWUpdateInstaller m_installer;
    NSWUpdateProgressClient m_progress;
    FirmwareEvents m_firmwareEvents;
    QTimer m_signOfLife;
    QObject m_services; ///< owns the services, which end after the server and before what they serve
    NwaFcgiServer m_server;
};

#endif
