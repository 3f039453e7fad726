#include <nwebapi/nwaabstractcgistreamableelement.h>

#include <ostream>

NwaAbstractCgiStreamableElement::~NwaAbstractCgiStreamableElement() {}

std::ostream& operator<<(std::ostream& stream, const NwaAbstractCgiStreamableElement& element)
{
    element.render(stream);
    return stream;
}
