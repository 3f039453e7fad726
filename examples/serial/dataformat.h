#ifndef NSERIAL_DATAFORMAT_H
#define NSERIAL_DATAFORMAT_H

#include <QtCore/QByteArray>

/** How bytes are written on the command line and shown. */
enum DataFormat {
    HexFormat,   ///< received: rows of offset, hexadecimal digits and text; sent: hexadecimal digits
    TextFormat,  ///< with the escape sequences \\n, \\r, \\t, \\\\ and \\xHH
    BinaryFormat ///< as they are
};

/**
 * The bytes that @a text stands for.
 * @param ok receives whether it has the format.
 */
QByteArray bytesFromText(const QByteArray& text, DataFormat format, bool* ok);

/**
 * What a terminal shows for received bytes. Control characters other than line feed and tab become escape
 * sequences, because they would act on the terminal.
 * @param offset the number of bytes that were received before.
 */
QByteArray textFromBytes(const QByteArray& bytes, DataFormat format, qint64 offset);

#endif
