#include <nwebapi/nwacgirequest.h>

#include <nwebapi/nwautf8_p.h>

#include <string.h>

namespace {

// Qt 4's hash is not seeded: a client can choose names that all fall into one bucket, and then the cost of a query
// grows with the square of their number.
const int maximumParameterCount = 1000;

// In bytes, including its name, as web servers and browsers send them.
const int usualVariableSize = 24;

int hexadecimalDigit(char character)
{
    if (character >= '0' && character <= '9')
        return character - '0';
    if (character >= 'a' && character <= 'f')
        return character - 'a' + 10;
    if (character >= 'A' && character <= 'F')
        return character - 'A' + 10;
    return -1;
}

// Decodes a name or value of a query.
bool decodeBytes(const QByteArray& text, QByteArray& bytes)
{
    bytes.reserve(text.size());
    for (int index = 0; index < text.size(); ++index) {
        const char character = text.at(index);
        if (character != '%') {
            bytes.append(character == '+' ? ' ' : character);
            continue;
        }
        if (index + 2 >= text.size())
            return false;
        const int high = hexadecimalDigit(text.at(index + 1));
        const int low = hexadecimalDigit(text.at(index + 2));
        if (high < 0 || low < 0)
            return false;
        bytes.append(char(high * 16 + low));
        index += 2;
    }
    return true;
}

bool decodeText(const QByteArray& text, QString& decoded)
{
    QByteArray bytes;
    if (!decodeBytes(text, bytes) || !NwaUtf8::isValid(bytes))
        return false;
    decoded = NwaUtf8::decode(bytes);
    return true;
}

bool decodePair(const QByteArray& pair, QMultiHash<QString, QString>& parameters)
{
    const int separator = pair.indexOf('=');
    QString name;
    QString value;
    if (!decodeText(separator < 0 ? pair : pair.left(separator), name))
        return false;
    if (!decodeText(separator < 0 ? QByteArray() : pair.mid(separator + 1), value))
        return false;
    if (parameters.size() == maximumParameterCount)
        return false;
    parameters.insert(name, value);
    return true;
}

bool decodeQuery(const QByteArray& query, QMultiHash<QString, QString>& parameters)
{
    for (int begin = 0; begin < query.size();) {
        int end = query.indexOf('&', begin);
        if (end < 0)
            end = query.size();
        if (end > begin && !decodePair(query.mid(begin, end - begin), parameters))
            return false;
        begin = end + 1;
    }
    return true;
}

} // namespace

void NwaCgiRequest::Variables::reserve(int size)
{
    m_bytes.reserve(size);
    m_places.reserve(size / usualVariableSize);
}

void NwaCgiRequest::Variables::insert(const QByteArray& name, const QByteArray& value)
{
    insert(name.constData(), name.size(), value.constData(), value.size());
}

void NwaCgiRequest::Variables::insert(const char* name, int nameSize, const char* value, int valueSize)
{
    const Place place = {m_bytes.size(), nameSize, valueSize};
    m_places.append(place);
    m_bytes.append(name, nameSize).append(value, valueSize);
}

QByteArray NwaCgiRequest::Variables::value(const QByteArray& name) const
{
    for (int index = m_places.size() - 1; index >= 0; --index) {
        const Place& place = m_places.at(index);
        const char* const begin = m_bytes.constData() + place.begin;
        if (place.nameSize == name.size() && memcmp(begin, name.constData(), size_t(place.nameSize)) == 0)
            return QByteArray(begin + place.nameSize, place.valueSize);
    }
    return QByteArray();
}

NwaCgiRequest::NwaCgiRequest(const Variables& variables)
    : m_variables(variables)
    , m_queryValid(decodeQuery(variables.value("QUERY_STRING"), m_queryParameters))
{
    if (!m_queryValid)
        m_queryParameters.clear();
}

NwaCgiRequest::~NwaCgiRequest() {}

QByteArray NwaCgiRequest::variable(const QByteArray& name) const
{
    return m_variables.value(name);
}

QString NwaCgiRequest::method() const
{
    return QString::fromLatin1(variable("REQUEST_METHOD"));
}

QString NwaCgiRequest::scriptName() const
{
    return NwaUtf8::decode(variable("SCRIPT_NAME"));
}

QString NwaCgiRequest::pathInfo() const
{
    return NwaUtf8::decode(variable("PATH_INFO"));
}

qint64 NwaCgiRequest::contentLength() const
{
    const QByteArray text = variable("CONTENT_LENGTH");
    for (int index = 0; index < text.size(); ++index) {
        // QByteArray::toLongLong() accepts blanks and a sign.
        if (text.at(index) < '0' || text.at(index) > '9')
            return -1;
    }
    if (text.isEmpty())
        return 0;
    bool ok = false;
    const qint64 length = text.toLongLong(&ok);
    return ok ? length : -1;
}

const QMultiHash<QString, QString>& NwaCgiRequest::queryParameters() const
{
    return m_queryParameters;
}

bool NwaCgiRequest::singleQueryParameter(const QString& name, QString& value) const
{
    if (m_queryParameters.count(name) != 1)
        return false;
    value = m_queryParameters.value(name);
    return true;
}

bool NwaCgiRequest::isQueryValid() const
{
    return m_queryValid;
}
