// nserial - list serial ports, show their lines, receive and send. See CommandLine::usage().

#include "commandline.h"
#include "portlist.h"
#include "serialsession.h"
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

int runSession(const CommandLine& commandLine)
{
    // A reader of the standard output that ends must not end this program before the line is restored.
    signal(SIGPIPE, SIG_IGN);
    SerialSession session(commandLine);
    TerminationWatcher termination(nullptr);
    QObject::connect(&termination, SIGNAL(terminationRequested()), &session, SLOT(interrupt()));
    QObject::connect(&session, SIGNAL(finished()), qApp, SLOT(quit()));
    session.start();
    QCoreApplication::exec();
    if (session.errorText().isEmpty())
        return ExitDone;
    fprintf(stderr, "nserial: %s\n", session.errorText().constData());
    return ExitFailed;
}

} // namespace

int main(int argc, char** argv)
{
    QList<QByteArray> arguments; // QCoreApplication::arguments() loses bytes that are no text
    for (int i = 1; i < argc; ++i)
        arguments.append(argv[i]);
    QCoreApplication application(argc, argv);

    CommandLine commandLine;
    const QByteArray error = commandLine.read(arguments);
    if (!error.isEmpty()) {
        fprintf(stderr, "nserial: %s\nTry \"nserial --help\".\n", error.constData());
        return ExitUsage;
    }
    switch (commandLine.task) {
    case CommandLine::PrintHelp:
        return print(CommandLine::usage());
    case CommandLine::PrintVersion:
        return print("nserial " NSERIAL_VERSION "\n");
    case CommandLine::ListPorts:
        return print(portList());
    case CommandLine::UsePort:
        break;
    }
    return runSession(commandLine);
}
