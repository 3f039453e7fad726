#ifndef NBASE_NCSVFILEWRITER_H
#define NBASE_NCSVFILEWRITER_H

#include <nbase/io/ncsvutilities.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <iosfwd>

class QByteArray;
class QIODevice;
class QTextStream;

/**
 * Writes records as CSV text (RFC 4180, with a choice of separators and lines that end with a line feed); only
 * fields that need quotes get them. NCsvFileReader reads the records back as they were.
 *
 * To a Qt sink the text is encoded as a QTextStream does by default; to a standard stream it is written in
 * Latin-1, with "?" for what Latin-1 does not have. The sink must outlive the writer, which neither closes nor
 * deletes what it is given. What was written reaches a device, a text or bytes when the writer is destroyed at the
 * latest; a stream that was given is flushed by its owner. Not thread-safe.
 *
 * What cannot be written shows in the state of a stream that was given, and otherwise, once the writer is
 * destroyed, in the device's own error. A record that there is no memory for is left out whole; only the state of
 * a stream that was given tells of that.
 *
 * A separator that Latin-1 does not have is replaced by the NUL character.
 */
class NBASE_EXPORT NCsvFileWriter
{
public:
    /**
     * @{
     * Writes to a sink: a device that is open for writing, from its position on; a text, which is added to; bytes,
     * which are overwritten from the beginning and keep what is behind the end of what is written; or a stream.
     * @param separator the character between two fields.
     */
    NCsvFileWriter(QIODevice* device, const QChar& separator);
    NCsvFileWriter(QIODevice* device, NCsvUtilities::Separator separator);
    NCsvFileWriter(QString* string, const QChar& separator);
    NCsvFileWriter(QString* string, NCsvUtilities::Separator separator);
    NCsvFileWriter(QByteArray* array, const QChar& separator);
    NCsvFileWriter(QByteArray* array, NCsvUtilities::Separator separator);
    NCsvFileWriter(QTextStream* stream, const QChar& separator);
    NCsvFileWriter(QTextStream* stream, NCsvUtilities::Separator separator);
    NCsvFileWriter(std::ostream* stream, const QChar& separator);
    NCsvFileWriter(std::ostream* stream, NCsvUtilities::Separator separator);
    /** @} */

    virtual ~NCsvFileWriter();

    /**
     * @a field as it is written: unchanged, or in quotes with its own quotes doubled when it contains a quote, a
     * carriage return, a line feed or the separator; a null string when there is no memory for that.
     */
    QString escapeString(const QString& field) const;

    /**
     * Writes one record and a line feed; nothing at all when there are no fields. A QTextStream that has a field
     * width fills up each field, separator and line feed to it, as it does with all strings.
     */
    void appendLine(const QStringList& fields);

private:
    Q_DISABLE_COPY(NCsvFileWriter)

    void putTogether(const QStringList& fields);
    void reserve(qint64 size);
    void write();
    void writeEachString(const QStringList& fields);
    void refuse();

    QTextStream* m_textStream;
    bool m_ownsStream;
    std::ostream* m_standardStream;
    char m_separator;
    QString m_line; ///< the line that was written last; its memory is used again
};

#endif
