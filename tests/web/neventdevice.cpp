// A device for the test of event streams behind a web server: "/api/login" makes a session, "/api/stream" is its
// event stream, "/api/logout" ends it. POST to "/api/device" sends the document as an event of the type "test" to
// the session; GET counts the streams and the connections.
//
//     neventdevice <socket> <seconds between heartbeats> <seconds after which a stalled connection is closed>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwaeventstreams.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwastandardfcgirequestprocessor.h>
#include <nwebapi/nwastandardfcgiservice.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <stdio.h>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

struct Device
{
    Device()
        : identifier(&sessions)
        , streams(&sessions, nullptr)
    {
    }

    NwaWebSessionManager sessions;
    NwaCookieFcgiSessionIdentifier identifier;
    NwaEventStreams streams;
    NwaFcgiServer server;
};

class LoginProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit LoginProcessor(Device& device)
        : NwaStandardFcgiRequestProcessor(&device.identifier)
        , m_device(device)
    {
        setServedMethods(PostMethod);
    }

protected:
    void processPostMethod(NwaFcgiRequest* request) override
    {
        NwaHttpJsonHeader header(text("utf-8"));
        m_device.identifier.addSessionCookie(request, m_device.sessions.createSession(), header);
        sendJsonReply(request, QVariantMap(), header);
    }

private:
    Device& m_device;
};

class LogoutProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit LogoutProcessor(Device& device)
        : NwaStandardFcgiRequestProcessor(&device.identifier)
        , m_device(device)
    {
        setServedMethods(PostMethod);
    }

protected:
    void processPostMethod(NwaFcgiRequest* request) override
    {
        NwaWebSession* const session = requireSession(request);
        if (!session)
            return;
        m_device.sessions.removeSession(session->id());
        sendJsonReply(request, QVariantMap());
    }

private:
    Device& m_device;
};

class StreamProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit StreamProcessor(Device& device)
        : NwaStandardFcgiRequestProcessor(&device.identifier)
        , m_device(device)
    {
    }

protected:
    void processGetMethod(NwaFcgiRequest* request) override
    {
        if (const NwaWebSession* const session = requireSession(request, PassiveRequest))
            m_device.streams.open(request, session);
    }

private:
    Device& m_device;
};

class DeviceProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    explicit DeviceProcessor(Device& device)
        : NwaStandardFcgiRequestProcessor(&device.identifier)
        , m_device(device)
    {
        setServedMethods(GetMethod | PostMethod);
    }

protected:
    void processGetMethod(NwaFcgiRequest* request) override
    {
        QVariantMap counts;
        counts.insert(text("streams"), m_device.streams.streamCount());
        counts.insert(text("connections"), m_device.server.connectionCount());
        sendJsonReply(request, counts);
    }

    void processPostMethod(NwaFcgiRequest* request) override
    {
        const NwaWebSession* const session = requireSession(request);
        QVariant document;
        if (!session || !requireJsonContent(request, document))
            return;
        m_device.streams.send(session->id(), "test", document);
        sendJsonReply(request, QVariantMap());
    }

private:
    Device& m_device;
};

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    Device device;
    device.streams.setHeartbeatInterval(arguments.value(2).toInt());
    NwaFcgiLimits limits;
    limits.stallTimeout = arguments.value(3).toInt();
    device.server.setLimits(limits);
    NwaStandardFcgiService login(new LoginProcessor(device), nullptr);
    NwaStandardFcgiService logout(new LogoutProcessor(device), nullptr);
    NwaStandardFcgiService stream(new StreamProcessor(device), nullptr);
    NwaStandardFcgiService counts(new DeviceProcessor(device), nullptr);
    device.server.registerService(text("/api/login"), &login);
    device.server.registerService(text("/api/logout"), &logout);
    device.server.registerService(text("/api/stream"), &stream);
    device.server.registerService(text("/api/device"), &counts);
    if (!device.server.listenOnPath(arguments.value(1))) {
        fprintf(stderr, "%s\n", device.server.errorString().toLocal8Bit().constData());
        return 1;
    }
    return application.exec();
}
