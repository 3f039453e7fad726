#include "commandline.h"

#include "optionreader.h"

namespace {

const Choice<NSerialPort::BaudRate> BaudRates[] = {
    {"110", NSerialPort::BaudRate110},       {"300", NSerialPort::BaudRate300},
    {"600", NSerialPort::BaudRate600},       {"1200", NSerialPort::BaudRate1200},
    {"2400", NSerialPort::BaudRate2400},     {"4800", NSerialPort::BaudRate4800},
    {"9600", NSerialPort::BaudRate9600},     {"19200", NSerialPort::BaudRate19200},
    {"38400", NSerialPort::BaudRate38400},   {"57600", NSerialPort::BaudRate57600},
    {"115200", NSerialPort::BaudRate115200}, {"230400", NSerialPort::BaudRate230400}};

const Choice<NSerialPort::DataBits> DataBits[] = {{"7", NSerialPort::DataBits7}, {"8", NSerialPort::DataBits8}};

const Choice<NSerialPort::ParityType> Parities[] = {
    {"none", NSerialPort::ParityNone}, {"even", NSerialPort::ParityEven}, {"odd", NSerialPort::ParityOdd},
    {"N", NSerialPort::ParityNone},    {"E", NSerialPort::ParityEven},    {"O", NSerialPort::ParityOdd}};

const Choice<NSerialPort::StopBits> StopBits[] = {{"1", NSerialPort::StopBits1}, {"2", NSerialPort::StopBits2}};

const Choice<NSerialPort::FlowControlType> FlowControls[] = {
    {"none", NSerialPort::FlowControlNone},
    {"hardware", NSerialPort::FlowControlHardware},
    {"xonxoff", NSerialPort::FlowControlXonXoff},
    {"rs485", NSerialPort::FlowControlRs485Rts}};

const NSerialPort::PortSettings DefaultSettings = {
    NSerialPort::BaudRate9600, NSerialPort::DataBits8, NSerialPort::ParityNone, NSerialPort::StopBits1,
    NSerialPort::FlowControlNone};

const Choice<CommandLine::Level> Levels[] = {{"on", CommandLine::LevelOn}, {"off", CommandLine::LevelOff}};

const Choice<DataFormat> Formats[] = {{"hex", HexFormat}, {"text", TextFormat}, {"binary", BinaryFormat}};

/** Sets a command line from its arguments, one after the other. */
class Reader : private OptionReader
{
public:
    Reader(const QList<QByteArray>& arguments, CommandLine* commandLine)
        : OptionReader(arguments)
        , m_line(*commandLine)
        , m_hasFormat(false)
        , m_format(HexFormat)
    {
    }

    QByteArray read();

private:
    bool readFlag(const QByteArray& name) override;
    bool readValue(const QByteArray& name, const QByteArray& value) override;
    void readSettings(const QByteArray& text);
    void readTimeout(const QByteArray& text);
    void readOperands();
    void readData();

    CommandLine& m_line;
    bool m_hasFormat;
    DataFormat m_format;
};

QByteArray Reader::read()
{
    readArguments();
    if (m_error.isEmpty() && (m_line.task == CommandLine::UsePort || m_line.task == CommandLine::ListPorts))
        readOperands();
    return m_error;
}

bool Reader::readFlag(const QByteArray& name)
{
    if (name == "--help" || name == "-h")
        m_line.task = CommandLine::PrintHelp;
    else if (name == "--version")
        m_line.task = CommandLine::PrintVersion;
    else if (name == "--list")
        m_line.task = CommandLine::ListPorts;
    else if (name == "--status")
        m_line.printsStatus = true;
    else if (name == "--send")
        m_line.sends = true;
    else if (name == "--listen")
        m_line.listens = true;
    else
        return false;
    return true;
}

bool Reader::readValue(const QByteArray& name, const QByteArray& value)
{
    if (name == "--settings")
        readSettings(value);
    else if (name == "--baud-rate")
        choose(BaudRates, value, &m_line.settings.baudRate);
    else if (name == "--data-bits")
        choose(DataBits, value, &m_line.settings.dataBits);
    else if (name == "--parity")
        choose(Parities, value, &m_line.settings.parity);
    else if (name == "--stop-bits")
        choose(StopBits, value, &m_line.settings.stopBits);
    else if (name == "--flow-control")
        choose(FlowControls, value, &m_line.settings.flowControl);
    else if (name == "--rts")
        choose(Levels, value, &m_line.rts);
    else if (name == "--dtr")
        choose(Levels, value, &m_line.dtr);
    else if (name == "--timeout")
        readTimeout(value);
    else if (name == "--format")
        choose(Formats, value, &m_format);
    else
        return false;
    m_hasFormat |= name == "--format";
    return true;
}

/** For example "115200" or "9600,7E1". */
void Reader::readSettings(const QByteArray& text)
{
    const QList<QByteArray> parts = text.split(',');
    choose(BaudRates, parts.first(), &m_line.settings.baudRate);
    if (parts.size() == 1)
        return;
    if (parts.size() > 2 || parts.at(1).size() != 3) {
        m_error = "\"" + text + "\" is not of the form 9600,8N1";
        return;
    }
    choose(DataBits, parts.at(1).mid(0, 1), &m_line.settings.dataBits);
    choose(Parities, parts.at(1).mid(1, 1).toUpper(), &m_line.settings.parity);
    choose(StopBits, parts.at(1).mid(2, 1), &m_line.settings.stopBits);
}

void Reader::readTimeout(const QByteArray& text)
{
    bool ok = false;
    m_line.timeout = text.toInt(&ok);
    if (!ok || m_line.timeout < 0)
        m_error = "\"" + text + "\" is not a number of milliseconds";
}

void Reader::readOperands()
{
    if (m_line.task == CommandLine::UsePort) {
        if (m_operands.isEmpty()) {
            m_error = "no port is given";
            return;
        }
        m_line.portName = m_operands.takeFirst();
    }
    if (!m_line.printsStatus && !m_line.sends)
        m_line.listens = true;
    if (m_line.sends)
        readData();
    else if (!m_operands.isEmpty())
        m_error = "unexpected argument \"" + m_operands.first() + "\"";
    m_line.outputFormat = m_format;
}

void Reader::readData()
{
    m_line.readsInput = m_operands.isEmpty();
    m_line.inputFormat = m_hasFormat ? m_format : BinaryFormat;
    for (const QByteArray& operand : m_operands) {
        bool ok = false;
        m_line.data += bytesFromText(operand, m_hasFormat ? m_format : TextFormat, &ok);
        if (!ok)
            m_error = "\"" + operand + "\" cannot be sent: it is not in this format";
    }
}

} // namespace

CommandLine::CommandLine()
    : task(UsePort)
    , settings(DefaultSettings)
    , timeout(10000)
    , rts(LevelUnchanged)
    , dtr(LevelUnchanged)
    , printsStatus(false)
    , sends(false)
    , readsInput(false)
    , listens(false)
    , inputFormat(BinaryFormat)
    , outputFormat(HexFormat)
{
}

QByteArray CommandLine::read(const QList<QByteArray>& arguments)
{
    return Reader(arguments, this).read();
}

QByteArray CommandLine::usage()
{
    return "Usage: nserial --list\n"
           "       nserial [<options>] <port> [--listen]\n"
           "       nserial [<options>] <port> --send [<data>...] [--listen]\n"
           "       nserial [<options>] <port> --status\n"
           "\n"
           "Lists the serial ports of this machine, prints what arrives on a port, sends data or the standard\n"
           "input, or prints the modem lines. <port> is a device file such as /dev/ttyUSB0.\n"
           "\n"
           "    --list                   list the ports\n"
           "    --listen                 print what arrives, until interrupted (default)\n"
           "    --send                   send <data>, or the standard input if there is none\n"
           "    --status                 print the modem lines\n"
           "    --format <format>        hex: received data as hexadecimal digits and text, sent data as\n"
           "                             hexadecimal digits; text: with the escape sequences \\n, \\r, \\t, \\\\\n"
           "                             and \\xHH; binary: as it is. By default <data> is text, the standard\n"
           "                             input is binary, and what arrives is printed as hex. With text and hex\n"
           "                             each line of the standard input is sent without its end.\n"
           "\n"
           "    --settings <settings>    baud rate, and data bits, parity and stop bits: 115200 or 9600,7E1\n"
           "    --baud-rate <rate>       110, 300, 600, 1200, 2400, 4800, 9600 (default), 19200, 38400, 57600,\n"
           "                             115200 or 230400\n"
           "    --data-bits <number>     7 or 8 (default)\n"
           "    --parity <parity>        none (default), even or odd\n"
           "    --stop-bits <number>     1 (default) or 2\n"
           "    --flow-control <type>    none (default), hardware, xonxoff or rs485\n"
           "    --rts on|off, --dtr on|off\n"
           "                             set an output line after opening\n"
           "    --timeout <ms>           how long opening may take, in milliseconds (default: 10000)\n"
           "\n"
           "    --help                   print this text\n"
           "    --version                print the version\n"
           "\n"
           "The exit status is 0 when everything has been done, also when listening was ended by SIGINT or\n"
           "SIGTERM; 1 when the port could not be opened, reading or writing failed, the other end hung up or\n"
           "sending was interrupted; 2 for a wrong command line.\n";
}
