#include <nwebapi/nwahttpjsonheader.h>

NwaHttpJsonHeader::NwaHttpJsonHeader(const QString& charset)
    : NwaHttpContentHeader(QString::fromLatin1("application/json"), charset)
{
}
