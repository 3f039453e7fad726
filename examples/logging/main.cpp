// Writes two lines to the system log and prints the errors of two programs from it.

#include <nbase/core/nsyslog.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <stdio.h>
#include <syslog.h>

int main(int argc, char** argv)
{
    // Constructed first and destroyed last, so that the other objects can log while they are destroyed.
    QStringList logFiles;
    logFiles << QString::fromLatin1("/var/log/messages.0") << QString::fromLatin1("/var/log/messages");
    NSysLog systemLog(LOG_PID, LOG_DAEMON, logFiles, nullptr);
    NSysLog::setAsQtMsgHandler();
    QCoreApplication application(argc, argv);

    qWarning("the battery is at %d percent", 12);
    systemLog.log(NSysLog::Notice, QString::fromLatin1("started"));

    QList<QRegExp> programs;
    programs << QRegExp(QString::fromLatin1("dhcpd(\\[\\d+\\])?")) << QRegExp(QString::fromLatin1("kernel"));
    const QStringList lines = systemLog.logLines(NSysLog::Error, programs);
    for (const QString& line : lines)
        printf("%s\n", line.toLatin1().constData());
    return 0;
}
