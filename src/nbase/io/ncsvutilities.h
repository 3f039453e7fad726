#ifndef NBASE_NCSVUTILITIES_H
#define NBASE_NCSVUTILITIES_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QChar>
#include <QtCore/QMap>
#include <QtCore/QObject>

/** The separators of CSV files. All operations are thread-safe. */
class NBASE_EXPORT NCsvUtilities
{
    Q_GADGET
    Q_ENUMS(Separator)

public:
    /** The character between two fields of a line. */
    enum Separator {
        SeparatorComma = 0,     ///< ","
        SeparatorSemicolon = 1, ///< ";"
        SeparatorColon = 2      ///< ":"
    };

    /** Every separator with its character. */
    static QMap<NCsvUtilities::Separator, QChar> separators();

    /** The character of @a separator; a null character for an unknown value. */
    static QChar characterFromSeparator(NCsvUtilities::Separator separator);

    /** The separator whose character is @a character; SeparatorComma when there is none. */
    static NCsvUtilities::Separator separatorFromCharacter(const QChar& character);

private:
    NCsvUtilities();
};

#endif
