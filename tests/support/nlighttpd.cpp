#include "support/nlighttpd.h"

#include "support/nprocessid.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

namespace {

const int StartTimeout = 30000;

// Binds a socket to a free port of the loopback address; lighttpd cannot choose one itself. The socket does not
// listen: lighttpd, which sets SO_REUSEADDR too, can listen on the port, but the kernel gives it to no other
// program (socket(7)).
quint16 reservePort(int socket)
{
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    const int isShared = 1;
    if (::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &isShared, sizeof(isShared)) != 0 ||
        ::bind(socket, reinterpret_cast<struct sockaddr*>(&address), size) != 0 ||
        ::getsockname(socket, reinterpret_cast<struct sockaddr*>(&address), &size) != 0)
        qFatal("no free port");
    return ntohs(address.sin_port);
}

} // namespace

NLighttpd::NLighttpd()
    : m_reservation(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    , m_port(reservePort(m_reservation.number()))
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
    stop();
    m_log.clear();
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

// lighttpd splits the program's path at blanks, so the program gets a path without any.
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

qint64 NLighttpd::processId() const
{
    return NTest::processIdOf(m_process);
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
