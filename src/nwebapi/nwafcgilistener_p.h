#ifndef NWEBAPI_NWAFCGILISTENER_P_H
#define NWEBAPI_NWAFCGILISTENER_P_H

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QString>

#include <sys/types.h>

class NwaFcgiPoller;

/** The listening socket of a server. NwaFcgiServer documents the operations of the same names. */
class NwaFcgiListener
{
public:
    /** @param poller open while the listener listens, and watches the socket for connections; not owned. */
    explicit NwaFcgiListener(NwaFcgiPoller* poller);
    ~NwaFcgiListener();

    bool listenOnPath(const QString& path, int permissions);
    bool listenOnPort(const QString& address, quint16 port);
    bool listenOnDescriptor(int descriptor);
    void close();

    /** The socket's descriptor; -1 when the listener does not listen. */
    int socket() const { return m_socket.number(); }

    bool isListening() const { return m_socket.isOpen(); }
    quint16 port() const;
    QString errorString() const { return m_errorString; }

    /** Takes the next connection as a non-blocking socket. @return not open if there is none, with errno. */
    NFileDescriptor accept() const;

    /** Whether the poller reports new connections. */
    bool isAccepting() const { return m_isAccepting; }
    void setAccepting(bool accepting);

private:
    Q_DISABLE_COPY(NwaFcgiListener)

    bool start(NFileDescriptor& socket);
    bool fail(const QString& what);
    bool failWithSystemError(const QString& what);
    bool rememberSocketFile(const QString& path);
    void removeSocketFile();

    NwaFcgiPoller* const m_poller;
    NFileDescriptor m_socket;
    bool m_isAccepting;
    QString m_path; ///< of the file that listenOnPath() made, which the next two identify
    dev_t m_device;
    ino_t m_inode;
    QString m_errorString;
};

#endif
