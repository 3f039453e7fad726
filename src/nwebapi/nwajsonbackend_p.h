#ifndef NWEBAPI_NWAJSONBACKEND_P_H
#define NWEBAPI_NWAJSONBACKEND_P_H

#include <QtCore/QByteArray>
#include <QtCore/QVariant>

/**
 * What NwaJson needs of a JSON library. nwajsonbackendqjson.cpp implements it with qjson, nwajsonbackendqt.cpp
 * with Qt 5; one of them is built. NwaJson passes them only what both treat alike.
 */
class NwaJsonBackend
{
public:
    /** How deep arrays and objects may be nested for every backend. */
    static const int MaximumDepth = 1000;

    /**
     * @a list as a compact array in UTF-8.
     * @param list holds maps, lists, strings, booleans, nulls, qlonglong and finite double values only.
     */
    static QByteArray serialize(const QVariantList& list);

    /**
     * Reads an array.
     * @param text a correct document, whose numbers are small integers.
     * @param ok set to whether it could be read.
     */
    static QVariantList parse(const QByteArray& text, bool* ok);

private:
    NwaJsonBackend();
};

#endif
