#include <nbase/core/nqtnamespaceutilities.h>

#include <QtCore/QMetaEnum>
#include <QtCore/QObject>

namespace {

// The meta-object of the Qt namespace is a protected member of QObject.
class QtNamespace : public QObject
{
public:
    static const QMetaObject& qtMetaObject() { return staticQtMetaObject; }
};

// Keyed by number: reading an enumeration value outside the range of the enumeration is undefined (C++11,
// [dcl.enum] 7.2).
typedef QMap<int, QString> DayOfWeekTexts;

DayOfWeekTexts readDayOfWeekTexts()
{
    DayOfWeekTexts texts;
    const QMetaObject& qtNamespace = QtNamespace::qtMetaObject();
    const QMetaEnum days = qtNamespace.enumerator(qtNamespace.indexOfEnumerator("DayOfWeek"));
    for (int index = 0; index < days.keyCount(); ++index) {
        const int value = days.value(index);
        if (value >= Qt::Monday && value <= Qt::Sunday)
            texts.insert(value, QString::fromLatin1(days.key(index)).toLower());
    }
    return texts;
}

const DayOfWeekTexts& dayOfWeekTexts()
{
    static const DayOfWeekTexts texts = readDayOfWeekTexts();
    return texts;
}

QMap<Qt::DayOfWeek, QString> readDaysOfWeek()
{
    QMap<Qt::DayOfWeek, QString> days;
    const DayOfWeekTexts& texts = dayOfWeekTexts();
    for (DayOfWeekTexts::const_iterator it = texts.constBegin(); it != texts.constEnd(); ++it)
        days.insert(static_cast<Qt::DayOfWeek>(it.key()), it.value());
    return days;
}

} // namespace

QMap<Qt::DayOfWeek, QString> NQtNamespaceUtilities::daysOfWeek()
{
    static const QMap<Qt::DayOfWeek, QString> days = readDaysOfWeek();
    return days;
}

QString NQtNamespaceUtilities::stringFromDayOfWeek(Qt::DayOfWeek day)
{
    return dayOfWeekTexts().value(int(day));
}

Qt::DayOfWeek NQtNamespaceUtilities::dayOfWeekFromString(const QString& text)
{
    const DayOfWeekTexts& texts = dayOfWeekTexts();
    for (DayOfWeekTexts::const_iterator it = texts.constBegin(); it != texts.constEnd(); ++it) {
        if (it.value() == text)
            return static_cast<Qt::DayOfWeek>(it.key());
    }
    return Qt::DayOfWeek(0);
}

Qt::DayOfWeek NQtNamespaceUtilities::nextDayOfWeek(Qt::DayOfWeek day)
{
    const DayOfWeekTexts& texts = dayOfWeekTexts();
    const int next = int(unsigned(day) + 1u);
    return static_cast<Qt::DayOfWeek>(texts.contains(next) ? next : texts.constBegin().key());
}

Qt::DayOfWeek NQtNamespaceUtilities::previousDayOfWeek(Qt::DayOfWeek day)
{
    const DayOfWeekTexts& texts = dayOfWeekTexts();
    const int previous = int(unsigned(day) - 1u);
    return static_cast<Qt::DayOfWeek>(texts.contains(previous) ? previous : (--texts.constEnd()).key());
}
