#ifndef NSERIAL_PORTLIST_H
#define NSERIAL_PORTLIST_H

#include <QtCore/QByteArray>

/** A line for each serial port of this machine, with its path and, where there is one, its friendly name. */
QByteArray portList();

#endif
