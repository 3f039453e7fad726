// ngpio - list, read, watch and drive the lines of GPIO chips. See CommandLine::usage().

#include "commandline.h"
#include "linelist.h"
#include "linesession.h"
#include "terminationwatcher.h"

#include <QtCore/QCoreApplication>

#include <signal.h>
#include <stdio.h>

namespace {

enum ExitStatus { ExitDone = 0, ExitFailed = 1, ExitUsage = 2 };

int print(const QByteArray& text)
{
    const bool printed = fputs(text.constData(), stdout) >= 0 && fflush(stdout) == 0;
    return printed ? ExitDone : ExitFailed;
}

int fail(const QByteArray& reason)
{
    fprintf(stderr, "ngpio: %s\n", reason.constData());
    return ExitFailed;
}

int listLines(const CommandLine& commandLine)
{
    QByteArray error;
    QByteArray list;
    if (commandLine.lines.isEmpty())
        list = lineList(QString(), &error);
    for (const CommandLine::Line& chip : commandLine.lines)
        list += lineList(QString::fromLocal8Bit(chip.address), &error);
    const int status = print(list);
    return error.isEmpty() ? status : fail(error);
}

int runSession(const CommandLine& commandLine)
{
    // A reader of the standard output that ends must not end this program before the outputs are released.
    signal(SIGPIPE, SIG_IGN);
    TerminationWatcher termination(nullptr);
    LineSession session(commandLine);
    QObject::connect(&termination, SIGNAL(terminationRequested()), &session, SLOT(finish()));
    QObject::connect(&session, SIGNAL(finished()), qApp, SLOT(quit()));
    session.start();
    QCoreApplication::exec();
    return session.errorText().isEmpty() ? ExitDone : fail(session.errorText());
}

} // namespace

int main(int argc, char** argv)
{
    QList<QByteArray> arguments; // QCoreApplication::arguments() loses bytes that are no text
    for (int i = 1; i < argc; ++i)
        arguments.append(argv[i]);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QLatin1String("ngpio")); // the holder of the lines

    CommandLine commandLine;
    const QByteArray error = commandLine.read(arguments);
    if (!error.isEmpty()) {
        fail(error + "\nTry \"ngpio --help\".");
        return ExitUsage;
    }
    switch (commandLine.task) {
    case CommandLine::PrintHelp:
        return print(CommandLine::usage());
    case CommandLine::PrintVersion:
        return print("ngpio " NGPIO_VERSION "\n");
    case CommandLine::ListLines:
        return listLines(commandLine);
    case CommandLine::ReadLines:
    case CommandLine::WatchLines:
    case CommandLine::DriveLines:
        break;
    }
    return runSession(commandLine);
}
