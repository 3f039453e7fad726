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
 * Writes records as CSV text (RFC 4180, with a choice of separators and lines that end with a line feed). Only
 * fields that need quotes are quoted. NCsvFileReader reads the same records back.
 *
 * For Qt sinks the text is encoded as QTextStream does by default; for standard streams it is written in Latin-1,
 * with "?" for characters outside Latin-1. The sink must outlive the writer, which neither closes nor deletes it.
 * Data reaches a device, a text or bytes when the writer is destroyed at the latest; a stream must be flushed by
 * its owner. Not thread-safe.
 *
 * Write errors set the state of a stream sink; with a device they appear in its error() after the writer is
 * destroyed. A record for which there is not enough memory is left out completely, which only the state of a
 * stream sink reports.
 *
 * A separator outside Latin-1 is replaced by the NUL character.
 */
class NBASE_EXPORT NCsvFileWriter
{
public:
    /**
     * @{ Writes to a sink: a device that is open for writing, from its position on; a text, which is appended to;
     * bytes, which are overwritten from the beginning but not truncated; or a stream.
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
     * Returns @a field as it is written: unchanged, or in quotes with its own quotes doubled when it contains a
     * quote, a carriage return, a line feed or the separator; a null string when there is not enough memory.
     */
    QString escapeString(const QString& field) const;

    /**
     * Writes one record and a line feed; nothing when there are no fields. A QTextStream with a field width pads
     * each field, separator and line feed to it, as it does with all strings.
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
    QString m_line; ///< the line that was written last; its memory is reused
};

#endif
