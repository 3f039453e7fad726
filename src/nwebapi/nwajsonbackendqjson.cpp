#include <nwebapi/nwajsonbackend_p.h>

#include <parser.h>
#include <serializer.h>

namespace {

// Every double written with this many digits is read back unchanged.
const int exactDoublePrecision = 17;

} // namespace

QByteArray NwaJsonBackend::serialize(const QVariantList& list)
{
    QJson::Serializer serializer;
    serializer.setIndentMode(QJson::IndentCompact);
    serializer.setDoublePrecision(exactDoublePrecision);
    bool ok = false;
    return serializer.serialize(list, &ok);
}

QVariantList NwaJsonBackend::parse(const QByteArray& text, bool* ok)
{
    QJson::Parser parser;
    return parser.parse(text, ok).toList();
}
