#include <nbase/time/ntimezonetown.h>

NTimeZoneTown::NTimeZoneTown(
    const QString& name, const QString& timezoneCode, const QString& countryCode, float latitude, float longitude,
    const QString& comment)
    : m_name(name)
    , m_timezoneCode(timezoneCode)
    , m_countryCode(countryCode)
    , m_latitude(latitude)
    , m_longitude(longitude)
    , m_comment(comment)
{
}

NTimeZoneTown::~NTimeZoneTown() {}
