// Installs a firmware package with the SWUpdate daemon and prints its progress.
//
//     nbase-example-firmware-install <control socket> <progress socket> <package>

#include <nbase/firmware/nswupdateinstaller.h>
#include <nbase/firmware/nswupdateprogressclient.h>
#include <nbase/firmware/progress_ipc.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <stdio.h>

class Installation : public QObject
{
    Q_OBJECT

public:
    explicit Installation(const QString& controlSocket)
        : m_progress(nullptr)
        , m_installer(controlSocket, nullptr)
    {
        // The layouts of SWUpdate 2022.12 on a 64-bit system.
        m_progress.setRecordLayout(NSWUpdateProgressClient::Record2416);
        m_installer.setRecordLayout(NSWUpdateInstaller::Record3120);
        m_installer.setWaitTime(5000);

        connect(&m_progress, SIGNAL(stepUpdate(int,int,QString,quint8)), SLOT(printStep(int,int,QString,quint8)));
        connect(
            &m_installer, SIGNAL(newStatus(NSWUpdate::Status,bool,QString)),
                                 SLOT(printStatus(NSWUpdate::Status,bool,QString)));
        connect(&m_installer, SIGNAL(finished(bool)), SLOT(end(bool)));
    }

    bool start(const QString& package)
    {
        return m_installer.startImageInstallation(package, QString::fromLatin1("from the example"));
    }

private slots:
    void printStep(int steps, int step, const QString& image, quint8 percentage)
    {
        printf("step %d of %d, %s: %d %%\n", step, steps, qPrintable(image), percentage);
    }

    void printStatus(NSWUpdate::Status status, bool isError, const QString& text)
    {
        printf("status %d%s: %s\n", status, isError ? ", error" : "", qPrintable(text));
    }

    void end(bool success)
    {
        if (success)
            m_installer.sendPostUpdate();
        QCoreApplication::exit(success ? 0 : 1);
    }

private:
    NSWUpdateProgressClient m_progress;
    NSWUpdateInstaller m_installer;
};

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 4)
        return 2;
    SOCKET_PROGRESS_PATH = argv[2];
    Installation installation(arguments.at(1));
    if (!installation.start(arguments.at(3))) {
        fprintf(stderr, "the installation cannot be started\n");
        return 1;
    }
    return QCoreApplication::exec();
}

#include "install.moc"
