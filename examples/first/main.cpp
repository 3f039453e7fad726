// The smallest program that uses the library: it says what it is linked with and what day it is.

#include <nbase/core/nbaselibinformation.h>
#include <nbase/core/nqtnamespaceutilities.h>

#include <QtCore/QDate>
#include <QtCore/QTextStream>

int main()
{
    const Qt::DayOfWeek today = Qt::DayOfWeek(QDate::currentDate().dayOfWeek());
    const Qt::DayOfWeek tomorrow = NQtNamespaceUtilities::nextDayOfWeek(today);

    QTextStream output(stdout);
    output << NBaseLibInformation::libraryName() << ' ' << NBaseLibInformation::libraryVersion() << '\n';
    output << "today: " << NQtNamespaceUtilities::stringFromDayOfWeek(today) << '\n';
    output << "tomorrow: " << NQtNamespaceUtilities::stringFromDayOfWeek(tomorrow) << '\n';
    return 0;
}
