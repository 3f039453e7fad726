#ifndef NBASE_DEMO_UPDATEDAEMON_H
#define NBASE_DEMO_UPDATEDAEMON_H

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalServer>

class QLocalSocket;

/**
 * Stands in for the SWUpdate daemon: it has the same sockets and records, takes a package and reports an
 * installation, but installs nothing. It can be made to fail at each step.
 */
class UpdateDaemon : public QObject
{
    Q_OBJECT

public:
    /** What the daemon does; changed while it runs, it holds from the next event on. */
    struct Behaviour
    {
        Behaviour();

        int controlSize;  ///< of a record on the control socket: 2072, 3120 or 3104
        int progressSize; ///< of a record on the progress socket: 2400, 2416 or 2408
        int hasGreeting;  ///< 1: a greeting is sent on the progress socket

        int stepCount;
        int stepTime;       ///< in milliseconds
        int failingStep;    ///< 0: none; the one after the last fails when all have been done
        QString failText;   ///< if it is set, only images with it in their first 4096 bytes fail
        QString message;    ///< of the failure
        int isCpioRequired; ///< 1: an image that is no whole cpio archive is rejected
        int imageRate;      ///< bytes of the image that are read in a second; 0 for no limit
        QString output;     ///< the file to which the image is written; empty for none

        QString faultPoint; ///< "install", "image", "status", "post-update", "progress"; empty for none
        QString fault;      ///< "refuse", "silence", "disconnect", "rubbish"
        int faultOffset;    ///< how many bytes are transferred before
        int pieceSize;      ///< records are sent in pieces of so many bytes; 0 for whole ones
        int extraBytes;     ///< after each reply
    };

    explicit UpdateDaemon(QObject* parent = nullptr);
    ~UpdateDaemon() override;

    /** Listens on both sockets, instead of what has been left there. @return false on failure. */
    Q_INVOKABLE bool listen(const QString& controlPath, const QString& progressPath);

    /** Stops listening and closes all connections. */
    Q_INVOKABLE void close();

    /**
     * Changes the behaviour: names and values of options, separated by blanks, for example "fault install=silence
     * after 100"; "reset" alone restores the default and the idle state, and breaks off an image.
     * @return false when an option is unknown or its value wrong.
     */
    Q_INVOKABLE bool setOptions(const QString& options);

    static bool setOption(Behaviour& behaviour, const QString& name, const QString& value);
    /** The options for a person to read. */
    static const char* optionsHelp();

    /** Sends a record with this status to all connections of the progress socket. */
    Q_INVOKABLE void sendProgress(int status);

signals:
    /** A whole request has arrived. */
    void requestReceived(const QByteArray& record);

    /** The connection of an image has ended after @a size bytes. */
    void imageReceived(qint64 size);

    /** A connection to the progress socket has been accepted. */
    void progressConnected();

private slots:
    void acceptControl();
    void acceptProgress();
    void readControl();
    void controlDisconnected();
    void progressDisconnected();
    void readImage();
    void sendPieces();
    void step();

private:
    struct Message
    {
        int status;
        int error;
        QString text;
    };

    static bool setFault(Behaviour& behaviour, const QString& value);
    static bool setCount(Behaviour& behaviour, const QString& name, const QString& value);
    void reset();
    bool isFaultAt(const char* point) const;
    bool isRequestReadable(QLocalSocket* socket) const;
    void answer(QLocalSocket* socket, const QByteArray& request);
    void reply(QLocalSocket* socket, const char* point, QByteArray record);
    void transfer(QLocalSocket* socket, const char* point, const QByteArray& bytes);
    void sendInPieces(QLocalSocket* socket, const QByteArray& bytes, bool isClosing);
    void beginInstallation(QLocalSocket* socket, const QByteArray& request);
    void takeImage(const QByteArray& bytes);
    void endImage();
    int failingStep() const;
    void beginStep();
    void endInstallation(bool success, const QString& message);
    void report(int status, int error, const QString& text);

    Behaviour m_behaviour;
    QLocalServer m_controlServer;
    QLocalServer m_progressServer;
    QList<QLocalSocket*> m_progressSockets;
    QLocalSocket* m_imageSocket;
    QHash<QLocalSocket*, QList<QByteArray>> m_pieces; ///< an empty one closes the connection
    QTimer m_pieceTimer;
    QTimer m_imageTimer;
    QTimer m_stepTimer;
    QFile m_output;
    QByteArray m_imageStart;
    QByteArray m_imageEnd;
    qint64 m_imageSize;
    bool m_isInstalling;
    int m_status;
    int m_lastResult;
    QList<Message> m_messages;
    QByteArray m_information; ///< of the progress records
    int m_informationLength;
    int m_step;
    int m_percentage;
};

#endif
