#ifndef NBASE_NCSVTEXT_P_H
#define NBASE_NCSVTEXT_P_H

#include <QtCore/QChar>

#include <string.h>

/**
 * Searches for the special characters of CSV text, four at a time. Fields are so short that calling QString's own
 * search for each of them takes longer than the search itself.
 */
namespace NCsvText {

const int Four = 4;

/**
 * Four characters in the compiler's vector type, which it emulates on processors without vector instructions.
 * Vectors are not passed by value, because how that is done differs between 32-bit ABIs.
 */
struct FourCharacters
{
    typedef ushort Vector __attribute__((vector_size(8)));

    /** Four times @a character. */
    explicit FourCharacters(QChar character)
    {
        const ushort code = character.unicode();
        const Vector four = {code, code, code, code};
        vector = four;
    }

    /** The first four characters of @a text. */
    explicit FourCharacters(const QChar* text) { memcpy(&vector, text, sizeof(vector)); }

    Vector vector;
};

/** Whether a comparison is true in any element. */
template <typename Comparison> inline bool isAny(const Comparison& comparison)
{
    quint64 places;
    memcpy(&places, &comparison, sizeof(places));
    return places != 0;
}

/** The position of the first such character, or @a end. */
inline const QChar* find(const QChar* begin, const QChar* end, QChar character)
{
    const FourCharacters wanted(character);
    while (end - begin >= Four && !isAny(FourCharacters(begin).vector == wanted.vector))
        begin += Four;
    while (begin < end && *begin != character)
        ++begin;
    return begin;
}

/** Copies everything before the next such character, or before @a end, and advances @a from and @a to. */
inline void copyUpTo(QChar character, const QChar*& from, const QChar* end, QChar*& to)
{
    const FourCharacters wanted(character);
    for (; end - from >= Four; from += Four, to += Four) {
        const FourCharacters four(from);
        if (isAny(four.vector == wanted.vector))
            break;
        memcpy(static_cast<void*>(to), &four.vector, sizeof(four.vector));
    }
    while (from < end && *from != character)
        *to++ = *from++;
}

} // namespace NCsvText

#endif
