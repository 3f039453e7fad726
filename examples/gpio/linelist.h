#ifndef NGPIO_LINELIST_H
#define NGPIO_LINELIST_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

/**
 * A line of text for each line of GPIO chips: its address, name, direction, settings and holder.
 * @param chip see GpioAddress::find(); empty for all chips.
 * @param error receives why the list is not complete.
 */
QByteArray lineList(const QString& chip, QByteArray* error);

#endif
