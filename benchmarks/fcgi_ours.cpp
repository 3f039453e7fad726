// The same program as fcgi_libfcgi.c with this library.
//
//     fcgi_ours <socket>

#include <nwebapi/nwaabstractfcgiservice.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwafcgiserver.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

#include <ostream>

namespace {

class DocumentService : public NwaAbstractFcgiService
{
public:
    DocumentService()
        : m_document(16 * 1000 * 1000, 'd')
    {
    }

    void processRequest(NwaFcgiRequest* request) override
    {
        const int size = request->pathInfo().mid(1).toInt();
        std::ostream& output = request->outputStream();
        output << "Content-Type: application/json; charset=utf-8\r\nContent-Length: " << size << "\r\n\r\n";
        output.write(m_document.constData(), size);
        delete request;
    }

private:
    const QByteArray m_document;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    NwaFcgiServer server;
    if (!server.listenOnPath(application.arguments().value(1)))
        return 1;
    DocumentService service;
    server.registerService(QString::fromLatin1("/ours"), &service);
    return application.exec();
}
