#ifndef NGPIO_COMMANDLINE_H
#define NGPIO_COMMANDLINE_H

#include "gpioinput.h"
#include "gpiooutput.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>

/** What the user asks for. */
struct CommandLine
{
    enum Task { ListLines, ReadLines, WatchLines, DriveLines, PrintHelp, PrintVersion };

    struct Line
    {
        QByteArray address;
        bool active; ///< what an output is driven to
    };

    CommandLine();

    static QByteArray usage();

    /**
     * Sets the members.
     * @param arguments without the name of the program.
     * @return what is wrong with them; empty when nothing is.
     */
    QByteArray read(const QList<QByteArray>& arguments);

    Task task;
    QList<Line> lines;
    bool isNormallyClosed;
    GpioInput::Settings input;
    GpioOutput::Settings output;
    int changes;  ///< after how many changes watching ends; 0 for no limit
    int duration; ///< for how many milliseconds lines are watched or driven; -1 for no limit
};

#endif
