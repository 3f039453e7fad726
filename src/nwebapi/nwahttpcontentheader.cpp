#include <nwebapi/nwahttpcontentheader.h>

NwaHttpContentHeader::NwaHttpContentHeader(const QString& mediaType, const QString& charset)
{
    QByteArray contentType = mediaType.toLatin1();
    if (!charset.isEmpty())
        contentType += "; charset=" + charset.toLatin1();
    addField("Content-Type", contentType);
}

void NwaHttpContentHeader::render(std::ostream& stream) const
{
    NwaAbstractHttpHeader::render(stream);
}
