#include <nbase/time/ntimezoneregion.h>

NTimeZoneRegion::NTimeZoneRegion(const QString& name, const QMap<QString, NTimeZoneTown*>& towns)
    : m_name(name)
    , m_towns(towns)
{
}

NTimeZoneRegion::~NTimeZoneRegion()
{
    for (const QString& key : m_towns.keys())
        delete m_towns.take(key);
}
