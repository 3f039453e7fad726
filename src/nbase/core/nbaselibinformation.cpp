#include <nbase/core/nbaselibinformation.h>

#include <QtCore/QLocale>

namespace {

// The compiler pads the day with a blank: "Jul 18 2023", but "Jul  8 2023".
QDateTime readBuildDateTime()
{
    const QString text =
        QString::fromLatin1("%1 %2").arg(QString::fromLatin1(__DATE__), QString::fromLatin1(__TIME__));
    const QLocale english(QLocale::English, QLocale::AnyCountry);
    const QDateTime dateTime = english.toDateTime(text, QString::fromLatin1("MMM d yyyy hh:mm:ss"));
    if (dateTime.isValid())
        return dateTime;
    return english.toDateTime(text, QString::fromLatin1("MMM  d yyyy hh:mm:ss"));
}

} // namespace

QString NBaseLibInformation::libraryName()
{
    return QString::fromLatin1("Nolvar base");
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
