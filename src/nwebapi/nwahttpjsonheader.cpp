#include <nwebapi/nwahttpjsonheader.h>

#include <nsystem/nlatin1_p.h>

NwaHttpJsonHeader::NwaHttpJsonHeader(const QString& charset)
    : NwaHttpContentHeader(latin1("application/json"), charset)
{
}
