// Fetches a page through the proxy that the device's settings choose for it.
//
//     nbase-example-network-fetch <configuration folder> <URL>

#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkproxyparameters.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>

#include <stdio.h>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 3)
        return 2;
    NUciCursor cursor(arguments.at(1), QString());
    // From here on all requests of the program follow the settings in the package "proxy".
    const NNetworkProxyParameters settings(&cursor, QString::fromLatin1("proxy"), nullptr);

    QNetworkAccessManager manager;
    QNetworkReply* const reply = manager.get(QNetworkRequest(QUrl(arguments.at(2))));
    QObject::connect(reply, SIGNAL(finished()), &application, SLOT(quit()));
    application.exec();
    if (reply->error() != QNetworkReply::NoError) {
        fprintf(stderr, "%s\n", qPrintable(reply->errorString()));
        return 1;
    }
    const QByteArray page = reply->readAll();
    fwrite(page.constData(), 1, size_t(page.size()), stdout);
    return 0;
}
