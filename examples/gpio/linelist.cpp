#include "linelist.h"

#include "gpiochip.h"

#include <errno.h>
#include <string.h>

namespace {

const int AddressWidth = 14;
const int NameWidth = 20;
const int DirectionWidth = 6;

struct NamedFlag
{
    __u64 flag;
    const char* name;
};

const NamedFlag Flags[] = {
    {GPIO_V2_LINE_FLAG_ACTIVE_LOW, "active-low"},    {GPIO_V2_LINE_FLAG_OPEN_DRAIN, "open-drain"},
    {GPIO_V2_LINE_FLAG_OPEN_SOURCE, "open-source"},  {GPIO_V2_LINE_FLAG_BIAS_PULL_UP, "pull-up"},
    {GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN, "pull-down"}, {GPIO_V2_LINE_FLAG_BIAS_DISABLED, "no-bias"},
    {GPIO_V2_LINE_FLAG_EDGE_RISING, "rising-edges"}, {GPIO_V2_LINE_FLAG_EDGE_FALLING, "falling-edges"}};

QByteArray textOf(const gpio_v2_line_info& info)
{
    const QByteArray name(info.name);
    QByteArray text = (name.isEmpty() ? QByteArray("-") : name).leftJustified(NameWidth) + ' ';
    text += QByteArray(info.flags & GPIO_V2_LINE_FLAG_OUTPUT ? "output" : "input").leftJustified(DirectionWidth);
    for (const NamedFlag& flag : Flags) {
        if (info.flags & flag.flag)
            text += ' ' + QByteArray(flag.name);
    }
    for (__u32 i = 0; i < info.num_attrs; ++i) {
        if (info.attrs[i].id == GPIO_V2_LINE_ATTR_ID_DEBOUNCE)
            text += " debounce " + QByteArray::number(info.attrs[i].debounce_period_us / 1000.0) + " ms";
    }
    if (info.flags & GPIO_V2_LINE_FLAG_USED)
        text += " held by \"" + QByteArray(info.consumer) + '"';
    return text.trimmed() + '\n';
}

} // namespace

QByteArray lineList(const QString& chip, QByteArray* error)
{
    QByteArray list;
    bool isFound = chip.isEmpty();
    const QStringList names = GpioChip::names();
    for (const QString& name : names) {
        GpioChip candidate;
        if (!candidate.open(name)) {
            *error = name.toLocal8Bit() + ": " + QByteArray(strerror(errno));
            continue;
        }
        if (!chip.isEmpty() && !candidate.isCalled(chip))
            continue;
        isFound = true;
        list += name.toLocal8Bit() + ", " + candidate.label().toLocal8Bit() + ", " +
                QByteArray::number(candidate.lineCount()) + " lines\n";
        for (int i = 0; i < candidate.lineCount(); ++i) {
            gpio_v2_line_info info;
            if (candidate.readLineInfo(i, &info))
                list += (name.toLocal8Bit() + ':' + QByteArray::number(i)).leftJustified(AddressWidth) + ' ' +
                        textOf(info);
        }
    }
    if (!isFound && error->isEmpty())
        *error = chip.toLocal8Bit() + ": there is no such chip";
    return list;
}
