#ifndef NWEBAPI_NWAHTTPJSONHEADER_H
#define NWEBAPI_NWAHTTPJSONHEADER_H

#include <nwebapi/nwahttpcontentheader.h>

/** The header of a reply whose body is a JSON document (RFC 8259). */
class NWEBAPI_EXPORT NwaHttpJsonHeader : public NwaHttpContentHeader
{
public:
    /** @param charset the character set of the document, "utf-8" unless there is a reason. */
    explicit NwaHttpJsonHeader(const QString& charset);
};

#endif
