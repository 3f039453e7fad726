#include <nwebapi/nwafcgirequest.h>

#include <nwebapi/nwafcgichannel_p.h>
#include <nwebapi/nwahttpcontentheader.h>
#include <nwebapi/nwahttpgrammar_p.h>

#include <nsystem/nlatin1_p.h>

#include <ostream>
#include <streambuf>
#include <string.h>

namespace {

// Finds the empty line that ends the header of a reply, which may be written in any pieces.
class HeaderEndFinder
{
public:
    HeaderEndFinder()
        : m_lineEnds(0)
    {
    }

    // How many of the bytes still belong to the header.
    int headerPart(const char* data, int size)
    {
        int position = 0;
        while (position < size && m_lineEnds < 2) {
            const char character = data[position++];
            if (character == '\n')
                ++m_lineEnds;
            else if (character != '\r')
                m_lineEnds = 0;
        }
        return position;
    }

private:
    int m_lineEnds;
};

// Collects small writes, because each write to a channel becomes a record.
class ChannelStreambuf : public std::streambuf
{
public:
    ChannelStreambuf(NwaFcgiChannel* const& channel, NwaFcgiChannel::Stream stream)
        : m_channel(channel)
        , m_stream(stream)
        , m_written(false)
        , m_headerOnly(false)
    {
        setp(m_buffer, m_buffer + sizeof(m_buffer));
    }

    bool isUsed() const { return m_written || pptr() != pbase(); }
    void sendHeaderOnly() { m_headerOnly = true; }

protected:
    int sync() override
    {
        const int size = int(pptr() - pbase());
        setp(m_buffer, m_buffer + sizeof(m_buffer));
        return send(m_buffer, size) ? 0 : -1;
    }

    int_type overflow(int_type character) override
    {
        if (sync() != 0)
            return traits_type::eof();
        if (!traits_type::eq_int_type(character, traits_type::eof()))
            sputc(traits_type::to_char_type(character));
        return traits_type::not_eof(character);
    }

    std::streamsize xsputn(const char* data, std::streamsize size) override
    {
        if (size <= epptr() - pptr()) {
            memcpy(pptr(), data, size_t(size));
            pbump(int(size));
            return size;
        }
        if (sync() != 0)
            return 0;
        const std::streamsize piece = 1 << 30;
        for (std::streamsize sent = 0; sent < size; sent += piece) {
            if (!send(data + sent, int(qMin(piece, size - sent))))
                return sent;
        }
        return size;
    }

private:
    bool send(const char* data, int size)
    {
        if (size == 0)
            return true;
        m_written = true;
        if (m_headerOnly)
            size = m_headerEnd.headerPart(data, size);
        return m_channel && m_channel->write(m_stream, data, size);
    }

    NwaFcgiChannel* const& m_channel;
    const NwaFcgiChannel::Stream m_stream;
    bool m_written;
    bool m_headerOnly;
    HeaderEndFinder m_headerEnd;
    char m_buffer[2048];
};

class ChannelStream
{
public:
    ChannelStream(NwaFcgiChannel* const& channel, NwaFcgiChannel::Stream kind)
        : buffer(channel, kind)
        , stream(&buffer)
    {
    }

    ChannelStreambuf buffer;
    std::ostream stream;
};

bool contains(const NwaFcgiRequest::HeaderFields& fields, const char* lowerCaseName)
{
    for (int index = 0; index < fields.size(); ++index) {
        if (NwaHttpGrammar::equals(fields.at(index).first, lowerCaseName))
            return true;
    }
    return false;
}

} // namespace

class NwaFcgiRequestStreams
{
public:
    explicit NwaFcgiRequestStreams(NwaFcgiChannel* const& channel)
        : output(channel, NwaFcgiChannel::Output)
    {
    }

    ChannelStream output;
    QScopedPointer<ChannelStream> error; ///< created on first use, which is rare
};

NwaFcgiRequest::NwaFcgiRequest(NwaFcgiChannel* channel, const Variables& variables)
    : NwaCgiRequest(variables)
    , m_channel(channel)
    , m_streams(new NwaFcgiRequestStreams(m_channel))
{
    if (variable("REQUEST_METHOD") == "HEAD")
        m_streams->output.buffer.sendHeaderOnly();
}

NwaFcgiRequest::~NwaFcgiRequest()
{
    if (!m_channel)
        return;
    if (!isAnswered())
        sendHttpError(InternalServerError);
    m_streams->output.stream.flush();
    if (m_streams->error)
        m_streams->error->stream.flush();
    // The channel may have ended while it took the last bytes.
    if (m_channel)
        m_channel->finish();
}

std::ostream& NwaFcgiRequest::outputStream()
{
    return m_streams->output.stream;
}

std::ostream& NwaFcgiRequest::errorStream()
{
    if (!m_streams->error)
        m_streams->error.reset(new ChannelStream(m_channel, NwaFcgiChannel::Error));
    return m_streams->error->stream;
}

qint64 NwaFcgiRequest::readBody(char* data, qint64 maximumSize)
{
    return m_channel ? m_channel->readBody(data, maximumSize) : -1;
}

bool NwaFcgiRequest::atBodyEnd() const
{
    return m_channel && m_channel->atBodyEnd();
}

void NwaFcgiRequest::sendHttpError(StandardHttpError error, const HeaderFields& fields)
{
    if (isAnswered())
        return;
    NwaHttpContentHeader header(latin1("text/plain"), latin1("utf-8"));
    header.setStatus(error);
    for (int index = 0; index < fields.size(); ++index)
        header.addField(fields.at(index).first, fields.at(index).second);
    if (error == Unauthorized && !contains(fields, "www-authenticate"))
        header.addField("WWW-Authenticate", "Cookie");
    const QByteArray text =
        QByteArray::number(int(error)) + ' ' + NwaAbstractHttpHeader::reasonPhrase(error) + '\n';
    m_streams->output.stream << header;
    m_streams->output.stream.write(text.constData(), text.size());
}

bool NwaFcgiRequest::isAnswered() const
{
    return m_streams->output.buffer.isUsed();
}

int NwaFcgiRequest::replyBacklog() const
{
    return m_channel ? m_channel->replyBacklog() : 0;
}

bool NwaFcgiRequest::isAborted() const
{
    return !m_channel;
}

void NwaFcgiChannel::tellBodyAvailable(NwaFcgiRequest* request)
{
    emit request->bodyAvailable();
}

void NwaFcgiChannel::tellReplyTaken(NwaFcgiRequest* request)
{
    // Queued, because the channel may notice it during a write.
    QMetaObject::invokeMethod(request, "replyTaken", Qt::QueuedConnection);
}

void NwaFcgiChannel::tellAborted(NwaFcgiRequest* request)
{
    request->m_channel = nullptr;
    // Queued, because a slot may delete the request, which may be in a write.
    QMetaObject::invokeMethod(request, "aborted", Qt::QueuedConnection);
}
