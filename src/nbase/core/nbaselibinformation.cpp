#include <nbase/core/nbaselibinformation.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QLocale>

namespace {

// The compiler pads the day with a blank: "Jul 18 2023", but "Jul  8 2023".
QDateTime readBuildDateTime()
{
    const QString text = latin1("%1 %2").arg(latin1(__DATE__), latin1(__TIME__));
    const QLocale english(QLocale::English, QLocale::AnyCountry);
    const QDateTime dateTime = english.toDateTime(text, latin1("MMM d yyyy hh:mm:ss"));
    if (dateTime.isValid())
        return dateTime;
    return english.toDateTime(text, latin1("MMM  d yyyy hh:mm:ss"));
}

} // namespace

QString NBaseLibInformation::libraryName()
{
    return latin1("Nolvar base");
}

QString NBaseLibInformation::libraryVersion()
{
    return QString::fromLatin1(NBASE_VERSION);
}

QDateTime NBaseLibInformation::libraryDateTime()
{
    static QDateTime dateTime;
    if (dateTime.isNull())
        dateTime = readBuildDateTime();
    return dateTime;
}
