#ifndef NBASE_TESTS_NLIGHTTPD_H
#define NBASE_TESTS_NLIGHTTPD_H

#include "support/ntemporarydirectory.h"

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QString>

/** A real lighttpd on a free port of the loopback address, with a directory of its own; it ends with the object.
 */
class NLighttpd
{
public:
    NLighttpd();
    ~NLighttpd();

    /**
     * Starts the web server and waits until it serves.
     * @param configuration is added to what it needs at least; mod_fastcgi is loaded.
     * @return whether it serves; log() tells why not.
     */
    bool start(const QByteArray& configuration);
    void stop();

    /** A configuration that hands the paths below @a prefix to the FastCGI server on the socket @a socketPath. */
    static QByteArray fastCgi(const QString& prefix, const QString& socketPath);

    /**
     * The configuration that makes lighttpd start @a program, which serves FastCGI on its descriptor 0, for the
     * paths that begin with @a prefix. One program for each lighttpd.
     */
    QByteArray spawnedFastCgi(const QString& prefix, const QString& program);

    quint16 port() const;

    /** The address of @a path, for example "http://127.0.0.1:40001/test". */
    QString url(const QString& path) const;

    /** What the web server has written to its error log. */
    QByteArray log();

private:
    Q_DISABLE_COPY(NLighttpd)

    NTemporaryDirectory m_directory;
    QProcess m_process;
    quint16 m_port;
    QByteArray m_log;
};

#endif
