// A program that serves the time zone database, as a device's does.
//
//     timezoneservice_ours <socket>
//
// It prints the session cookie that its requests need.

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>
#include <nbase/web/nbuildrootuclibctimezonedatabasefcgiservice.h>

#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgiserver.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtCore/QUuid>

#include <stdio.h>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    NwaFcgiServer server;
    const NBuildrootUclibcTimeZoneDatabase database;
    NwaWebSessionManager sessions;
    NwaCookieFcgiSessionIdentifier identifier(&sessions);
    NBuildrootUclibcTimeZoneDatabaseFcgiService service(&identifier, &database, nullptr);
    server.registerService(QString::fromLatin1("/ours"), &service);
    if (!server.listenOnPath(application.arguments().value(1)))
        return 1;
    const QByteArray id = sessions.createSession()->id().toString().toLatin1();
    printf("session=%s\n", id.mid(1, id.size() - 2).constData());
    fflush(stdout);
    return application.exec();
}
