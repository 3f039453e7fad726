#include "support/nlighttpd.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const int Attempts = 5;
const int StartTimeout = 10000;

// lighttpd cannot choose a port by itself.
quint16 freePort()
{
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(descriptor, reinterpret_cast<struct sockaddr*>(&address), size) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<struct sockaddr*>(&address), &size) != 0)
        qFatal("there is no free port");
    ::close(descriptor);
    return ntohs(address.sin_port);
}

} // namespace

NLighttpd::NLighttpd()
    : m_port(0)
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
}

NLighttpd::~NLighttpd()
{
    stop();
}

bool NLighttpd::start(const QByteArray& configuration)
{
    const QString program = QFile::exists(QString::fromLatin1("/usr/sbin/lighttpd"))
                                ? QString::fromLatin1("/usr/sbin/lighttpd")
                                : QString::fromLatin1("lighttpd");
    // Another process may take the port in the meantime.
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        stop();
        m_log.clear();
        m_port = freePort();
        const QByteArray root = QFile::encodeName(m_directory.path());
        const QString file = m_directory.writeFile(
            QString::fromLatin1("lighttpd.conf"),
            "server.document-root = \"" + root + "\"\nserver.bind = \"127.0.0.1\"\nserver.port = " +
                QByteArray::number(m_port) + "\nserver.modules = ( \"mod_fastcgi\" )\n" + configuration);
        m_process.start(program, QStringList() << QString::fromLatin1("-D") << QString::fromLatin1("-f") << file);
        while (m_process.waitForReadyRead(StartTimeout)) {
            if (log().contains("server started"))
                return true;
        }
    }
    return false;
}

void NLighttpd::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    m_process.waitForFinished();
}

QByteArray NLighttpd::fastCgi(const QString& prefix, const QString& socketPath)
{
    return "fastcgi.server += ( \"" + prefix.toUtf8() + "\" => (( \"socket\" => \"" +
           QFile::encodeName(socketPath) + "\", \"check-local\" => \"disable\" )) )\n";
}

// lighttpd takes what follows a blank in the program's path for an argument, so the program gets a path without
// any.
QByteArray NLighttpd::spawnedFastCgi(const QString& prefix, const QString& program)
{
    const QString link = m_directory.filePath(QString::fromLatin1("spawned-program"));
    QFile::link(program, link);
    const QByteArray socket = QFile::encodeName(m_directory.filePath(QString::fromLatin1("spawned-socket")));
    return "fastcgi.server += ( \"" + prefix.toUtf8() + "\" => (( \"socket\" => \"" + socket +
           "\", \"bin-path\" => \"" + QFile::encodeName(link) +
           "\", \"max-procs\" => 1, \"check-local\" => \"disable\" )) )\n";
}

quint16 NLighttpd::port() const
{
    return m_port;
}

QString NLighttpd::url(const QString& path) const
{
    return QString::fromLatin1("http://127.0.0.1:%1").arg(m_port) + path;
}

QByteArray NLighttpd::log()
{
    m_log += m_process.readAll();
    return m_log;
}
