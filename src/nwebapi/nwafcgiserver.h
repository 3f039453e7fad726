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

class NwaAbstractFcgiService;
class NwaFcgiConnection;
class NwaFcgiListener;
class NwaFcgiPoller;
class NwaHeldMemory;
class QSocketNotifier;

/**
 * Receives requests over FastCGI (protocol version 1) and hands each to the service that is registered for its
 * script name. It works in the Qt event loop and never blocks: a client that stalls, disconnects or sends garbage
 * does not affect the others.
 *
 * A connection carries one request at a time; a second one is refused as the protocol provides
 * (FCGI_CANT_MPX_CONN), while any number of connections are served side by side. Connections are kept open where
 * the web server asks for it; the next request on such a connection begins when the reply to the one before has
 * been sent, so that a client that sends ahead and does not read makes the server hold one reply at most.
 *
 * The server itself answers requests for an unknown script (404), with a query string that cannot be decoded or a
 * body that is shorter or longer than announced (400), and those that exceed the limits.
 *
 * What all connections hold together is limited as well (NwaFcgiLimits::bufferedSize): the request that exceeds
 * this limit, with what has arrived of it, is answered 503. A request that a service has already is not refused,
 * but its reply and the unread part of its body count, so that further requests are refused until less is held.
 */
class NWEBAPI_EXPORT NwaFcgiServer : public QObject
{
    Q_OBJECT

public:
    /** A server without services that does not listen yet. */
    explicit NwaFcgiServer(QObject* parent = nullptr);

    /** Closes the server and aborts all its requests. */
    ~NwaFcgiServer() override;

    /** The limits in force; those of a new NwaFcgiLimits until setLimits() is called. */
    NwaFcgiLimits limits() const;

    /** Sets the limits for what arrives from now on; a value below 1 becomes 1. */
    void setLimits(const NwaFcgiLimits& limits);

    /**
     * Listens on the Unix socket @a path (at most 107 bytes, see unix(7)). A socket that a process has left behind
     * there is replaced; a socket in use, or anything else of that name, is an error.
     * @param permissions the mode of the socket's file (see chmod(2)).
     * @return whether the server listens; errorString() gives the reason if not.
     */
    bool listenOnPath(const QString& path, int permissions = 0660);

    /**
     * Listens on a TCP port.
     * @param address an IPv4 or IPv6 address in text, for example "127.0.0.1".
     * @param port the number of the port; 0 takes a free one (see port()).
     * @return as listenOnPath().
     */
    bool listenOnPort(const QString& address, quint16 port);

    /**
     * Listens on a socket that is listening already, such as the descriptor 0 that a web server passes to the
     * programs it starts. The server owns the descriptor from now on, and close() closes it.
     * @return as listenOnPath(); on failure the descriptor stays the caller's.
     */
    bool listenOnDescriptor(int descriptor = 0);

    /** Whether a listen operation has succeeded and close() has not been called since. */
    bool isListening() const;

    /** The TCP port that the server listens on; 0 when it does not listen on one. */
    quint16 port() const;

    /**
     * Stops listening, closes all connections and removes the socket's file that listenOnPath() made, unless
     * another one has replaced it.
     */
    void close();

    /** Why the latest listen operation failed, in English, with the system's text for a system error. */
    QString errorString() const;

    /**
     * Hands requests for @a scriptName (CGI's SCRIPT_NAME, for example "/api/timezones") to @a service from now
     * on. The service stays the caller's; it may be destroyed at any time, and requests for it are answered 404
     * then.
     */
    void registerService(const QString& scriptName, NwaAbstractFcgiService* service);

    /** Answers requests for @a scriptName with 404 from now on; the service keeps the requests it has. */
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

    bool startServing(bool isListening);
    void acceptConnections();
    void pauseAccepting();

    NwaFcgiLimits m_limits;
    QHash<QString, QPointer<NwaAbstractFcgiService>> m_services;
    QScopedPointer<Owner> m_owner;        ///< of the connections, on behalf of the server
    QHash<int, Connection> m_connections; ///< by their sockets
    QQueue<Connection> m_resuming;
    QScopedPointer<NwaFcgiPoller> m_poller;
    QScopedPointer<NwaFcgiListener> m_listener;
    QSocketNotifier* m_notifier; ///< for the poller; null while the server does not listen
    QTimer m_sweepTimer;
    QScopedPointer<NwaHeldMemory> m_heldMemory;
};

#endif
