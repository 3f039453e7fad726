#include "gpiooutput.h"

#include <QtCore/QDebug>

#include <errno.h>
#include <string.h>

namespace {

gpio_v2_line_config configOf(const GpioOutput::Settings& settings, bool level)
{
    gpio_v2_line_config config;
    memset(&config, 0, sizeof(config));
    config.flags = GPIO_V2_LINE_FLAG_OUTPUT;
    if (settings.drive == GpioOutput::DriveOpenDrain)
        config.flags |= GPIO_V2_LINE_FLAG_OPEN_DRAIN;
    if (settings.drive == GpioOutput::DriveOpenSource)
        config.flags |= GPIO_V2_LINE_FLAG_OPEN_SOURCE;
    config.num_attrs = 1;
    config.attrs[0].mask = 1;
    config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES;
    config.attrs[0].attr.values = level;
    return config;
}

} // namespace

GpioOutput::Settings::Settings()
    : drive(DrivePushPull)
    , end(EndUnchanged)
{
}

GpioOutput::GpioOutput(
    const QString& line, PolarityType polarity, bool active, const Settings& settings, QObject* parent)
    : NAbstractOutput(polarity, parent)
    , m_settings(settings)
    , m_level(polarity == PolarityNc ? !active : active)
    , m_line(line, configOf(settings, m_level))
{
    connect(&m_line, SIGNAL(obtained()), SLOT(reportStart()));
    connect(&m_line, SIGNAL(lost()), SLOT(reportLoss()));
    if (m_line.request())
        startGuard();
}

bool GpioOutput::isValid() const
{
    return m_line.isHeld();
}

bool GpioOutput::rawState() const
{
    return m_level;
}

void GpioOutput::setRawState(bool level)
{
    const bool changes = level != m_level;
    m_level = level;
    m_line.config().attrs[0].attr.values = level;
    if (!isValid()) {
        if (m_line.request())
            reportStart();
    } else if (m_line.writeLevel(level) && changes) {
        emit stateChanged(isValid(), isActive());
    }
}

QString GpioOutput::errorText() const
{
    return m_line.errorText();
}

void GpioOutput::reportStart()
{
    startGuard();
    emit stateChanged(isValid(), isActive());
}

void GpioOutput::reportLoss()
{
    m_guard.stop();
    emit stateChanged(isValid(), isActive());
}

void GpioOutput::startGuard()
{
    if (m_settings.end != EndUnchanged && !m_guard.start(m_line.descriptor(), m_settings.end == EndHigh))
        qWarning() << "GPIO: the output has no defined level at the end:" << strerror(errno);
}
