#ifndef NBASE_NQTNAMESPACEUTILITIES_H
#define NBASE_NQTNAMESPACEUTILITIES_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/qnamespace.h>

/**
 * Texts for enumerations of the Qt namespace, as used in configuration files and web documents, and cyclic
 * iteration over them. All operations are thread-safe.
 */
class NBASE_EXPORT NQtNamespaceUtilities
{
public:
    /** The days of the week with their texts: the English names in lower case, "monday" to "sunday". */
    static QMap<Qt::DayOfWeek, QString> daysOfWeek();

    /** The text of @a day; a null string for an unknown value. */
    static QString stringFromDayOfWeek(Qt::DayOfWeek day);

    /**
     * The day whose text is @a text. The comparison is exact: case and surrounding blanks matter.
     * @return the day, or 0, which is not a day, when @a text is unknown.
     */
    static Qt::DayOfWeek dayOfWeekFromString(const QString& text);

    /** The day after @a day. Monday follows Sunday and any value whose successor is not a day. */
    static Qt::DayOfWeek nextDayOfWeek(Qt::DayOfWeek day);

    /** The day before @a day. Sunday precedes Monday and any value whose predecessor is not a day. */
    static Qt::DayOfWeek previousDayOfWeek(Qt::DayOfWeek day);

private:
    NQtNamespaceUtilities();
};

#endif
