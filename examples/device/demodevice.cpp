#include "demodevice.h"

#include "devicerequestprocessor.h"
#include "eventsrequestprocessor.h"
#include "loginrequestprocessor.h"
#include "logoutrequestprocessor.h"
#include "proxychoicerequestprocessor.h"

#include <nbase/network/nnetworkproxyparametersfcgiservice.h>
#include <nbase/web/nbuildrootuclibctimezonedatabasefcgiservice.h>
#include <nbase/web/nfreepackageslistfcgiservice.h>

#include <nwebapi/nwastandardfcgiservice.h>

namespace {

QSet<Qt::DayOfWeek> daysFromMondayTo(Qt::DayOfWeek lastDay)
{
    QSet<Qt::DayOfWeek> days;
    for (int day = Qt::Monday; day <= lastDay; ++day)
        days.insert(static_cast<Qt::DayOfWeek>(day));
    return days;
}

// Entries for the first user to look at.
void addExamples(Timetable* timetable)
{
    EntryPlan heating;
    heating.title = QString::fromLatin1("Heating");
    heating.kind = EntryPlan::Slot;
    heating.days = daysFromMondayTo(Qt::Friday);
    heating.start = QTime(6, 0);
    heating.end = QTime(17, 30);
    timetable->add(heating);

    EntryPlan nightMode;
    nightMode.title = QString::fromLatin1("Night mode");
    nightMode.kind = EntryPlan::Slot;
    nightMode.days = daysFromMondayTo(Qt::Sunday);
    nightMode.start = QTime(22, 0);
    nightMode.end = QTime(6, 0);
    timetable->add(nightMode);

    EntryPlan pumpTest;
    pumpTest.title = QString::fromLatin1("Pump test");
    pumpTest.days << Qt::Monday << Qt::Thursday;
    pumpTest.start = QTime(12, 15);
    timetable->add(pumpTest);
}

} // namespace

DemoDevice::DemoDevice(const DemoDeviceSettings& settings, const NSysLog* log)
    : m_timeZone(&m_timeZones, settings.configurationDirectory, settings.stagingDirectory)
    , m_packages(nullptr)
    , m_proxyConfiguration(settings.configurationDirectory, settings.stagingDirectory)
    , m_proxy(&m_proxyConfiguration, QString::fromLatin1("proxy"), nullptr)
    , m_proxyAccess(&m_proxy)
    , m_identifier(&m_sessions)
{
    m_sessions.setIdleTimeout(settings.sessionTimeout);
    // Entries start and end by local time.
    NEventPlanner::connectCurrentDateTimeChangedSignal(&m_timeZone, SIGNAL(changed()));
    addExamples(&m_timetable);
    m_server.registerService(
        QString::fromLatin1("/api/device"),
        new NwaStandardFcgiService(new DeviceRequestProcessor(&m_identifier, log, &m_timeZone), &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/events"),
        new NwaStandardFcgiService(new EventsRequestProcessor(&m_identifier, &m_timetable), &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/login"),
        new NwaStandardFcgiService(new LoginRequestProcessor(&m_identifier, &m_sessions), &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/logout"),
        new NwaStandardFcgiService(new LogoutRequestProcessor(&m_identifier, &m_sessions), &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/timezones"),
        new NBuildrootUclibcTimeZoneDatabaseFcgiService(&m_identifier, &m_timeZones, &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/packages"),
        new NFreePackagesListFcgiService(&m_identifier, &m_packages, &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/proxy"),
        new NNetworkProxyParametersFcgiService(&m_identifier, &m_proxyAccess, &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/proxy-choice"),
        new NwaStandardFcgiService(new ProxyChoiceRequestProcessor(&m_identifier, &m_proxy), &m_services));
}

bool DemoDevice::listen(const QString& path)
{
    return m_server.listenOnPath(path);
}

QString DemoDevice::errorString() const
{
    return m_server.errorString();
}
