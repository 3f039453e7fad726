// A FastCGI program for tests: it answers "<script name>/<size>" with a document of that many bytes and
// "<script name>/pid" with its process number. It listens on the given Unix socket, or else on the descriptor
// that it inherits.
//
//     nfcgidocuments [<socket> [<script name>]]

#include "nfcgitestservice.h"

#include <nwebapi/nwafcgiserver.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QStringList>

#include <stdio.h>

namespace {

class DocumentsService : public NwaAbstractFcgiService
{
public:
    void processRequest(NwaFcgiRequest* request) override
    {
        const QString name = request->pathInfo().mid(1);
        if (name == QString::fromLatin1("pid"))
            NTest::reply(request, QByteArray::number(QCoreApplication::applicationPid()));
        else
            NTest::reply(request, QByteArray(qBound(0, name.toInt(), 16 * 1000 * 1000), 'd'));
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    NwaFcgiServer server;
    const bool listening =
        arguments.size() > 1 ? server.listenOnPath(arguments.at(1), 0666) : server.listenOnDescriptor();
    if (!listening) {
        fprintf(stderr, "%s\n", server.errorString().toLocal8Bit().constData());
        return 1;
    }
    DocumentsService service;
    server.registerService(arguments.value(2, QString::fromLatin1("/documents")), &service);
    return application.exec();
}
