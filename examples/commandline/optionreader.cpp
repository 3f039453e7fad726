#include "optionreader.h"

OptionReader::OptionReader(const QList<QByteArray>& arguments)
    : m_arguments(arguments)
{
}

OptionReader::~OptionReader() {}

void OptionReader::readArguments()
{
    bool hasOptions = true;
    while (!m_arguments.isEmpty() && m_error.isEmpty()) {
        const QByteArray argument = m_arguments.takeFirst();
        if (hasOptions && argument == "--")
            hasOptions = false;
        else if (hasOptions && argument.startsWith('-') && argument.size() > 1)
            readOption(argument);
        else
            m_operands.append(argument);
    }
}

void OptionReader::readOption(QByteArray name)
{
    if (readFlag(name))
        return;
    const int separator = name.indexOf('=');
    if (separator >= 0) {
        m_arguments.prepend(name.mid(separator + 1));
        name.truncate(separator);
    }
    const bool hasValue = !m_arguments.isEmpty();
    const bool isKnown = readValue(name, hasValue ? m_arguments.takeFirst() : QByteArray());
    if (!isKnown)
        m_error = "unknown option " + name;
    else if (!hasValue)
        m_error = name + " needs a value";
}

void OptionReader::fail(const QByteArray& error)
{
    if (m_error.isEmpty())
        m_error = error;
}
