#ifndef NWEBAPI_NWAABSTRACTCGISTREAMABLEELEMENT_H
#define NWEBAPI_NWAABSTRACTCGISTREAMABLEELEMENT_H

#include <nwebapi/nwaglobal.h>

#include <iosfwd>

/** A part of a CGI reply that can be written to a stream, for example a header. */
class NWEBAPI_EXPORT NwaAbstractCgiStreamableElement
{
public:
    virtual ~NwaAbstractCgiStreamableElement();

    /** Writes the element to @a stream; the stream's state reports a failure. */
    virtual void render(std::ostream& stream) const = 0;
};

/** Writes @a element to @a stream. */
NWEBAPI_EXPORT std::ostream& operator<<(std::ostream& stream, const NwaAbstractCgiStreamableElement& element);

#endif
