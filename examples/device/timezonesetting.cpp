#include "timezonesetting.h"

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <time.h>

namespace {

// The names that devices with this configuration store use.
QString package()
{
    return QString::fromLatin1("system");
}

QString codeOption()
{
    return QString::fromLatin1("timezone");
}

QString nameOption()
{
    return QString::fromLatin1("zonename");
}

} // namespace

TimeZoneSetting::TimeZoneSetting(
    const NBuildrootUclibcTimeZoneDatabase* zones, const QString& configurationDirectory,
    const QString& stagingDirectory)
    : m_zones(zones)
    , m_configuration(configurationDirectory, stagingDirectory)
{
    follow(stored());
}

TimeZone TimeZoneSetting::stored()
{
    TimeZone zone;
    const QString section = m_configuration.load(package()) ? sectionName() : QString();
    if (section.isEmpty())
        return zone;
    zone.name = m_configuration.optionAsString(package(), section, nameOption(), QString());
    zone.code = m_configuration.optionAsString(package(), section, codeOption(), QString());
    return zone;
}

TimeZoneSetting::Result TimeZoneSetting::store(const QString& name)
{
    const int separator = name.indexOf(QLatin1Char('/'));
    const NTimeZoneTown* const town = m_zones->town(name.left(separator), name.mid(separator + 1));
    if (separator < 0 || !town)
        return UnknownZone;

    TimeZone zone;
    zone.name = name;
    zone.code = town->timezoneCode();
    if (!write(zone)) {
        // A commit that fails leaves its changes staged, and they would come true with the next one.
        m_configuration.revert(package());
        return NotStored;
    }
    follow(zone);
    return Stored;
}

QString TimeZoneSetting::sectionName()
{
    const QList<uci_section*> sections = m_configuration.sections(package(), QString::fromLatin1("system"));
    if (sections.isEmpty())
        return QString();
    return NUciCursor::packageSections(m_configuration.package(package())).key(sections.first());
}

bool TimeZoneSetting::write(const TimeZone& zone)
{
    if (!m_configuration.load(package()))
        return false;
    if (sectionName().isEmpty() && !m_configuration.addSection(package(), QString::fromLatin1("system")))
        return false;
    const QString section = sectionName();
    if (!m_configuration.setOption(package(), section, nameOption(), zone.name) ||
        !m_configuration.setOption(package(), section, codeOption(), zone.code) ||
        !m_configuration.commit(package()))
        return false;
    const TimeZone written = stored();
    return written.name == zone.name && written.code == zone.code;
}

void TimeZoneSetting::follow(const TimeZone& zone)
{
    if (zone.code.isEmpty())
        return;
    qputenv("TZ", zone.code.toLatin1());
    ::tzset();
    emit changed();
}
