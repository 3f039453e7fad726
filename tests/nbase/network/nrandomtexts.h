#ifndef NBASE_TESTS_NRANDOMTEXTS_H
#define NBASE_TESTS_NRANDOMTEXTS_H

#include <nsystem/nlatin1_p.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <random>

/** Generates the same sequence of random texts in every run: texts similar to addresses and names. */
class NRandomTexts
{
public:
    /** A number from 0 to @a limit - 1. */
    int below(int limit) { return int(m_engine() % uint(limit)); }

    bool oneIn(int count) { return below(count) == 0; }

    /** One of @a texts. */
    QString oneOf(const QStringList& texts) { return texts.at(below(texts.size())); }

    /** @a count bytes of two hexadecimal digits in mixed case, joined by @a separator. */
    QString bytes(int count, const QString& separator)
    {
        const QString digits = latin1("0123456789abcdefABCDEF");
        QStringList texts;
        for (int index = 0; index < count; ++index)
            texts << QString(digits.at(below(digits.size()))) + digits.at(below(digits.size()));
        return texts.join(separator);
    }

    /** @a text with up to three characters replaced, inserted, removed or doubled; unchanged one time in four. */
    QString mutated(QString text)
    {
        for (int count = below(4); count > 0; --count) {
            const int position = below(text.size() + 1);
            switch (below(4)) {
            case 0:
                text.insert(position, character());
                break;
            case 1:
                text.remove(position, 1);
                break;
            case 2:
                text.replace(position, 1, QString(character()));
                break;
            case 3:
                text.insert(position, text.mid(position, 1 + below(4)));
                break;
            }
        }
        return text;
    }

    /** Up to @a limit - 1 random characters. */
    QString noise(int limit)
    {
        QString text;
        for (int count = below(limit); count > 0; --count)
            text += character();
        return text;
    }

private:
    QChar character()
    {
        static const char ascii[] = "0123456789012345678901234567890123456789.../::---abcdefABCDEFgGzZxX_ \n\\";
        // Digits and letters of other scripts, one that lower-cases to "k", halves of a digit beyond 16 bits.
        static const ushort others[] = {0x0000, 0x00b2, 0x00e9, 0x0130, 0x0660, 0x0661, 0x0967, 0x212a,
                                        0x2024, 0x3002, 0xd835, 0xdfcf, 0xff0e, 0xff11, 0xff1a, 0xff21};
        if (oneIn(8))
            return QChar(others[below(int(sizeof(others) / sizeof(others[0])))]);
        return QLatin1Char(ascii[below(int(sizeof(ascii)) - 1)]);
    }

    std::mt19937 m_engine;
};

#endif
