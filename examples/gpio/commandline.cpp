#include "commandline.h"

#include "optionreader.h"

namespace {

const Choice<CommandLine::Task> Tasks[] = {
    {"list", CommandLine::ListLines},
    {"read", CommandLine::ReadLines},
    {"watch", CommandLine::WatchLines},
    {"drive", CommandLine::DriveLines}};

const Choice<GpioInput::Bias> Biases[] = {
    {"unchanged", GpioInput::BiasUnchanged},
    {"none", GpioInput::BiasDisabled},
    {"pull-up", GpioInput::BiasPullUp},
    {"pull-down", GpioInput::BiasPullDown}};

const Choice<GpioOutput::Drive> Drives[] = {
    {"push-pull", GpioOutput::DrivePushPull},
    {"open-drain", GpioOutput::DriveOpenDrain},
    {"open-source", GpioOutput::DriveOpenSource}};

const Choice<GpioOutput::End> Ends[] = {
    {"unchanged", GpioOutput::EndUnchanged}, {"low", GpioOutput::EndLow}, {"high", GpioOutput::EndHigh}};

const Choice<bool> States[] = {{"active", true}, {"inactive", false}};

const int WatchOrDrive = 1 << CommandLine::WatchLines | 1 << CommandLine::DriveLines;
const int ReadOrWatch = 1 << CommandLine::ReadLines | 1 << CommandLine::WatchLines;

/** Sets a command line from its arguments, one after the other. */
class Reader : private OptionReader
{
public:
    Reader(const QList<QByteArray>& arguments, CommandLine* commandLine)
        : OptionReader(arguments)
        , m_line(*commandLine)
    {
    }

    QByteArray read();

private:
    bool readFlag(const QByteArray& name) override;
    bool readValue(const QByteArray& name, const QByteArray& value) override;
    void readOperands();
    void readLine(const QByteArray& text);
    void accept(const QByteArray& option, int tasks);
    template <typename Number> void readNumber(const QByteArray& text, int minimum, Number* number, int unit = 1);

    CommandLine& m_line;
};

QByteArray Reader::read()
{
    // The task comes first, because it decides which options there are.
    if (!m_arguments.isEmpty() && !m_arguments.first().startsWith('-'))
        choose(Tasks, m_arguments.takeFirst(), &m_line.task);
    else if (m_arguments.isEmpty())
        fail("no task is given");
    readArguments();
    if (m_error.isEmpty())
        readOperands();
    return m_error;
}

bool Reader::readFlag(const QByteArray& name)
{
    if (name == "--help" || name == "-h") {
        m_line.task = CommandLine::PrintHelp;
        m_arguments.clear();
    } else if (name == "--version") {
        m_line.task = CommandLine::PrintVersion;
    } else if (name == "--normally-closed") {
        m_line.isNormallyClosed = true;
        accept(name, ReadOrWatch | WatchOrDrive);
    } else {
        return false;
    }
    return true;
}

bool Reader::readValue(const QByteArray& name, const QByteArray& value)
{
    if (name == "--bias") {
        choose(Biases, value, &m_line.input.bias);
        accept(name, ReadOrWatch);
    } else if (name == "--debounce") {
        readNumber(value, 0, &m_line.input.debounce, 1000);
        accept(name, ReadOrWatch);
    } else if (name == "--output") {
        choose(Drives, value, &m_line.output.drive);
        accept(name, 1 << CommandLine::DriveLines);
    } else if (name == "--at-end") {
        choose(Ends, value, &m_line.output.end);
        accept(name, 1 << CommandLine::DriveLines);
    } else if (name == "--changes") {
        readNumber(value, 1, &m_line.changes);
        accept(name, 1 << CommandLine::WatchLines);
    } else if (name == "--for") {
        readNumber(value, 0, &m_line.duration);
        accept(name, WatchOrDrive);
    } else {
        return false;
    }
    return true;
}

/** @param tasks bits numbered by the tasks that have the option. */
void Reader::accept(const QByteArray& option, int tasks)
{
    if (!(tasks & 1 << m_line.task))
        fail(option + " is not an option of this task");
}

template <typename Number> void Reader::readNumber(const QByteArray& text, int minimum, Number* number, int unit)
{
    const int maximum = 1000000;
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value < minimum || value > maximum)
        fail("\"" + text + "\" is not a number from " + QByteArray::number(minimum) + " to 1000000");
    else
        *number = Number(value * unit);
}

void Reader::readOperands()
{
    if (m_line.task == CommandLine::PrintHelp || m_line.task == CommandLine::PrintVersion)
        return;
    for (const QByteArray& operand : m_operands)
        readLine(operand);
    if (m_line.lines.isEmpty() && m_line.task != CommandLine::ListLines)
        fail("no line is given");
}

void Reader::readLine(const QByteArray& text)
{
    CommandLine::Line line = {text, false};
    if (m_line.task == CommandLine::DriveLines) {
        // Names of lines may contain the character.
        const int separator = text.lastIndexOf('=');
        if (separator < 0) {
            fail("\"" + text + "\" is not of the form LINE=active or LINE=inactive");
            return;
        }
        line.address = text.left(separator);
        choose(States, text.mid(separator + 1), &line.active);
    }
    m_line.lines.append(line);
}

} // namespace

CommandLine::CommandLine()
    : task(ListLines)
    , isNormallyClosed(false)
    , changes(0)
    , duration(-1)
{
}

QByteArray CommandLine::usage()
{
    return "Usage: ngpio list [CHIP...]\n"
           "       ngpio read [OPTION...] LINE...\n"
           "       ngpio watch [OPTION...] LINE...\n"
           "       ngpio drive [OPTION...] LINE=STATE...\n"
           "       ngpio --help | --version\n"
           "\n"
           "Lists the lines of GPIO chips, prints the states of inputs, once or whenever they change, and drives\n"
           "outputs until SIGINT (Ctrl-C) or SIGTERM.\n"
           "\n"
           "LINE is CHIP:LINE, for example gpiochip0:4, or the name of a line. CHIP is the name, the number or\n"
           "the label of a chip, LINE the number or the name of one of its lines. STATE is \"active\" or\n"
           "\"inactive\".\n"
           "\n"
           "Of all lines that are given:\n"
           "  --normally-closed       active means low; otherwise it means high\n"
           "\n"
           "Inputs; a line that is read or watched becomes one:\n"
           "  --bias BIAS             pull-up, pull-down, none or unchanged (the default)\n"
           "  --debounce MS           ignore levels that last less than so many milliseconds\n"
           "  --changes N             watch: end after so many changes\n"
           "\n"
           "Outputs:\n"
           "  --output OUTPUT         push-pull (the default), open-drain or open-source\n"
           "  --at-end LEVEL          drive low or high at the end, even if ngpio is killed; unchanged (the\n"
           "                          default) leaves the level to the driver of the chip\n"
           "\n"
           "  --for MS                watch, drive: end after so many milliseconds\n"
           "\n"
           "A change is printed as the seconds since the machine was started, the line, its level and its\n"
           "state. A line that another process holds, or whose chip is missing, is \"invalid\"; watch and drive\n"
           "wait for it.\n"
           "\n"
           "Exit status: 0 done; 1 a line is invalid, or another failure; 2 wrong arguments.\n";
}

QByteArray CommandLine::read(const QList<QByteArray>& arguments)
{
    return Reader(arguments, this).read();
}
