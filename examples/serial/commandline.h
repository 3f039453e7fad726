#ifndef NSERIAL_COMMANDLINE_H
#define NSERIAL_COMMANDLINE_H

#include "dataformat.h"

#include <nbase/serial/nserialport.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>

/** What the user asks for. */
struct CommandLine
{
    enum Task { UsePort, ListPorts, PrintHelp, PrintVersion };
    enum Level { LevelUnchanged, LevelOn, LevelOff };

    CommandLine();

    static QByteArray usage();

    /**
     * Sets the members.
     * @param arguments without the name of the program.
     * @return what is wrong with them; empty when nothing is.
     */
    QByteArray read(const QList<QByteArray>& arguments);

    Task task;
    QByteArray portName;
    NSerialPort::PortSettings settings;
    int timeout; ///< of opening, in milliseconds
    Level rts;
    Level dtr;
    bool printsStatus;
    bool sends;
    bool readsInput; ///< what is sent comes from the standard input
    bool listens;
    QByteArray data;        ///< what is sent otherwise
    DataFormat inputFormat; ///< of the standard input
    DataFormat outputFormat;
};

#endif
