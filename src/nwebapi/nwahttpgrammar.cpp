#include <nwebapi/nwahttpgrammar_p.h>

#include <string.h>

namespace {

bool isBlank(char character)
{
    return character == ' ' || character == '\t';
}

void skipBlanks(const QByteArray& text, int& position)
{
    while (position < text.size() && isBlank(text.at(position)))
        ++position;
}

// Reads from after the opening quote to after the closing one.
bool readQuotedString(const QByteArray& text, NwaHttpGrammar::Escapes escapes, int& position, QByteArray& value)
{
    while (position < text.size()) {
        const char character = text.at(position++);
        if (character == '"')
            return true;
        if (character != '\\' || position == text.size()) {
            value.append(character);
            continue;
        }
        const char next = text.at(position);
        if (escapes == NwaHttpGrammar::AllEscapes || next == '"' || next == '\\') {
            value.append(next);
            ++position;
        } else {
            value.append(character);
        }
    }
    return false;
}

bool readValue(const QByteArray& text, NwaHttpGrammar::Escapes escapes, int& position, QByteArray& value)
{
    skipBlanks(text, position);
    if (position < text.size() && text.at(position) == '"') {
        ++position;
        return readQuotedString(text, escapes, position, value);
    }
    int end = text.indexOf(';', position);
    if (end < 0)
        end = text.size();
    value = NwaHttpGrammar::trimmed(text.mid(position, end - position));
    position = end;
    return !value.isEmpty() && !value.contains('"');
}

} // namespace

bool NwaHttpGrammar::isTokenCharacter(char character)
{
    const bool isLetter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    const bool isDigit = character >= '0' && character <= '9';
    return isLetter || isDigit || (character != '\0' && strchr("!#$%&'*+-.^_`|~", character) != nullptr);
}

bool NwaHttpGrammar::isToken(const QByteArray& text)
{
    for (int index = 0; index < text.size(); ++index) {
        if (!isTokenCharacter(text.at(index)))
            return false;
    }
    return !text.isEmpty();
}

bool NwaHttpGrammar::equals(const QByteArray& text, const char* lowerCaseText)
{
    return text.toLower() == QByteArray(lowerCaseText);
}

QByteArray NwaHttpGrammar::trimmed(const QByteArray& text)
{
    int begin = 0;
    skipBlanks(text, begin);
    int end = text.size();
    while (end > begin && isBlank(text.at(end - 1)))
        --end;
    return text.mid(begin, end - begin);
}

QByteArray NwaHttpGrammar::mainValue(const QByteArray& fieldValue)
{
    const int end = fieldValue.indexOf(';');
    return trimmed(end < 0 ? fieldValue : fieldValue.left(end)).toLower();
}

bool NwaHttpGrammar::readParameters(
    const QByteArray& fieldValue, Escapes escapes, QMap<QByteArray, QByteArray>& parameters)
{
    int position = fieldValue.indexOf(';');
    if (position < 0)
        return true;
    while (position < fieldValue.size()) {
        if (fieldValue.at(position++) != ';')
            return false;
        skipBlanks(fieldValue, position);
        // "a; b=1;" and "a;; b=1" are malformed, but unambiguous and in use.
        if (position == fieldValue.size() || fieldValue.at(position) == ';')
            continue;

        const int nameEnd = fieldValue.indexOf('=', position);
        if (nameEnd < 0)
            return false;
        const QByteArray name = trimmed(fieldValue.mid(position, nameEnd - position)).toLower();
        QByteArray value("");
        position = nameEnd + 1;
        if (!isToken(name) || parameters.contains(name) || !readValue(fieldValue, escapes, position, value))
            return false;
        parameters.insert(name, value);
        skipBlanks(fieldValue, position);
    }
    return true;
}
