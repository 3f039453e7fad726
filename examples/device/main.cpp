// A small complete device: it logs to syslog, serves the library's web services over FastCGI and ends on SIGTERM.
// The web server in front of it and the page are started by run-demo.sh.

#include "demodevice.h"
#include "terminationwatcher.h"

#include <nbase/core/nbaselibinformation.h>
#include <nbase/core/nsyslog.h>
#include <nbase/firmware/progress_ipc.h>

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QStringList>

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>

namespace {

struct Options
{
    QString socketPath;
    QString updaterProgressSocket; ///< null for the usual one
    DemoDeviceSettings device;
};

// Takes the sizes of the daemon's records on its control socket and its progress socket, such as "3120:2416".
bool readRecordSizes(const QString& text, DemoDeviceSettings& settings)
{
    const QString control = text.section(QLatin1Char(':'), 0, 0);
    const QString progress = text.section(QLatin1Char(':'), 1);
    if (control == QLatin1String("3120"))
        settings.controlRecords = NSWUpdateInstaller::Record3120;
    else if (control == QLatin1String("3104"))
        settings.controlRecords = NSWUpdateInstaller::Record3104;
    else if (control != QLatin1String("2072"))
        return false;
    if (progress == QLatin1String("2416"))
        settings.progressRecords = NSWUpdateProgressClient::Record2416;
    else if (progress == QLatin1String("2408"))
        settings.progressRecords = NSWUpdateProgressClient::Record2408;
    else if (progress != QLatin1String("2400"))
        return false;
    return true;
}

bool readOptions(const QStringList& arguments, Options& options)
{
    for (int index = 1; index + 1 < arguments.size(); index += 2) {
        const QString name = arguments.at(index);
        const QString value = arguments.at(index + 1);
        bool ok = true;
        if (name == QLatin1String("--socket"))
            options.socketPath = value;
        else if (name == QLatin1String("--session-timeout"))
            options.device.sessionTimeout = value.toInt(&ok);
        else if (name == QLatin1String("--configuration"))
            options.device.configurationDirectory = value;
        else if (name == QLatin1String("--staging"))
            options.device.stagingDirectory = value;
        else if (name == QLatin1String("--updater"))
            options.device.updaterSocket = value;
        else if (name == QLatin1String("--updater-progress"))
            options.updaterProgressSocket = value;
        else if (name == QLatin1String("--updater-records"))
            ok = readRecordSizes(value, options.device);
        else
            return false;
        if (!ok || options.device.sessionTimeout < 1)
            return false;
    }
    return arguments.size() % 2 == 1 && !options.socketPath.isEmpty();
}

} // namespace

int main(int argc, char** argv)
{
    QStringList logFiles;
    logFiles << QString::fromLatin1("/var/log/messages.0") << QString::fromLatin1("/var/log/messages");
    // syslog(3) keeps a pointer to the identity, which belongs to the NSysLog. So it is created first and
    // destroyed last: the destructors of the other objects may still send messages.
    NSysLog log(LOG_PID, LOG_DAEMON, logFiles, nullptr);
    QCoreApplication application(argc, argv);
    Options options;
    if (!readOptions(application.arguments(), options)) {
        fprintf(
            stderr,
            "usage: nbase-demo-device --socket <path> [--session-timeout <seconds>] [--configuration <folder>]\n"
            "       [--staging <folder>] [--updater <socket>] [--updater-progress <socket>]\n"
            "       [--updater-records <size of control records>:<size of progress records>]\n");
        return EXIT_FAILURE;
    }
    TerminationWatcher termination(&application);
    QObject::connect(&termination, SIGNAL(terminationRequested()), &application, SLOT(quit()));

    // The progress client connects to the path that this has at that time.
    QByteArray progressSocket = QFile::encodeName(options.updaterProgressSocket);
    if (!progressSocket.isEmpty())
        SOCKET_PROGRESS_PATH = progressSocket.data();

    DemoDevice device(options.device, &log);
    if (!device.listen(options.socketPath)) {
        fprintf(stderr, "nbase-demo-device: %s\n", device.errorString().toLocal8Bit().constData());
        return EXIT_FAILURE;
    }
    NSysLog::setAsQtMsgHandler();
    log.log(
        NSysLog::Informational,
        QString::fromLatin1("serving with %1 %2")
            .arg(NBaseLibInformation::libraryName(), NBaseLibInformation::libraryVersion()));
    return application.exec();
}
