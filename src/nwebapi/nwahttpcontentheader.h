#ifndef NWEBAPI_NWAHTTPCONTENTHEADER_H
#define NWEBAPI_NWAHTTPCONTENTHEADER_H

#include <nwebapi/nwaabstracthttpheader.h>

#include <QtCore/QString>

/** The header of a reply with a body: it announces the body's media type and character set. */
class NWEBAPI_EXPORT NwaHttpContentHeader : public NwaAbstractHttpHeader
{
public:
    /**
     * @param mediaType the media type of the body, for example "text/plain".
     * @param charset the character set of the body, for example "utf-8"; an empty one is not announced.
     */
    explicit NwaHttpContentHeader(const QString& mediaType, const QString& charset = QString());

    /** Writes the status, the content type, the fields that were added and the empty line. */
    void render(std::ostream& stream) const override;
};

#endif
