#ifndef NBASE_NCSVTEXT_P_H
#define NBASE_NCSVTEXT_P_H

#include <QtCore/QChar>

#include <string.h>

/**
 * Looking for the few characters that mean something in CSV text, four at a time: fields are so short that a call
 * of the toolkit's own search for each of them takes longer than the search itself.
 */
namespace NCsvText {

const int Four = 4;

/**
 * Four characters in the compiler's own vector type, which it makes do with on processors that have none. A vector
 * by itself is not handed over: 32-bit processors do that in different ways.
 */
struct FourCharacters
{
    typedef ushort Vector __attribute__((vector_size(8)));

    /** @a character in all four places. */
    explicit FourCharacters(QChar character)
    {
        const ushort code = character.unicode();
        const Vector four = {code, code, code, code};
        vector = four;
    }

    /** Four characters from @a text. */
    explicit FourCharacters(const QChar* text) { memcpy(&vector, text, sizeof(vector)); }

    Vector vector;
};

/** Whether a comparison held in any place. */
template <typename Comparison> inline bool isAny(const Comparison& comparison)
{
    quint64 places;
    memcpy(&places, &comparison, sizeof(places));
    return places != 0;
}

/** Where the first such character is, or @a end. */
inline const QChar* find(const QChar* begin, const QChar* end, QChar character)
{
    const FourCharacters wanted(character);
    while (end - begin >= Four && !isAny(FourCharacters(begin).vector == wanted.vector))
        begin += Four;
    while (begin < end && *begin != character)
        ++begin;
    return begin;
}

/** Copies what is before the next such character, or before @a end, and moves @a from and @a to behind it. */
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
