#include "gpioinput.h"

#include <QtCore/QDebug>
#include <QtCore/QPointer>

#include <string.h>

namespace {

const int EventsAtOnce = 64;

gpio_v2_line_config configOf(const GpioInput::Settings& settings)
{
    gpio_v2_line_config config;
    memset(&config, 0, sizeof(config));
    config.flags = GPIO_V2_LINE_FLAG_INPUT;
    if (settings.edges)
        config.flags |= GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;
    if (settings.bias == GpioInput::BiasDisabled)
        config.flags |= GPIO_V2_LINE_FLAG_BIAS_DISABLED;
    if (settings.bias == GpioInput::BiasPullUp)
        config.flags |= GPIO_V2_LINE_FLAG_BIAS_PULL_UP;
    if (settings.bias == GpioInput::BiasPullDown)
        config.flags |= GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN;
    if (settings.debounce > 0) {
        config.num_attrs = 1;
        config.attrs[0].mask = 1;
        config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_DEBOUNCE;
        config.attrs[0].attr.debounce_period_us = settings.debounce;
    }
    return config;
}

bool isRising(const gpio_v2_line_event& event)
{
    return event.id == GPIO_V2_LINE_EVENT_RISING_EDGE;
}

} // namespace

GpioInput::Settings::Settings()
    : bias(BiasUnchanged)
    , debounce(0)
    , edges(true)
{
}

GpioInput::GpioInput(const QString& line, PolarityType polarity, const Settings& settings, QObject* parent)
    : NAbstractInput(polarity, parent)
    , m_hasEdges(settings.edges)
    , m_line(line, configOf(settings))
    , m_level(false)
    , m_edgeTime(0)
    , m_sequenceNumber(0)
{
    connect(&m_line, SIGNAL(obtained()), SLOT(reportStart()));
    connect(&m_line, SIGNAL(lost()), SLOT(reportLoss()));
    connect(&m_line, SIGNAL(eventsArrived()), SLOT(readEvents()));
    if (m_line.request())
        start();
}

bool GpioInput::isValid() const
{
    return m_line.isHeld();
}

bool GpioInput::rawState() const
{
    bool level = m_level;
    if (!m_hasEdges && isValid())
        m_line.readLevel(&level);
    return level;
}

QString GpioInput::errorText() const
{
    return m_line.errorText();
}

quint64 GpioInput::edgeTime() const
{
    return m_edgeTime;
}

void GpioInput::start()
{
    m_sequenceNumber = 0;
    m_line.readLevel(&m_level);
    // Edges since the request are part of the first level; some are older than the reading, others newer.
    gpio_v2_line_event events[EventsAtOnce];
    int count = EventsAtOnce;
    while (count == EventsAtOnce) {
        count = m_line.readEvents(events, EventsAtOnce);
        if (count == 0)
            return;
        m_level = isRising(events[count - 1]);
        m_sequenceNumber = events[count - 1].line_seqno;
    }
}

void GpioInput::reportStart()
{
    const QPointer<GpioInput> self(this);
    start();
    if (self && isValid())
        emit stateChanged(isValid(), isActive());
}

void GpioInput::reportLoss()
{
    m_events.clear();
    emit stateChanged(isValid(), isActive());
}

void GpioInput::readEvents()
{
    gpio_v2_line_event events[EventsAtOnce];
    const QPointer<GpioInput> self(this);
    const int count = m_line.readEvents(events, EventsAtOnce);
    // Through a member, because a receiver that runs an event loop comes here again; the order stays the same.
    for (int i = 0; i < count; ++i)
        m_events.append(events[i]);
    while (self && !m_events.isEmpty())
        report(m_events.takeFirst());
}

void GpioInput::report(const gpio_v2_line_event& event)
{
    const quint32 missed = event.line_seqno - m_sequenceNumber - 1;
    if (missed > 0)
        qWarning() << "GPIO: the kernel's buffer was full," << missed << "edges were lost";
    m_sequenceNumber = event.line_seqno;
    m_edgeTime = event.timestamp_ns;
    const bool rises = isRising(event);
    const bool changes = m_level != rises;
    m_level = rises;
    const QPointer<GpioInput> self(this);
    if (rises)
        emit risingInterrupt();
    else
        emit fallingInterrupt();
    if (self && changes)
        emit stateChanged(isValid(), isActive());
    if (self)
        m_edgeTime = 0;
}
