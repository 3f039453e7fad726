#ifndef NWEBAPI_NWAFCGISERVER_H
#define NWEBAPI_NWAFCGISERVER_H

#include <nwebapi/nwafcgilimits.h>
#include <nwebapi/nwaglobal.h>

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QQueue>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <memory>
#include <sys/types.h>

class NwaAbstractFcgiService;
class NwaFcgiConnection;
class NwaFcgiPoller;
class NwaHeldMemory;
class QSocketNotifier;

/**
 * Receives requests over FastCGI (protocol version 1) and hands each to the service that is
 * registered for its script name. It takes part in the Qt event loop and never blocks: a client that stalls, goes
 * away or sends rubbish harms nobody else.
 *
 * A connection carries one request at a time; a second one is refused as the protocol provides
 * (FCGI_CANT_MPX_CONN), while any number of connections are served side by side. Connections are kept open where
 * the web server asks for it; the next request on such a connection begins when the reply to the one before has
 * been sent, so that a client that sends ahead and does not read makes the server hold one reply at most.
 *
 * Answered by the server itself: an unknown script (404), a query string that cannot be decoded and a body that is
 * shorter or longer than announced (400), and what goes beyond the limits.
 *
 * What all connections hold together is limited, too (NwaFcgiLimits::bufferedSize), so that many clients cannot
 * take the memory that each of them may: the request that goes beyond, with what has arrived of it, is answered
 * 503. A request that a service has is not; its replies and what it has yet to read count, so that further
 * requests are refused until less is held.
 */
class NWEBAPI_EXPORT NwaFcgiServer : public QObject
{
    Q_OBJECT

public:
    /** A server that does not listen yet and knows no service. */
    explicit NwaFcgiServer(QObject* parent = nullptr);

    /** Closes the server and gives up all its requests. */
    ~NwaFcgiServer() override;

    /** The limits in force; NwaFcgiLimits' own until setLimits() is called. */
    NwaFcgiLimits limits() const;

    /** Sets the limits; one below 1 becomes 1. They count for what arrives from now on. */
    void setLimits(const NwaFcgiLimits& limits);

    /**
     * Listens on the Unix socket @a path (at most 107 bytes, see unix(7)). A socket that another process left
     * behind there is replaced; one that is served, and anything that is no socket, is not.
     * @param permissions the mode of the socket's file (see chmod(2)).
     * @return whether the server listens; errorString() tells why not.
     */
    bool listenOnPath(const QString& path, int permissions = 0660);

    /**
     * Listens on a TCP port.
     * @param address an IPv4 or IPv6 address in text, for example "127.0.0.1".
     * @param port the port's number; 0 takes a free one (see port()).
     */
    bool listenOnPort(const QString& address, quint16 port);

    /**
     * Listens on a socket that is listening already, such as the descriptor 0 that a web server's spawner hands
     * down. The server owns the descriptor from now on, and closes it with close().
     */
    bool listenOnDescriptor(int descriptor = 0);

    /** Whether a listen operation succeeded and close() was not called since. */
    bool isListening() const;

    /** The TCP port that the server listens on; 0 when it does not listen on one. */
    quint16 port() const;

    /**
     * Ends listening, drops all connections and removes the socket that listenOnPath() made, unless another one
     * has come into its place.
     */
    void close();

    /** Why the latest listen operation failed, in English. */
    QString errorString() const;

    /**
     * Hands the requests for @a scriptName (CGI's SCRIPT_NAME, for example "/api/timezones") to @a service from
     * now on; not owned. A service that is destroyed is forgotten by itself.
     */
    void registerService(const QString& scriptName, NwaAbstractFcgiService* service);

    /** Answers requests for @a scriptName with 404 from now on; its service keeps the requests that it has. */
    void unregisterService(const QString& scriptName);

    /** How many connections are open. */
    int connectionCount() const;

private slots:
    void processEvents();
    void resumeNext();
    void sweep();

private:
    Q_DISABLE_COPY(NwaFcgiServer)

    class Owner;
    typedef std::shared_ptr<NwaFcgiConnection> Connection;

    bool startListening(int descriptor);
    bool fail(const QString& what);
    bool failWithSystemError(const QString& what, int descriptor);
    bool rememberSocket(const QString& path);
    void removeSocket();
    void acceptConnections();
    void pauseAccepting();
    void setAccepting(bool accepting);

    NwaFcgiLimits m_limits;
    QHash<QString, QPointer<NwaAbstractFcgiService>> m_services;
    QScopedPointer<Owner> m_owner;        ///< of the connections, on behalf of the server
    QHash<int, Connection> m_connections; ///< by their sockets
    QQueue<Connection> m_resuming;
    QScopedPointer<NwaFcgiPoller> m_poller;
    QSocketNotifier* m_notifier; ///< tells of what the poller watches
    int m_descriptor;
    bool m_accepting;
    QString m_socketPath; ///< of the socket that the server made; m_socketDevice and m_socketInode identify it
    dev_t m_socketDevice;
    ino_t m_socketInode;
    QTimer m_sweepTimer;
    QScopedPointer<NwaHeldMemory> m_heldMemory;
    QString m_errorString;
};

#endif
