#include <nwebapi/nwautf8_p.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QChar>

namespace {

struct Character
{
    uint code;
    int length; ///< in bytes; 0 for invalid bytes
};

Character noCharacter()
{
    const Character character = {0, 0};
    return character;
}

// The smallest code for each length of a sequence: a smaller one is an overlong form.
const uint smallestCodes[] = {0, 0, 0x80, 0x800, 0x10000};

int sequenceLength(uchar first)
{
    if (first < 0x80)
        return 1;
    if (first >= 0xc2 && first <= 0xdf)
        return 2;
    if (first >= 0xe0 && first <= 0xef)
        return 3;
    if (first >= 0xf0 && first <= 0xf4)
        return 4;
    return 0;
}

Character characterAt(const uchar* bytes, int size)
{
    const int length = sequenceLength(bytes[0]);
    if (length == 0 || length > size)
        return noCharacter();
    if (length == 1) {
        const Character ascii = {bytes[0], 1};
        return ascii;
    }

    uint code = bytes[0] & (0xffu >> (length + 1));
    for (int index = 1; index < length; ++index) {
        if ((bytes[index] & 0xc0) != 0x80)
            return noCharacter();
        code = (code << 6) | (bytes[index] & 0x3fu);
    }
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < smallestCodes[length] || isSurrogate || code > 0x10ffff)
        return noCharacter();
    const Character character = {code, length};
    return character;
}

void append(QString& text, uint code)
{
    if (code < 0x10000) {
        text.append(QChar(ushort(code)));
        return;
    }
    text.append(QChar(ushort(0xd800 + ((code - 0x10000) >> 10))));
    text.append(QChar(ushort(0xdc00 + ((code - 0x10000) & 0x3ff))));
}

} // namespace

bool NwaUtf8::isValid(const QByteArray& bytes)
{
    const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
    for (int index = 0; index < bytes.size();) {
        const int length = characterAt(data + index, bytes.size() - index).length;
        if (length == 0)
            return false;
        index += length;
    }
    return true;
}

QString NwaUtf8::decode(const QByteArray& bytes)
{
    const uchar* data = reinterpret_cast<const uchar*>(bytes.constData());
    QString text = latin1("");
    text.reserve(bytes.size());
    for (int index = 0; index < bytes.size();) {
        const Character character = characterAt(data + index, bytes.size() - index);
        const bool isValid = character.length > 0;
        append(text, isValid ? character.code : uint(QChar::ReplacementCharacter));
        index += isValid ? character.length : 1;
    }
    return text;
}
