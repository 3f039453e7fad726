#ifndef NBASE_NQTNAMESPACEUTILITIES_H
#define NBASE_NQTNAMESPACEUTILITIES_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/qnamespace.h>

/**
 * Text for the enumerations of the Qt namespace, as it stands in configuration files and web documents, and cyclic
 * steps through them. All operations are thread-safe.
 */
class NBASE_EXPORT NQtNamespaceUtilities
{
public:
    /** Every day of the week with its text: the English name in lower case, "monday" to "sunday". */
    static QMap<Qt::DayOfWeek, QString> daysOfWeek();

    /** The text of @a day; a null string for a value that is no day. */
    static QString stringFromDayOfWeek(Qt::DayOfWeek day);

    /**
     * The day whose text is @a text. The comparison is exact: upper-case letters or blanks around the text make it
     * unknown.
     * @return the day, or 0, which is no day, when @a text is unknown.
     */
    static Qt::DayOfWeek dayOfWeekFromString(const QString& text);

    /** The day after @a day; Monday follows Sunday and any value whose successor is no day. */
    static Qt::DayOfWeek nextDayOfWeek(Qt::DayOfWeek day);

    /** The day before @a day; Sunday precedes Monday and any value whose predecessor is no day. */
    static Qt::DayOfWeek previousDayOfWeek(Qt::DayOfWeek day);

private:
    NQtNamespaceUtilities();
};

#endif
