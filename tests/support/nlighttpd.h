#ifndef NBASE_TESTS_NLIGHTTPD_H
#define NBASE_TESTS_NLIGHTTPD_H

#include "support/ntemporarydirectory.h"

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QString>

/**
 * A real lighttpd on a free port of the loopback address, with its own directory. It ends with the object; the
 * port is reserved for as long.
 */
class NLighttpd
{
public:
    NLighttpd();
    ~NLighttpd();

    /**
     * Starts the web server and waits until it serves.
     * @param configuration is added to the basic one, which loads mod_fastcgi.
     * @return whether it serves; log() has the reason if not.
     */
    bool start(const QByteArray& configuration);
    void stop();

    /** A configuration that passes the paths below @a prefix to the FastCGI server on the socket @a socketPath. */
    static QByteArray fastCgi(const QString& prefix, const QString& socketPath);

    /**
     * The configuration that makes lighttpd start @a program, which serves FastCGI on its descriptor 0, for the
     * paths that begin with @a prefix. One program for each lighttpd.
     */
    QByteArray spawnedFastCgi(const QString& prefix, const QString& program);

    quint16 port() const;
    qint64 processId() const;

    /** The address of @a path, for example "http://127.0.0.1:40001/test". */
    QString url(const QString& path) const;

    /** The web server's error log. */
    QByteArray log();

private:
    Q_DISABLE_COPY(NLighttpd)

    NTemporaryDirectory m_directory;
    QProcess m_process;
    const NFileDescriptor m_reservation;
    const quint16 m_port;
    QByteArray m_log;
};

#endif
