#include "dataformat.h"

#include <ctype.h>
#include <string.h>

namespace {

const int BytesPerRow = 16;

bool isControl(char c)
{
    return uchar(c) < 0x20 || uchar(c) == 0x7f;
}

bool isAsciiText(char c)
{
    return !isControl(c) && uchar(c) < 0x80;
}

QByteArray hexByte(char c)
{
    return QByteArray(1, c).toHex();
}

QByteArray bytesFromHex(const QByteArray& text, bool* ok)
{
    const QByteArray digits = text.simplified().replace(' ', QByteArray()).toLower();
    const QByteArray bytes = QByteArray::fromHex(digits);
    *ok = bytes.toHex() == digits; // fromHex() ignores what is not a digit
    return bytes;
}

QByteArray bytesFromEscapedText(const QByteArray& text, bool* ok)
{
    static const char names[] = "nrt\\";
    static const char values[] = "\n\r\t\\";
    QByteArray bytes;
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) != '\\') {
            bytes += text.at(i);
            continue;
        }
        const QByteArray sequence = text.mid(i + 1, 3);
        const char* const name = sequence.isEmpty() ? nullptr : strchr(names, sequence.at(0));
        *ok = name || (sequence.size() == 3 && sequence.at(0) == 'x' && isxdigit(uchar(sequence.at(1))) &&
                       isxdigit(uchar(sequence.at(2))));
        if (!*ok)
            return QByteArray();
        bytes += name ? QByteArray(1, values[name - names]) : QByteArray::fromHex(sequence.mid(1));
        i += name ? 1 : 3;
    }
    *ok = true;
    return bytes;
}

QByteArray escapedText(const QByteArray& bytes)
{
    QByteArray text;
    for (char c : bytes) {
        if (c == '\\')
            text += "\\\\";
        else if (c == '\r')
            text += "\\r";
        else if (isControl(c) && c != '\n' && c != '\t')
            text += "\\x" + hexByte(c);
        else
            text += c;
    }
    return text;
}

QByteArray hexRow(const QByteArray& bytes, qint64 offset)
{
    QByteArray digits;
    QByteArray text;
    for (char c : bytes) {
        digits += ' ' + hexByte(c);
        text += isAsciiText(c) ? c : '.';
    }
    return QByteArray::number(offset, 16).rightJustified(8, '0') + ' ' +
           digits.leftJustified(3 * BytesPerRow + 2) + '|' + text + "|\n";
}

QByteArray hexRows(const QByteArray& bytes, qint64 offset)
{
    QByteArray rows;
    for (int begin = 0; begin < bytes.size(); begin += BytesPerRow)
        rows += hexRow(bytes.mid(begin, BytesPerRow), offset + begin);
    return rows;
}

} // namespace

QByteArray bytesFromText(const QByteArray& text, DataFormat format, bool* ok)
{
    switch (format) {
    case HexFormat:
        return bytesFromHex(text, ok);
    case TextFormat:
        return bytesFromEscapedText(text, ok);
    case BinaryFormat:
        break;
    }
    *ok = true;
    return text;
}

QByteArray textFromBytes(const QByteArray& bytes, DataFormat format, qint64 offset)
{
    switch (format) {
    case HexFormat:
        return hexRows(bytes, offset);
    case TextFormat:
        return escapedText(bytes);
    case BinaryFormat:
        break;
    }
    return bytes;
}
