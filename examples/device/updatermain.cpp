// Stands in for the SWUpdate daemon where none is installed, see --help.

#include "terminationwatcher.h"
#include "updatedaemon.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QSocketNotifier>
#include <QtCore/QStringList>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

// Takes options from standard input while the daemon runs.
class CommandReader : public QObject
{
    Q_OBJECT

public:
    explicit CommandReader(UpdateDaemon* daemon)
        : m_daemon(daemon)
        , m_notifier(STDIN_FILENO, QSocketNotifier::Read)
    {
        connect(&m_notifier, SIGNAL(activated(int)), SLOT(read()));
    }

private slots:
    void read()
    {
        char bytes[4096];
        const ssize_t size = ::read(STDIN_FILENO, bytes, sizeof(bytes));
        if (size <= 0) {
            m_notifier.setEnabled(false);
            return;
        }
        m_text.append(bytes, int(size));
        for (int end = m_text.indexOf('\n'); end >= 0; end = m_text.indexOf('\n')) {
            const bool isSet = m_daemon->setOptions(QString::fromLocal8Bit(m_text.left(end)));
            puts(isSet ? "ok" : "unknown option or wrong value");
            fflush(stdout);
            m_text.remove(0, end + 1);
        }
    }

private:
    UpdateDaemon* const m_daemon;
    QSocketNotifier m_notifier;
    QByteArray m_text;
};

int printUsage(FILE* file, int result)
{
    fprintf(
        file,
        "usage: nbase-demo-updater <control socket> <progress socket> [--<option> <value>]...\n\n"
        "Stands in for the SWUpdate daemon: takes packages and reports their installation, but installs nothing.\n"
        "Options:\n%s\n"
        "Lines of options and values, without the dashes, may follow on standard input and hold from then on;\n"
        "\"reset\" alone restores the defaults. Each line is answered with \"ok\" or an error.\n",
        UpdateDaemon::optionsHelp());
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.contains(QString::fromLatin1("--help")))
        return printUsage(stdout, EXIT_SUCCESS);
    if (arguments.size() < 3)
        return printUsage(stderr, EXIT_FAILURE);

    UpdateDaemon daemon;
    for (int index = 3; index < arguments.size(); index += 2) {
        const QString& name = arguments.at(index);
        if (!name.startsWith(QLatin1String("--")) ||
            !daemon.setOptions(name.mid(2) + QLatin1Char(' ') + arguments.value(index + 1)))
            return printUsage(stderr, EXIT_FAILURE);
    }
    if (!daemon.listen(arguments.at(1), arguments.at(2))) {
        fprintf(stderr, "nbase-demo-updater: cannot listen\n");
        return EXIT_FAILURE;
    }
    puts("ready");
    fflush(stdout);
    TerminationWatcher termination(nullptr);
    QObject::connect(&termination, SIGNAL(terminationRequested()), &application, SLOT(quit()));
    CommandReader commands(&daemon);
    return QCoreApplication::exec();
}

#include "updatermain.moc"
