// Uses the web API library alone, as another device's web service would: prints a whole CGI reply.

#include <nwebapi/nwahttpjsonheader.h>
#include <nwebapi/nwajson.h>

#include <QtCore/QString>
#include <QtCore/QVariant>

#include <iostream>

int main()
{
    QVariantMap device;
    device.insert(QString::fromLatin1("name"), QString::fromLatin1("box"));
    std::cout << NwaHttpJsonHeader(QString::fromLatin1("utf-8")) << NwaJson::serialize(device).constData();
    return 0;
}
