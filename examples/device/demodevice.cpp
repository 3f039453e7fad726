#include "demodevice.h"

#include "devicerequestprocessor.h"
#include "eventsrequestprocessor.h"
#include "firmwaremessagesrequestprocessor.h"
#include "iorequestprocessor.h"
#include "loginrequestprocessor.h"
#include "logoutrequestprocessor.h"
#include "mediarequestprocessor.h"
#include "proxychoicerequestprocessor.h"
#include "streamrequestprocessor.h"

#include <nbase/firmware/nfirmwareupdatefcgirequestprocessor.h>
#include <nbase/firmware/nfirmwareupdatefcgiservice.h>
#include <nbase/network/nnetworkpingfcgirequestprocessor.h>
#include <nbase/network/nnetworkpingfcgiservice.h>
#include <nbase/network/nnetworkproxyparametersfcgiservice.h>
#include <nbase/network/nnetworktraceroutefcgirequestprocessor.h>
#include <nbase/network/nnetworktraceroutefcgiservice.h>
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

// EventSource does not pass on the heartbeats of a stream, and a page takes silence for a broken connection.
const int MillisecondsBetweenSignsOfLife = 15 * 1000;

// For each step of a request to the SWUpdate daemon, during which no other request is served.
const int UpdaterWaitTime = 5000; // milliseconds

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
    , m_streams(&m_sessions, nullptr)
    , m_networkEvents(&m_streams)
    , m_installer(settings.updaterSocket, nullptr)
    , m_progress(nullptr)
    , m_firmwareEvents(&m_streams)
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
    m_server.registerService(
        QString::fromLatin1("/api/io"),
        new NwaStandardFcgiService(new IoRequestProcessor(&m_identifier, &m_io), &m_services));
    connect(&m_io, SIGNAL(changed()), SLOT(sendIo()));
    registerNetworkTests();
    registerFirmwareUpdate(settings);
    connect(&m_signOfLife, SIGNAL(timeout()), SLOT(sendSignOfLife()));
    m_signOfLife.start(MillisecondsBetweenSignsOfLife);
}

void DemoDevice::sendSignOfLife()
{
    m_streams.sendToAll("alive", QVariant());
}

void DemoDevice::sendIo()
{
    m_streams.sendToAll("io", IoRequestProcessor::document(m_io));
}

void DemoDevice::registerNetworkTests()
{
    NNetworkPingFcgiRequestProcessor* const pings =
        new NNetworkPingFcgiRequestProcessor(&m_identifier, &m_sessions, nullptr);
    NNetworkPingFcgiService* const pingService = new NNetworkPingFcgiService(pings, &m_services);
    m_networkEvents.follow(pingService, pings);
    m_server.registerService(QString::fromLatin1("/api/ping"), pingService);

    NNetworkTracerouteFcgiRequestProcessor* const traceroutes =
        new NNetworkTracerouteFcgiRequestProcessor(&m_identifier, &m_sessions, nullptr);
    NNetworkTracerouteFcgiService* const tracerouteService =
        new NNetworkTracerouteFcgiService(traceroutes, &m_services);
    m_networkEvents.follow(tracerouteService, traceroutes);
    m_server.registerService(QString::fromLatin1("/api/traceroute"), tracerouteService);

    m_server.registerService(
        QString::fromLatin1("/api/stream"),
        new NwaStandardFcgiService(new StreamRequestProcessor(&m_identifier, &m_streams), &m_services));
}

void DemoDevice::registerFirmwareUpdate(const DemoDeviceSettings& settings)
{
    m_installer.setWaitTime(UpdaterWaitTime);
    m_installer.setRecordLayout(settings.controlRecords);
    m_progress.setRecordLayout(settings.progressRecords);
    NFirmwareUpdateFcgiRequestProcessor* const processor =
        new NFirmwareUpdateFcgiRequestProcessor(&m_identifier, &m_installer, &m_progress, &m_medias, nullptr);
    NFirmwareUpdateFcgiService* const service = new NFirmwareUpdateFcgiService(processor, &m_services);
    // After the processor, which reports the end of an installation before the events explain it.
    m_firmwareEvents.follow(&m_progress);
    m_firmwareEvents.follow(&m_installer);
    m_firmwareEvents.follow(&m_medias);
    m_firmwareEvents.follow(service, processor);
    m_server.registerService(QString::fromLatin1("/api/firmware"), service);
    m_server.registerService(
        QString::fromLatin1("/api/firmware-messages"),
        new NwaStandardFcgiService(
            new FirmwareMessagesRequestProcessor(&m_identifier, &m_firmwareEvents), &m_services));
    m_server.registerService(
        QString::fromLatin1("/api/media"),
        new NwaStandardFcgiService(new MediaRequestProcessor(&m_identifier, &m_medias), &m_services));
}

bool DemoDevice::listen(const QString& path)
{
    return m_server.listenOnPath(path);
}

QString DemoDevice::errorString() const
{
    return m_server.errorString();
}
