#include "linesession.h"

#include <QtCore/QTimer>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

namespace {

const quint64 NanosecondsPerSecond = 1000000000;
const quint64 NanosecondsPerMicrosecond = 1000;

/** Of the clock that the kernel takes for edges. */
quint64 now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return quint64(time.tv_sec) * NanosecondsPerSecond + quint64(time.tv_nsec);
}

/** "[   12.345678] ", as the kernel's log has it. */
QByteArray textOfTime(quint64 time)
{
    char text[64];
    snprintf(
        text, sizeof(text), "[%5llu.%06llu] ", static_cast<unsigned long long>(time / NanosecondsPerSecond),
        static_cast<unsigned long long>(time % NanosecondsPerSecond / NanosecondsPerMicrosecond));
    return text;
}

/** Works for inputs and outputs alike. */
template <typename Line> QByteArray textOfState(const Line& line)
{
    const QByteArray address = line.objectName().toLocal8Bit();
    if (!line.isValid())
        return address + " invalid: " + line.errorText().toLocal8Bit() + '\n';
    return address + (line.rawState() ? " high" : " low") + (line.isActive() ? " active\n" : " inactive\n");
}

} // namespace

LineSession::LineSession(const CommandLine& commandLine)
    : m_commandLine(commandLine)
    , m_changes(0)
    , m_isFinished(false)
{
}

void LineSession::start()
{
    for (const CommandLine::Line& line : m_commandLine.lines) {
        if (m_commandLine.task == CommandLine::DriveLines)
            addOutput(line);
        else
            addInput(line);
    }
    if (m_commandLine.task == CommandLine::ReadLines)
        QTimer::singleShot(0, this, SLOT(finish()));
    else if (m_commandLine.duration >= 0)
        QTimer::singleShot(m_commandLine.duration, this, SLOT(finish()));
}

void LineSession::addInput(const CommandLine::Line& line)
{
    GpioInput::Settings settings = m_commandLine.input;
    settings.edges = m_commandLine.task == CommandLine::WatchLines;
    GpioInput* const input = new GpioInput(
        QString::fromLocal8Bit(line.address),
        m_commandLine.isNormallyClosed ? GpioInput::PolarityNc : GpioInput::PolarityNo, settings, this);
    input->setObjectName(QString::fromLocal8Bit(line.address));
    m_inputs.append(input);
    if (m_commandLine.task == CommandLine::WatchLines) {
        connect(input, SIGNAL(stateChanged(bool, bool)), SLOT(printInput()));
        print(textOfTime(now()) + textOfState(*input));
    } else if (input->isValid()) {
        print(textOfState(*input));
    }
}

void LineSession::addOutput(const CommandLine::Line& line)
{
    GpioOutput* const output = new GpioOutput(
        QString::fromLocal8Bit(line.address),
        m_commandLine.isNormallyClosed ? GpioOutput::PolarityNc : GpioOutput::PolarityNo, line.active,
        m_commandLine.output, this);
    output->setObjectName(QString::fromLocal8Bit(line.address));
    m_outputs.append(output);
    connect(output, SIGNAL(stateChanged(bool, bool)), SLOT(printOutput()));
    print(textOfTime(now()) + textOfState(*output));
}

void LineSession::printInput()
{
    const GpioInput* const input = qobject_cast<GpioInput*>(sender());
    if (m_isFinished)
        return;
    print(textOfTime(input->edgeTime() > 0 ? input->edgeTime() : now()) + textOfState(*input));
    if (++m_changes == m_commandLine.changes)
        finish();
}

void LineSession::printOutput()
{
    const GpioOutput* const output = qobject_cast<GpioOutput*>(sender());
    if (!m_isFinished)
        print(textOfTime(now()) + textOfState(*output));
}

void LineSession::print(const QByteArray& text)
{
    const size_t size = size_t(text.size());
    if (fwrite(text.constData(), 1, size, stdout) == size && fflush(stdout) == 0)
        return;
    m_errorText = QByteArray("standard output: ").append(strerror(errno));
    QTimer::singleShot(0, this, SLOT(finish()));
}

QByteArray LineSession::errorText() const
{
    return m_errorText;
}

void LineSession::checkValidity(const QObject& line, bool isValid, const QString& reason)
{
    if (!isValid && m_errorText.isEmpty())
        m_errorText = line.objectName().toLocal8Bit() + ": " + reason.toLocal8Bit();
}

void LineSession::finish()
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    for (const GpioInput* input : m_inputs)
        checkValidity(*input, input->isValid(), input->errorText());
    for (const GpioOutput* output : m_outputs)
        checkValidity(*output, output->isValid(), output->errorText());
    emit finished();
}
