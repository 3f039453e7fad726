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
 * contain separators, line breaks and doubled quotes; in any other field a quote is an ordinary character. Nothing
 * is trimmed. An empty line is a record of one empty field. Records need not have the same number of fields.
 *
 * The source is a Qt source, decoded as QTextStream does by default (a byte order mark selects UTF-8, UTF-16 or
 * UTF-32), or a standard stream, whose bytes are Latin-1. Lines of a Qt source end with a line feed or with a
 * carriage return and a line feed; in a standard stream a carriage return belongs to the line's last field. The
 * source must outlive the reader, except one given as a constant reference, which is copied. The reader neither
 * closes nor deletes it. Not thread-safe.
 *
 * A standard stream reports its end only after a read operation has reached it. Therefore a line break at the end
 * of its text is followed by one more, empty line; this is not so with Qt sources.
 *
 * A separator outside Latin-1 is replaced by the NUL character.
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

    /**
     * Whether the source is at its end: for a standard stream, whether its end-of-file bit is set. A null stream
     * is always at its end.
     */
    bool atEnd() const;

    /** The next line without its line break; a null string when there is none or not enough memory for it. */
    QString readNextStreamLine();

    /**
     * Reads the next record.
     * @param fields replaced by the record's fields; none when the source was already at its end.
     * @return false when a quoted field is followed by anything but a separator or the end of its line, when it is
     * still open at the end of the text, when the source fails before its end, or when there is not enough memory.
     * @a fields then contains the fields before it; the rest of the line is lost.
     */
    bool parseNextLine(QStringList& fields);

    /**
     * Reads all remaining records.
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
