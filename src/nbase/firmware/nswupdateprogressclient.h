#ifndef NBASE_NSWUPDATEPROGRESSCLIENT_H
#define NBASE_NSWUPDATEPROGRESSCLIENT_H

#include <nbase/firmware/nswupdate.h>
#include <nbase/nbaseglobal.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalSocket>

namespace NSWUpdateRecords {
class ProgressRecord;
struct ProgressLayout;
} // namespace NSWUpdateRecords

/**
 * Receives what the SWUpdate daemon reports on its progress socket about any installation, also of other programs.
 * The event loop connects, and connects again every 100 ms when the daemon is not there or has gone away. What the
 * daemon reports in between is lost.
 *
 * Receivers of the signals may delete the client.
 */
class NBASE_EXPORT NSWUpdateProgressClient : public QObject
{
    Q_OBJECT

public:
    /** The layouts of the records on the progress socket, named by their size in bytes. */
    enum RecordLayout {
        Record2400, ///< of SWUpdate 2017.04 to 2020.04
        Record2416, ///< of SWUpdate 2020.11 to 2025.05
        Record2408  ///< of SWUpdate 2025.12 and later
    };

    /**
     * @param socketName is kept, but intentionally not used: each connection is made to the path that
     * SOCKET_PROGRESS_PATH (progress_ipc.h) has at that time.
     */
    NSWUpdateProgressClient(const QString& socketName, QObject* parent);

    /** Keeps the path of SOCKET_PROGRESS_PATH as its name. */
    explicit NSWUpdateProgressClient(QObject* parent);

    ~NSWUpdateProgressClient() override;

    /** The layout of the daemon's records; Record2400 by default. */
    RecordLayout recordLayout() const;

    /** Sets the layout of the daemon's records. To be called before the event loop receives the first one. */
    void setRecordLayout(RecordLayout layout);

signals:
    /** An installation has begun. @a info: the text of the request for it; empty when there is none. */
    void updateStarted(NSWUpdate::Source source, int nbSteps, const QString& info);

    /** The step @a step of @a nbSteps has begun, with the image @a imageName. */
    void newStepStarted(int nbSteps, int step, const QString& imageName);

    /** The step @a step has advanced to @a percentage. */
    void stepUpdate(int nbSteps, int step, const QString& imageName, quint8 percentage);

    /** An installation has ended. */
    void updateFinished(bool success);

    /** The daemon has downloaded @a percentage of a package. */
    void downloadUpdate(quint8 percentage);

    /** The daemon has completed everything. @a info: its message; empty when there is none. */
    void updateDone(const QString& info);

    /** A process of the daemon has sent the message @a info. */
    void subProcessNotification(const QString& info);

private slots:
    void openConnection();
    void socketStateChanged(QLocalSocket::LocalSocketState state);
    void socketReadyRead();

private:
    Q_DISABLE_COPY(NSWUpdateProgressClient)

    void initialize();
    const NSWUpdateRecords::ProgressLayout& layout() const;
    bool skipGreeting();
    void dispatch(const NSWUpdateRecords::ProgressRecord& record);
    void dispatchStep(const NSWUpdateRecords::ProgressRecord& record);

    QString m_socketName;
    QLocalSocket m_socket;
    QTimer m_reconnectionTimer;
    RecordLayout m_recordLayout;
    bool m_isGreetingExpected; ///< nothing has been read from the connection
};

#endif
