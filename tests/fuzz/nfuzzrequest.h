#ifndef NBASE_TESTS_NFUZZREQUEST_H
#define NBASE_TESTS_NFUZZREQUEST_H

#include <nwebapi/nwacgirequest.h>

#include <sstream>
#include <string.h>

/** A request made of an input. Its body arrives in pieces of a given size. */
class NFuzzRequest : public NwaCgiRequest
{
public:
    NFuzzRequest(const Variables& variables, const QByteArray& body, int pieceSize)
        : NwaCgiRequest(variables)
        , m_body(body)
        , m_pieceSize(pieceSize)
        , m_position(0)
        , m_waits(false)
    {
    }

    std::ostream& outputStream() override { return m_stream; }
    std::ostream& errorStream() override { return m_stream; }

    qint64 readBody(char* data, qint64 maximumSize) override
    {
        m_waits = !m_waits;
        if (m_waits)
            return 0;
        const int size = int(qMin(maximumSize, qint64(qMin(m_pieceSize, m_body.size() - m_position))));
        memcpy(data, m_body.constData() + m_position, size_t(size));
        m_position += size;
        return size;
    }

    bool atBodyEnd() const override { return m_position == m_body.size(); }

private:
    const QByteArray m_body;
    const int m_pieceSize;
    int m_position;
    bool m_waits;
    std::ostringstream m_stream;
};

#endif
