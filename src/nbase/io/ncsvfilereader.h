#ifndef NBASE_NCSVFILEREADER_H
#define NBASE_NCSVFILEREADER_H

#include <nbase/io/ncsvutilities.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <iosfwd>

class QIODevice;
class QTextStream;

/**
 * Reads records from CSV text (RFC 4180, with a choice of separators). A field that begins with a quote may
 * contain separators, line breaks and doubled quotes; in any other field a quote is a character like others, and
 * nothing is trimmed. An empty line is a record of one empty field. Records need not have the same number of
 * fields.
 *
 * The text comes from a Qt source, decoded as a QTextStream does by default (a byte order mark chooses UTF-8,
 * UTF-16 or UTF-32), or from a standard stream, whose bytes are Latin-1. Lines of a Qt source end with a line feed
 * or with a carriage return and a line feed; in a standard stream a carriage return belongs to the line's last
 * field. The text must outlive the reader, unless it is given as a constant reference, which is copied. The reader
 * neither closes nor deletes what it is given. Not thread-safe.
 *
 * A standard stream is at its end only when reading has met the end, so a line break at the end of its text is
 * followed by one more, empty line. A text stream knows better.
 *
 * A separator that Latin-1 does not have is replaced by the NUL character.
 */
class NBASE_EXPORT NCsvFileReader
{
public:
    /**
     * @{
     * Reads from a source: a device that is open for reading, a text, bytes, or a stream.
     * @param separator the character between two fields.
     */
    NCsvFileReader(QIODevice* device, const QChar& separator);
    NCsvFileReader(QIODevice* device, NCsvUtilities::Separator separator);
    NCsvFileReader(QString* string, const QChar& separator);
    NCsvFileReader(QString* string, NCsvUtilities::Separator separator);
    NCsvFileReader(const QString& string, const QChar& separator);
    NCsvFileReader(const QString& string, NCsvUtilities::Separator separator);
    NCsvFileReader(QByteArray* array, const QChar& separator);
    NCsvFileReader(QByteArray* array, NCsvUtilities::Separator separator);
    NCsvFileReader(const QByteArray& array, const QChar& separator);
    NCsvFileReader(const QByteArray& array, NCsvUtilities::Separator separator);
    NCsvFileReader(QTextStream* stream, const QChar& separator);
    NCsvFileReader(QTextStream* stream, NCsvUtilities::Separator separator);
    NCsvFileReader(std::istream* stream, const QChar& separator);
    NCsvFileReader(std::istream* stream, NCsvUtilities::Separator separator);
    /** @} */

    virtual ~NCsvFileReader();

    /** Whether the source is at its end; a standard stream when its end-of-file bit is set, and a null one always.
     */
    bool atEnd() const;

    /** The next line as it stands, without its line break; a null string when there is none or no memory for it.
     */
    QString readNextStreamLine();

    /**
     * Reads the next record.
     * @param fields replaced by the record's fields; none when the source was at its end already.
     * @return false when a quoted field is followed by anything but a separator or the end of its line, when one
     * is still open at the end of the text, when the source fails before its end, and when there is no memory for
     * a field. The fields before it are in @a fields then, and nothing else; the rest of the line is lost.
     */
    bool parseNextLine(QStringList& fields);

    /**
     * Reads all records that are left.
     * @param records replaced by the records up to the end, or up to the first that cannot be read.
     * @return whether the end was reached.
     */
    bool parseFile(QList<QStringList>& records);

private:
    Q_DISABLE_COPY(NCsvFileReader)

    class StandardLine;

    bool parseRecord(QStringList& fields);
    bool appendNextLine();
    bool readLine(QString& line);
    bool readStandardLine(QString& line);

    QString m_string;
    QByteArray m_array;
    QTextStream* m_textStream;
    bool m_ownsStream;
    std::istream* m_standardStream;
    char m_separator;
    QString m_text;                                    ///< the lines of the record that is being read
    const QScopedPointer<StandardLine> m_standardLine; ///< for a standard stream only
};

#endif
