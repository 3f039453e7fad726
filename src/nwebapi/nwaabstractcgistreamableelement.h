#ifndef NWEBAPI_NWAABSTRACTCGISTREAMABLEELEMENT_H
#define NWEBAPI_NWAABSTRACTCGISTREAMABLEELEMENT_H

#include <nwebapi/nwaglobal.h>

#include <iosfwd>

/** A piece of a CGI reply that knows how it is written, for example a header. */
class NWEBAPI_EXPORT NwaAbstractCgiStreamableElement
{
public:
    virtual ~NwaAbstractCgiStreamableElement();

    /** Writes the element to @a stream; a failure is told by the stream's state. */
    virtual void render(std::ostream& stream) const = 0;
};

/** Writes @a element to @a stream. */
NWEBAPI_EXPORT std::ostream& operator<<(std::ostream& stream, const NwaAbstractCgiStreamableElement& element);

#endif
