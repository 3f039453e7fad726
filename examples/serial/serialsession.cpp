#include "serialsession.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

namespace {

struct NamedLine
{
    const char* name;
    NSerialPort::LineStatusBit bit;
};

const NamedLine Lines[] = {{"CTS", NSerialPort::LineCts}, {"DSR", NSerialPort::LineDsr},
                           {"DCD", NSerialPort::LineDcd}, {"RI", NSerialPort::LineRi},
                           {"RTS", NSerialPort::LineRts}, {"DTR", NSerialPort::LineDtr}};

} // namespace

SerialSession::SerialSession(const CommandLine& commandLine)
    : m_commandLine(commandLine)
    , m_port(QString::fromLatin1(commandLine.portName), commandLine.settings, nullptr)
    , m_sender(&m_port, &m_device)
    , m_input(commandLine.inputFormat)
    , m_isSending(false)
    , m_isFinished(false)
    , m_receivedSize(0)
{
    connect(&m_port, SIGNAL(opened()), SLOT(usePort()));
    connect(&m_port, SIGNAL(openingError()), SLOT(failWithPort()));
    connect(&m_port, SIGNAL(readyRead()), SLOT(receive()));
    connect(&m_port, SIGNAL(readChannelFinished()), SLOT(failWithPort()));
    connect(&m_sender, SIGNAL(written()), SLOT(sendMore()));
    connect(&m_sender, SIGNAL(sent()), SLOT(endSending()));
    connect(&m_sender, SIGNAL(failed()), SLOT(failWithPort()));
    connect(&m_input, SIGNAL(read(QByteArray)), &m_sender, SLOT(send(QByteArray)));
    connect(&m_input, SIGNAL(ended()), &m_sender, SLOT(waitUntilSent()));
    connect(&m_input, SIGNAL(failed(QByteArray)), SLOT(fail(QByteArray)));
}

void SerialSession::start()
{
    m_port.asyncOpen(QIODevice::ReadWrite, m_commandLine.timeout);
}

QByteArray SerialSession::errorText() const
{
    return m_errorText;
}

void SerialSession::usePort()
{
    if (const int error = m_device.open(m_port.portName())) {
        fail(m_commandLine.portName + ": " + (error == ENOTTY ? "not a serial port" : strerror(error)));
        return;
    }
    if (m_commandLine.rts != CommandLine::LevelUnchanged)
        m_port.setRts(m_commandLine.rts == CommandLine::LevelOn);
    if (m_commandLine.dtr != CommandLine::LevelUnchanged)
        m_port.setDtr(m_commandLine.dtr == CommandLine::LevelOn);
    if (m_commandLine.printsStatus)
        printStatus();
    m_isSending = m_commandLine.sends;
    if (m_isSending)
        m_sender.send(m_commandLine.data);
    else if (!m_commandLine.listens)
        finish();
}

void SerialSession::printStatus()
{
    const int status = m_port.lineStatus();
    QByteArray text;
    for (const NamedLine& line : Lines)
        text += QByteArray(line.name).leftJustified(4) + (status & line.bit ? "on\n" : "off\n");
    print(text);
}

void SerialSession::receive()
{
    // Read even when nobody listens, because the port's buffer has no limit.
    const QByteArray bytes = m_port.readAll();
    if (!m_commandLine.listens)
        return;
    print(textFromBytes(bytes, m_commandLine.outputFormat, m_receivedSize));
    m_receivedSize += bytes.size();
}

void SerialSession::print(const QByteArray& text)
{
    const size_t size = size_t(text.size());
    if (fwrite(text.constData(), 1, size, stdout) != size || fflush(stdout) != 0)
        fail(QByteArray("standard output: ").append(strerror(errno)));
}

void SerialSession::sendMore()
{
    if (m_commandLine.readsInput)
        m_input.readMore();
    else
        m_sender.waitUntilSent();
}

void SerialSession::endSending()
{
    m_isSending = false;
    if (!m_commandLine.listens)
        finish();
}

void SerialSession::interrupt()
{
    if (m_isSending || !m_port.isOpen())
        fail("interrupted");
    else
        finish();
}

void SerialSession::failWithPort()
{
    fail(m_commandLine.portName + ": " + m_port.errorString().toLocal8Bit());
}

void SerialSession::fail(const QByteArray& reason)
{
    if (m_isFinished)
        return;
    m_errorText = reason;
    m_device.discardUnsentOutput();
    finish();
}

void SerialSession::finish()
{
    if (m_isFinished)
        return;
    m_isFinished = true;
    m_input.stop();
    m_sender.stop();
    m_port.close();
    emit finished();
}
