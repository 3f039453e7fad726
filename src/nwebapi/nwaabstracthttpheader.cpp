#include <nwebapi/nwaabstracthttpheader.h>

#include <nwebapi/nwahttpgrammar_p.h>

#include <ostream>

namespace {

struct Phrase
{
    int code;
    const char* text;
};

// RFC 9110, section 15, and RFC 6585.
const Phrase phrases[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {421, "Misdirected Request"},
    {422, "Unprocessable Content"},
    {426, "Upgrade Required"},
    {428, "Precondition Required"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
    {511, "Network Authentication Required"},
};

bool isControlCharacter(char character)
{
    const uchar code = uchar(character);
    return code < 0x20 || code == 0x7f;
}

QByteArray withoutControlCharacters(const QByteArray& text)
{
    QByteArray result;
    for (int index = 0; index < text.size(); ++index) {
        // A tab only separates words of a value.
        if (!isControlCharacter(text.at(index)) || text.at(index) == '\t')
            result.append(text.at(index));
    }
    return result;
}

QByteArray tokenCharactersOf(const QByteArray& text)
{
    QByteArray result;
    for (int index = 0; index < text.size(); ++index) {
        if (NwaHttpGrammar::isTokenCharacter(text.at(index)))
            result.append(text.at(index));
    }
    return result;
}

void write(std::ostream& stream, const QByteArray& bytes)
{
    stream.write(bytes.constData(), bytes.size());
}

} // namespace

NwaAbstractHttpHeader::NwaAbstractHttpHeader()
    : m_status(0)
{
}

void NwaAbstractHttpHeader::setStatus(int code)
{
    m_status = code >= 100 && code <= 999 ? code : 500;
}

void NwaAbstractHttpHeader::addField(const QByteArray& name, const QByteArray& value)
{
    const QByteArray cleanName = tokenCharactersOf(name);
    if (!cleanName.isEmpty())
        m_fields.append(qMakePair(cleanName, withoutControlCharacters(value)));
}

void NwaAbstractHttpHeader::render(std::ostream& stream) const
{
    if (m_status != 0)
        write(stream, "Status: " + QByteArray::number(m_status) + ' ' + reasonPhrase(m_status) + "\r\n");
    for (int index = 0; index < m_fields.size(); ++index)
        write(stream, m_fields.at(index).first + ": " + m_fields.at(index).second + "\r\n");
    write(stream, "\r\n");
}

QByteArray NwaAbstractHttpHeader::reasonPhrase(int code)
{
    for (size_t index = 0; index < sizeof(phrases) / sizeof(phrases[0]); ++index) {
        if (phrases[index].code == code)
            return phrases[index].text;
    }
    return "Unknown";
}
