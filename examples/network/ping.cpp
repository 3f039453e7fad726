// Pings hosts, each once a second until one has not answered three times in a row, and prints the results.
//
//     nbase-example-network-ping <host>...

#include <nbase/network/nnetworkping.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <stdio.h>

class Watch : public QObject
{
    Q_OBJECT

public:
    Watch(const QString& host, QObject* parent)
        : QObject(parent)
        , m_ping(nullptr)
        , m_lostInARow(0)
    {
        connect(
            &m_ping, SIGNAL(pingResult(bool,quint32,quint32,quint32,quint32,quint32,quint32,quint32)),
                            SLOT(printResult(bool)));
        m_ping.start(host);
    }

private slots:
    void printResult(bool good)
    {
        const quint32 lost = m_ping.sentNb() - m_ping.goodNb();
        printf(
            "%s: %s, %u of %u lost, mean %u us\n", qPrintable(m_ping.host()), good ? "good" : "lost", lost,
            m_ping.sentNb(), m_ping.meanTime());
        m_lostInARow = good ? 0 : m_lostInARow + 1;
        if (m_lostInARow == 3)
            QCoreApplication::exit(1);
    }

private:
    NNetworkPing m_ping;
    int m_lostInARow;
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList hosts = application.arguments().mid(1);
    if (hosts.isEmpty())
        return 2;
    for (const QString& host : hosts)
        new Watch(host, &application);
    return application.exec();
}

#include "ping.moc"
