#ifndef NBASE_NCSVTEXT_P_H
#define NBASE_NCSVTEXT_P_H

#include <QtCore/QChar>

#include <string.h>

/**
 * Looking for the few characters that mean something in CSV text, four at a time: fields are so short that a call
 * of the toolkit's own search for each of them takes longer than the search itself.
 */
namespace NCsvText {

/** The compiler's own vector type, which it makes do with on processors that have none. */
typedef ushort FourCharacters __attribute__((vector_size(8)));

const int Four = 4;

// A 32-bit processor returns such a vector in different ways with and without a vector unit, which matters to
// nobody where every caller is compiled along with what it calls.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"

/** @a character in all four places. */
inline FourCharacters fourTimes(QChar character)
{
    const ushort code = character.unicode();
    const FourCharacters four = {code, code, code, code};
    return four;
}

/** Four characters from @a text. */
inline FourCharacters fourOf(const QChar* text)
{
    FourCharacters four;
    memcpy(&four, text, sizeof(four));
    return four;
}

#pragma GCC diagnostic pop

/** Whether a comparison held in any place. */
template <typename Comparison> inline bool isAny(Comparison comparison)
{
    quint64 places;
    memcpy(&places, &comparison, sizeof(places));
    return places != 0;
}

/** Where the first such character is, or @a end. */
inline const QChar* find(const QChar* begin, const QChar* end, QChar character)
{
    const FourCharacters wanted = fourTimes(character);
    while (end - begin >= Four && !isAny(fourOf(begin) == wanted))
        begin += Four;
    while (begin < end && *begin != character)
        ++begin;
    return begin;
}

/** Copies what is before the next such character, or before @a end, and moves @a from and @a to behind it. */
inline void copyUpTo(QChar character, const QChar*& from, const QChar* end, QChar*& to)
{
    const FourCharacters wanted = fourTimes(character);
    for (; end - from >= Four; from += Four, to += Four) {
        const FourCharacters four = fourOf(from);
        if (isAny(four == wanted))
            break;
        memcpy(static_cast<void*>(to), &four, sizeof(four));
    }
    while (from < end && *from != character)
        *to++ = *from++;
}

} // namespace NCsvText

#endif
