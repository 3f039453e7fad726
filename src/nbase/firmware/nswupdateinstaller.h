#ifndef NBASE_NSWUPDATEINSTALLER_H
#define NBASE_NSWUPDATEINSTALLER_H

#include <nbase/firmware/nswupdate.h>
#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>

class NSwUpdateInstallerImageWriter;
class QFile;
class QLocalSocket;

namespace NSWUpdateRecords {
struct ControlLayout;
struct StatusReply;
} // namespace NSWUpdateRecords

/**
 * Installs firmware packages through the control socket of the SWUpdate daemon, one at a time. The package is
 * streamed by the event loop; then the daemon is asked for its status until it is idle again.
 *
 * Starting an installation, sendPostUpdate() and each question for the status block the thread while the daemon
 * answers, see setWaitTime(). Receivers of the signals may start an installation or delete the installer. Deleting
 * it breaks off an image that is being sent, and the daemon rejects that; an installation whose image has been
 * sent continues in the daemon.
 */
class NBASE_EXPORT NSWUpdateInstaller : public QObject
{
    Q_OBJECT

public:
    /** The layouts of the records on the control socket, named by their size in bytes. */
    enum RecordLayout {
        Record2072, ///< of SWUpdate 2017.04 to 2020.04
        Record3120, ///< of SWUpdate 2021.04 and later on 64-bit systems
        Record3104  ///< of SWUpdate 2021.04 and later on 32-bit systems
    };

    /** @param socketName the path of the daemon's control socket; a name without "/" lies in QDir::tempPath(). */
    NSWUpdateInstaller(const QString& socketName, QObject* parent);
    ~NSWUpdateInstaller() override;

    /** The layout of the daemon's records; Record2072 by default. */
    RecordLayout recordLayout() const;

    /** Sets the layout of the daemon's records, from the next request on. */
    void setRecordLayout(RecordLayout layout);

    /**
     * How many milliseconds are waited for each step of a request: the connection, the sending and the whole
     * reply; 30000 by default. A daemon that does not answer blocks the thread for up to three times as long.
     */
    int waitTime() const;

    /** Sets waitTime(), from the next request on; a negative time counts as 0. */
    void setWaitTime(int milliseconds);

    /**
     * Asks the daemon to install an image that the caller writes.
     * @param info a text for the daemon and its progress clients, of which at most 2048 characters are sent as
     * Latin-1; 511 with later layouts than Record2072.
     * @return the writer, which the installer deletes after NSwUpdateInstallerImageWriter::imageWritten(). Null
     * when an installation is in progress or the daemon does not accept one.
     */
    NSwUpdateInstallerImageWriter* startInstallation(const QString& info);

    /**
     * Installs an image in memory, which must remain there until finished().
     * @return whether the installation has started; false as well for an image without bytes.
     */
    bool startImageInstallation(const char* data, quint64 size, const QString& info);

    /**
     * Installs the file of a package. It stays open until its end has been sent. When it can then no longer be
     * read, because its medium has been removed for example, the installation fails.
     * @return whether the installation has started; false as well for a file that is empty, cannot be opened or is
     * too large for the address space.
     */
    bool startImageInstallation(const QString& filePath, const QString& info);

    /** The absolute path of the file @a fileName on a removable medium, see NRemovableMedia. The names are not
     * checked. */
    static QString packagePath(const QString& mediaName, const QString& fileName);

    /**
     * Lists the regular files in the top folder of a removable medium whose names match @a pattern, for example
     * "*.swu": a wildcard of QRegExp, case-sensitive. Hidden files are included, symbolic links are not.
     * @param packages receives the names in their order.
     * @return false when the medium is not mounted or cannot be read; then @a packages stays as it is.
     */
    static bool listPackages(const QString& mediaName, QStringList& packages, const QString& pattern);

public slots:
    /**
     * Makes the daemon run its post-update command.
     * @param addInfo an argument of that command, of which at most 2048 characters are sent as Latin-1.
     * @return whether the daemon reports success; false as well, without asking it, while an installation is in
     * progress.
     */
    bool sendPostUpdate(const QString& addInfo = QString());

signals:
    /**
     * The daemon is in another state than at the last question of any installer in this process, or it has a new
     * message.
     */
    void newStatus(NSWUpdate::Status status, bool isError, const QString& description);

    /**
     * The daemon is idle again after an installation, or does not answer: then the result is unknown, and
     * @a success is false. In the latter case, the next installation can be started only after the signal.
     */
    void finished(bool success);

private slots:
    void imageBytesWritten();
    void imageWritingSocketDisconnected();
    void imageFullyWritten();
    void checkStatus();

private:
    Q_DISABLE_COPY(NSWUpdateInstaller)

    const NSWUpdateRecords::ControlLayout& layout() const;
    QLocalSocket* openIpcConnection() const;
    void closeIpcConnection(QLocalSocket* socket) const;
    bool exchange(QLocalSocket* socket, QByteArray* record) const;
    bool request(QByteArray* record) const;
    bool getInstallationStatus(NSWUpdateRecords::StatusReply* status);
    bool mapImageFile(const QString& filePath);
    bool sendNextImageChunk(qint64 maxSize);
    qint64 writeChunk(qint64 size);
    void releaseImage();

    QString m_socketName;
    int m_installing;
    QLocalSocket* m_imageSocket;
    NSwUpdateInstallerImageWriter* m_imageWriter;
    const char* m_imageData;
    quint64 m_imageSize; ///< what is left to be sent
    QFile* m_imageFile;
    unsigned char* m_imageMapping; ///< the whole file
    bool m_isImageIncomplete;      ///< the file could not be read to its end
    RecordLayout m_recordLayout;
    int m_waitTime;
};

#endif
