#ifndef NWEBAPI_NWACGIMULTIPARTFORMDATAREADER_H
#define NWEBAPI_NWACGIMULTIPARTFORMDATAREADER_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

class NwaCgiRequest;

/**
 * Reads a form that a browser sent as "multipart/form-data" (RFC 7578), part by part, while it arrives. It holds a
 * small buffer only, for a body of any size.
 *
 * The client may not have sent yet what an operation needs. The operation then ends without a result and
 * isWaiting() is true: call it again on NwaFcgiRequest::bodyAvailable().
 */
class NWEBAPI_EXPORT NwaCgiMultipartFormDataReader
{
public:
    /** How many parts a form may have by default. */
    static const int DefaultMaximumPartCount = 100;

    /** How many bytes the header of a part may have by default. */
    static const int DefaultMaximumPartHeaderSize = 8 * 1024;

    /** @param request whose body is read; not owned, and must outlive the reader. */
    explicit NwaCgiMultipartFormDataReader(NwaCgiRequest* request);
    ~NwaCgiMultipartFormDataReader();

    /** Sets how many parts a form may have; one more is an error. */
    void setMaximumPartCount(int count);

    /** Sets how many bytes the header of a part may have; more is an error. */
    void setMaximumPartHeaderSize(int size);

    /**
     * Moves to the next part, skipping the rest of the current one.
     * @param name the name of the form's field; a part without a name is an error.
     * @param fileName the name of the file as the client gave it, which must not be trusted as a path; null when
     * the part is not a file. Invalid UTF-8 in it becomes U+FFFD.
     * @param contentType the part's media type in lower case and without parameters; null when it has none.
     * Names are read as browsers write them: "%22", "%0D" and "%0A" are a quote and line breaks, and a backslash
     * escapes a quote or a backslash only.
     * @return whether there is a next part. If not, either isWaiting(), or hasError(), or the form has ended; the
     * arguments are unchanged then.
     */
    bool nextPart(QString& name, QString& fileName, QString& contentType);

    /**
     * Takes up to @a maximumSize of the next bytes of the current part.
     * @return the bytes; an empty array when the part has ended (atPartEnd()), when isWaiting(), or when
     * hasError().
     */
    QByteArray readFromPart(unsigned int maximumSize);

    /** Whether the current part has been read to its end; true before the first part. */
    bool atPartEnd() const;

    /** Whether the latest operation ended because the client has not sent more yet. */
    bool isWaiting() const;

    /** Whether the body is malformed or incomplete; nothing more can be read from it then. */
    bool hasError() const;

    /** What is wrong with the body, in English; null without an error. */
    QString errorString() const;

private:
    Q_DISABLE_COPY(NwaCgiMultipartFormDataReader)

    class Private;
    Private* const d;
};

#endif
