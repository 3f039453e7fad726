#ifndef NBASE_TESTS_NFCGITESTSERVICE_H
#define NBASE_TESTS_NFCGITESTSERVICE_H

#include <nwebapi/nwaabstractfcgiservice.h>
#include <nwebapi/nwafcgirequest.h>

#include <QtCore/QDir>
#include <QtCore/QList>
#include <QtCore/QPointer>

#include <functional>
#include <ostream>

/** A service that keeps its requests for the test to answer, or hands each to a function. */
class NFcgiTestService : public NwaAbstractFcgiService
{
public:
    typedef std::function<void(NwaFcgiRequest*)> Handler;

    explicit NFcgiTestService(const Handler& handler = Handler())
        : m_handler(handler)
    {
    }

    ~NFcgiTestService() override
    {
        for (const QPointer<NwaFcgiRequest>& request : m_requests)
            delete request.data();
    }

    void processRequest(NwaFcgiRequest* request) override
    {
        m_requests.append(request);
        if (m_handler)
            m_handler(request);
    }

    /** How many requests have come, whether they are answered or not. */
    int count() const { return m_requests.size(); }

    /** The request number @a index; null when it was deleted already. */
    NwaFcgiRequest* request(int index = 0) const { return m_requests.value(index).data(); }

private:
    const Handler m_handler;
    QList<QPointer<NwaFcgiRequest>> m_requests;
};

namespace NTest {

/** Answers with a plain text and deletes the request. */
inline void reply(NwaFcgiRequest* request, const QByteArray& text)
{
    request->outputStream() << "Content-Type: text/plain\r\n\r\n";
    request->outputStream().write(text.constData(), text.size());
    delete request;
}

/** Takes what is there of the body. */
inline QByteArray readAvailableBody(NwaFcgiRequest* request)
{
    QByteArray body;
    char buffer[4096];
    for (;;) {
        const qint64 size = request->readBody(buffer, sizeof(buffer));
        if (size <= 0)
            return body;
        body.append(buffer, int(size));
    }
}

/** Answers with the body of the request. */
inline void echo(NwaFcgiRequest* request)
{
    reply(request, readAvailableBody(request));
}

inline int openDescriptors()
{
    return int(
        QDir(QString::fromLatin1("/proc/self/fd")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).size());
}

} // namespace NTest

#endif
