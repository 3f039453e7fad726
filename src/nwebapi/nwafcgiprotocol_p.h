#ifndef NWEBAPI_NWAFCGIPROTOCOL_P_H
#define NWEBAPI_NWAFCGIPROTOCOL_P_H

#include <QtCore/QByteArray>

/** The records of FastCGI, protocol version 1. Numbers of several bytes are big-endian. */
namespace NwaFcgiProtocol {

enum { Version = 1, HeaderSize = 8, MaximumContentSize = 65535 };

enum RecordType {
    BeginRequest = 1,
    AbortRequest = 2,
    EndRequest = 3,
    Params = 4,
    Stdin = 5,
    Stdout = 6,
    Stderr = 7,
    Data = 8,
    GetValues = 9,
    GetValuesResult = 10,
    UnknownType = 11
};

enum Role { Responder = 1 };

enum { KeepConnectionFlag = 1, BeginRequestSize = 8 };

enum ProtocolStatus { RequestComplete = 0, CannotMultiplex = 1, Overloaded = 2, UnknownRole = 3 };

/** The eight bytes before the content of each record. */
struct RecordHeader
{
    /** Reads the header at @a data, which has HeaderSize bytes. */
    explicit RecordHeader(const char* data);

    int totalSize() const { return HeaderSize + contentSize + paddingSize; }

    int version;
    int type;
    int requestId; ///< 0 for a record about the connection itself
    int contentSize;
    int paddingSize;
};

/** Writes the HeaderSize bytes of the header of a record without padding. */
void writeHeader(char* header, int type, int requestId, int contentSize);

/** Appends @a size bytes as records of @a type; none when @a size is 0, because an empty record ends a stream. */
void appendStream(QByteArray& output, RecordType type, int requestId, const char* data, int size);

/** Appends the record that ends a stream. */
void appendStreamEnd(QByteArray& output, RecordType type, int requestId);

void appendEndRequest(QByteArray& output, int requestId, ProtocolStatus status);

/** Appends the answer to a record about the connection of an unknown type. */
void appendUnknownType(QByteArray& output, int type);

/** Appends a name with its value, as the contents of Params and GetValuesResult hold them. */
void appendPair(QByteArray& output, const QByteArray& name, const QByteArray& value);

/** Reads names and their values one after the other. */
class PairReader
{
public:
    /** @param content must live as long as the reader. */
    explicit PairReader(const QByteArray& content);

    /**
     * Moves to the next pair. @return false at the end, and for a pair that is incomplete; name() is the name of
     * that pair then, if at least the name is complete.
     */
    bool next();

    /** Whether everything was read and the last pair was complete. */
    bool atEnd() const { return m_position == m_content.size(); }

    QByteArray name() const { return QByteArray(nameData(), m_nameSize); }
    QByteArray value() const { return QByteArray(valueData(), m_valueSize); }

    /** The bytes of the name and the value in the content. */
    const char* nameData() const { return m_content.constData() + m_nameBegin; }
    const char* valueData() const { return nameData() + m_nameSize; }
    int nameSize() const { return m_nameSize; }
    int valueSize() const { return m_valueSize; }

private:
    bool readSize(int& position, int& size) const;

    const QByteArray& m_content;
    int m_position;
    int m_nameBegin;
    int m_nameSize;
    int m_valueSize;
};

} // namespace NwaFcgiProtocol

#endif
