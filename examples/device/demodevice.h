#ifndef DEMODEVICE_DEMODEVICE_H
#define DEMODEVICE_DEMODEVICE_H

#include "timetable.h"

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>
#include <nbase/web/nfreepackageslist.h>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QObject>

/** The demo device's services: every web service of the library and a timetable, behind one login. */
class DemoDevice : public QObject
{
    Q_OBJECT

public:
    /** @param sessionTimeout after how many seconds without a request a session ends. */
    explicit DemoDevice(int sessionTimeout);

    /** Serves FastCGI on the Unix socket @a path. @return whether that succeeded; errorString() gives the reason.
     */
    bool listen(const QString& path);

    QString errorString() const;

private:
    Q_DISABLE_COPY(DemoDevice)

    NBuildrootUclibcTimeZoneDatabase m_timeZones;
    Timetable m_timetable;
    NFreePackagesList m_packages;
    NwaWebSessionManager m_sessions;
    NwaCookieFcgiSessionIdentifier m_identifier;
    QObject m_services; ///< owns the services, which end after the server and before what they serve
    NwaFcgiServer m_server;
};

#endif
