#ifndef NBASE_NSWUPDATERECORDS_P_H
#define NBASE_NSWUPDATERECORDS_P_H

#include <nbase/firmware/nswupdate.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

/**
 * The records on the sockets of the SWUpdate daemon. Numbers are little-endian with 32 bits. A text is Latin-1; it
 * ends with a NUL or with its field. The layouts are those of network_ipc.h and progress_ipc.h of SWUpdate:
 * structures of C, so that later ones depend on the word size of the system.
 */
namespace NSWUpdateRecords {

/** A request or a reply on the control socket (ipc_message). */
struct ControlLayout
{
    int size;
    int apiVersionOffset;        ///< of an install request; -1 where there is none
    int installTextLengthOffset; ///< -1 where the text is only terminated
    int installTextOffset;
    int installTextSize; ///< the most bytes that are sent
};

extern const ControlLayout Control2072;
extern const ControlLayout Control3120;
extern const ControlLayout Control3104;

enum RequestType { InstallRequest = 0, StatusRequest = 3, PostUpdateRequest = 4 };

QByteArray installRequest(const ControlLayout& layout, const QString& info);
QByteArray statusRequest(const ControlLayout& layout);
QByteArray postUpdateRequest(const ControlLayout& layout, const QString& info);

/** Whether the daemon has accepted the request. @a reply is a whole record; its magic number is not checked. */
bool isAcknowledged(const QByteArray& reply);

struct StatusReply
{
    NSWUpdate::Status current;
    NSWUpdate::Status lastResult;
    bool isError;
    QString description;
};

/** @param reply a whole record. */
StatusReply statusReply(const QByteArray& reply);

/** A record on the progress socket (progress_msg). */
struct ProgressLayout
{
    int size;
    int stepCountOffset; ///< after it come the current step and its percentage, image, handler, source and text
    bool isVersioned;    ///< with an API version
};

extern const ProgressLayout Progress2400;
extern const ProgressLayout Progress2416;
extern const ProgressLayout Progress2408;

/** The size of the greeting that versioned daemons since 2024.12 send on a new connection of the progress socket.
 */
enum { GreetingSize = 8 };

/** Whether the first GreetingSize bytes of a connection are a greeting and not the beginning of a record. */
bool isGreeting(const char* bytes);

/** Reads the fields of a whole record, each only when it is needed: most records need few of them. */
class ProgressRecord
{
public:
    ProgressRecord(const ProgressLayout& layout, const char* bytes)
        : m_layout(layout)
        , m_bytes(bytes)
    {
    }

    NSWUpdate::Status status() const;
    quint8 downloadPercentage() const;
    int stepCount() const;
    int currentStep() const;
    quint32 stepPercentage() const;
    QString imageName() const;
    NSWUpdate::Source source() const;
    /** The text field whatever its length says; the daemon leaves the previous text in it. */
    QString text() const;
    /** The text, empty when its length is 0. Other lengths limit it in versioned records only. */
    QString announcedText() const;

private:
    const ProgressLayout& m_layout;
    const char* const m_bytes;
};

} // namespace NSWUpdateRecords

#endif
