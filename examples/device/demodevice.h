#ifndef DEMODEVICE_DEMODEVICE_H
#define DEMODEVICE_DEMODEVICE_H

#include "ioboard.h"
#include "networkevents.h"
#include "timetable.h"
#include "timezonesetting.h"

#include <nbase/config/nucicursor.h>
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
    {
    }

    int sessionTimeout;             ///< after how many seconds without a request a session ends
    QString configurationDirectory; ///< of the configuration store; null for its default
    QString stagingDirectory;       ///< of the configuration store; null for its default
};

/**
 * The demo device's services: every web service of the library, a timetable, simulated inputs and outputs, the
 * device's own state and a stream of live events, behind one login.
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
    QTimer m_signOfLife;
    QObject m_services; ///< owns the services, which end after the server and before what they serve
    NwaFcgiServer m_server;
};

#endif
