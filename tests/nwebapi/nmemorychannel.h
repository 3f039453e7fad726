#ifndef NBASE_TESTS_NMEMORYCHANNEL_H
#define NBASE_TESTS_NMEMORYCHANNEL_H

#include <nwebapi/nwafcgichannel_p.h>
#include <nwebapi/nwafcgirequest.h>

#include <string.h>

/** A channel in memory, which records what the request does. */
class NMemoryChannel : public NwaFcgiChannel
{
public:
    explicit NMemoryChannel(const QByteArray& requestBody = QByteArray())
        : finishCount(0)
        , isBroken(false)
        , m_body(requestBody)
        , m_position(0)
    {
    }

    bool write(Stream stream, const char* data, int size) override
    {
        (stream == Output ? output : remarks).append(data, size);
        return true;
    }

    qint64 readBody(char* data, qint64 maximumSize) override
    {
        if (isBroken)
            return -1;
        const int size = int(qMin(maximumSize, qint64(m_body.size() - m_position)));
        memcpy(data, m_body.constData() + m_position, size_t(size));
        m_position += size;
        return size;
    }

    bool atBodyEnd() const override { return !isBroken && m_position == m_body.size(); }
    void finish() override { ++finishCount; }

    /** The header of the reply, with its empty line. */
    QByteArray header() const { return output.left(headerSize()); }

    /** What follows the header. */
    QByteArray body() const { return output.mid(headerSize()); }

    QByteArray output;
    QByteArray remarks;
    int finishCount;
    bool isBroken; ///< the rest of the request's body never arrives

private:
    int headerSize() const { return output.indexOf("\r\n\r\n") + 4; }

    QByteArray m_body;
    int m_position;
};

/** Carries one request to a client that takes the reply only on take(). */
class NSlowChannel : public NMemoryChannel
{
public:
    explicit NSlowChannel(const QByteArray& requestBody = QByteArray())
        : NMemoryChannel(requestBody)
        , largestBacklog(0)
        , m_taken(0)
    {
    }

    bool write(Stream stream, const char* data, int size) override
    {
        const bool good = NMemoryChannel::write(stream, data, size);
        largestBacklog = qMax(largestBacklog, replyBacklog());
        return good;
    }

    int replyBacklog() const override { return output.size() - m_taken; }

    /** The client of @a request takes all that was written. */
    void take(NwaFcgiRequest* request)
    {
        m_taken = output.size();
        tellReplyTaken(request);
    }

    /** The client of @a request goes away. */
    void abort(NwaFcgiRequest* request) { tellAborted(request); }

    int largestBacklog;

private:
    int m_taken;
};

/** Variables from a list of names and values in turn. */
inline NwaCgiRequest::Variables nVariables(
    const char* name1 = nullptr, const QByteArray& value1 = QByteArray(), const char* name2 = nullptr,
    const QByteArray& value2 = QByteArray(), const char* name3 = nullptr, const QByteArray& value3 = QByteArray(),
    const char* name4 = nullptr, const QByteArray& value4 = QByteArray())
{
    NwaCgiRequest::Variables variables;
    const char* const names[] = {name1, name2, name3, name4};
    const QByteArray values[] = {value1, value2, value3, value4};
    for (int index = 0; index < 4; ++index) {
        if (names[index])
            variables.insert(names[index], values[index]);
    }
    return variables;
}

#endif
