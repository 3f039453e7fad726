#ifndef NBASE_NEUI_H
#define NBASE_NEUI_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <string.h>

/** The separators between the bytes of an extended unique identifier in text. All operations are thread-safe. */
class NBASE_EXPORT NEuiBase
{
    Q_GADGET
    Q_ENUMS(Separator)

public:
    /** The text between two bytes. */
    enum Separator {
        SeparatorColon, ///< ":", as in 00:1a:2b:3c:4d:5e
        SeparatorDash,  ///< "-", as in 00-1a-2b-3c-4d-5e
        SeparatorNone   ///< nothing, as in 001a2b3c4d5e
    };

    /** The text of @a separator: ":", "-" or an empty string; a null string for an unknown value. */
    static QString separatorString(NEuiBase::Separator separator);

    /** All separators. */
    static QSet<NEuiBase::Separator> separators();
};

/**
 * An extended unique identifier of @a N bytes (IEEE, Guidelines for Use of EUI, OUI and CID), or a null value. The
 * library instantiates it for 6 and 8 bytes; see NEui48 and NEui64.
 *
 * A plain value. Concurrent access to one object is not synchronised.
 */
template <unsigned char N> class NBASE_EXPORT NEui : public NEuiBase
{
public:
    /**
     * The regular expression of one byte: two hexadecimal digits in either letter case. It is for input fields;
     * reading a text does not run it.
     */
    static const QString S_BYTE_REGEXP;

    /**
     * The regular expression (of QRegExp) of an identifier that is written with one of @a separators, the same
     * between all bytes. To be matched exactly.
     * @return the expression; an empty string, which matches only empty text, when @a separators is empty.
     */
    static QString regExpString(const QSet<NEuiBase::Separator>& separators);

    /** A null identifier. */
    NEui();

    /** The identifier of the N bytes at @a bytes, the first printed one first. A null pointer makes it null. */
    explicit NEui(const unsigned char* bytes);

    /** The identifier of these bytes, the first printed one first; null unless there are exactly N. */
    explicit NEui(const QVector<unsigned char>& bytes);

    /**
     * Parses @a text: N bytes of two hexadecimal digits each, in either letter case, with the same one of
     * @a separators between all of them and no blanks around them. The identifier is null when the text is
     * anything else, or when @a separators is empty.
     */
    NEui(const QString& text, const QSet<NEuiBase::Separator>& separators);

    /** Whether this is the null value. */
    bool isNull() const { return m_null; }

    /** The N bytes, the first printed one first, all 0 when this is null. Valid as long as this object. */
    const unsigned char* bytes() const { return m_bytes; }

    /** The byte at @a index, counted from the first printed one; 0 for an index outside 0 to N - 1. */
    unsigned char byte(int index) const { return index >= 0 && index < N ? m_bytes[index] : 0; }

    /**
     * The identifier as text: two hexadecimal digits in lower case for each byte, with @a separator between bytes.
     * It can be parsed again.
     * @return the text; a null string when this is null.
     */
    QString toString(NEuiBase::Separator separator) const
    {
        if (m_null)
            return QString();
        const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(m_bytes), N);
        const QString between = separatorString(separator);
        QString text = QString::fromLatin1(bytes.toHex().constData());
        for (int index = N - 1; index > 0; --index)
            text.insert(2 * index, between);
        return text;
    }

    /** Whether both are null or both have the same bytes. */
    bool operator==(const NEui& other) const
    {
        return m_null == other.m_null && memcmp(m_bytes, other.m_bytes, N) == 0;
    }

    /** Whether the bytes differ, or only one of the two is null. */
    bool operator!=(const NEui& other) const { return !(*this == other); }

    /** Compares the bytes, the first printed one first; null is less than all others. */
    bool operator<(const NEui& other) const
    {
        if (m_null != other.m_null)
            return m_null;
        return memcmp(m_bytes, other.m_bytes, N) < 0;
    }

protected:
    /** Assigns the N bytes at @a bytes. */
    void setBytes(const unsigned char* bytes)
    {
        m_null = false;
        memcpy(m_bytes, bytes, N);
    }

    /** Parses @a text with @a separator. @return false when it is not an identifier; this then stays unchanged. */
    bool read(const QString& text, NEuiBase::Separator separator);

private:
    bool m_null;
    unsigned char m_bytes[N];
};

// One object of each static per process: users of this header do not instantiate the templates.
extern template class NEui<6>;
extern template class NEui<8>;

/** The hash value of @a address for QHash and QSet. */
template <unsigned char N> uint qHash(const NEui<N>& address)
{
    quint64 value = 0;
    for (int index = 0; index < N; ++index)
        value = value << 8 | address.byte(index);
    return qHash(value);
}

/** An EUI-48, six bytes. */
class NBASE_EXPORT NEui48 : public NEui<6>
{
public:
    /** A null identifier. */
    NEui48();

    /** The identifier of the six bytes at @a bytes, the first printed one first. A null pointer makes it null. */
    explicit NEui48(const unsigned char* bytes);

    /** The identifier of these bytes, the first printed one first; null unless there are exactly six. */
    explicit NEui48(const QVector<unsigned char>& bytes);

    /** The identifier of these bytes, @a b0 being the first printed one; it is never null. */
    NEui48(
        unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4,
        unsigned char b5);

    /** Reads an identifier from text, as the constructor of NEui does; null when @a text is none. */
    NEui48(const QString& text, const QSet<NEuiBase::Separator>& separators);
};

/** An EUI-64, eight bytes. */
class NBASE_EXPORT NEui64 : public NEui<8>
{
public:
    /** A null identifier. */
    NEui64();

    /** The identifier of the eight bytes at @a bytes, the first printed one first. A null pointer makes it null.
     */
    explicit NEui64(const unsigned char* bytes);

    /** The identifier of these bytes, the first printed one first; null unless there are exactly eight. */
    explicit NEui64(const QVector<unsigned char>& bytes);

    /** The identifier of these bytes, @a b0 being the first printed one; it is never null. */
    NEui64(
        unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3, unsigned char b4, unsigned char b5,
        unsigned char b6, unsigned char b7);

    /** Reads an identifier from text, as the constructor of NEui does; null when @a text is none. */
    NEui64(const QString& text, const QSet<NEuiBase::Separator>& separators);
};

Q_DECLARE_TYPEINFO(NEui48, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(NEui64, Q_MOVABLE_TYPE);

#endif
