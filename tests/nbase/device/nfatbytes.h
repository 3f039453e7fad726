#ifndef NBASE_TESTS_NFATBYTES_H
#define NBASE_TESTS_NFATBYTES_H

#include <QtCore/QByteArray>
#include <QtCore/QtEndian>
#include <QtCore/QtGlobal>

#include <string.h>

/** The fields of boot sectors and directory entries of FAT file systems that tests read and change. */
namespace NFatBytes {

inline void put(QByteArray& bytes, int offset, const QByteArray& value)
{
    bytes.replace(offset, value.size(), value);
}

inline void putByte(QByteArray& bytes, int offset, int value)
{
    bytes[offset] = char(value);
}

inline void putWord(QByteArray& bytes, int offset, quint16 value)
{
    qToLittleEndian(value, reinterpret_cast<uchar*>(bytes.data()) + offset);
}

inline void putDoubleWord(QByteArray& bytes, int offset, quint32 value)
{
    qToLittleEndian(value, reinterpret_cast<uchar*>(bytes.data()) + offset);
}

inline quint32 byteAt(const QByteArray& bytes, int offset)
{
    return uchar(bytes.at(offset));
}

inline quint32 wordAt(const QByteArray& bytes, int offset)
{
    return qFromLittleEndian<quint16>(reinterpret_cast<const uchar*>(bytes.constData()) + offset);
}

inline quint32 doubleWordAt(const QByteArray& bytes, int offset)
{
    return qFromLittleEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData()) + offset);
}

/** 11 bytes of a name or label, blanks at the end. */
inline QByteArray name(const QByteArray& text)
{
    return text.leftJustified(11, ' ', true);
}

/** A directory entry, by default a volume label. */
inline QByteArray entry(const QByteArray& text, int attributes = 0x08)
{
    QByteArray bytes(32, '\0');
    put(bytes, 0, name(text));
    putByte(bytes, 11, attributes);
    return bytes;
}

/**
 * A boot sector with 512 bytes per sector and cluster, and two FATs.
 * @param signature where the extended boot signature is; the label and the type follow it.
 */
inline QByteArray bootSector(int reservedSectors, int signature, const QByteArray& label, const QByteArray& type)
{
    QByteArray bytes(512, '\0');
    putWord(bytes, 11, 512);
    putByte(bytes, 13, 1);
    putWord(bytes, 14, reservedSectors);
    putByte(bytes, 16, 2);
    putByte(bytes, signature, 0x29);
    put(bytes, signature + 5, name(label));
    put(bytes, signature + 16, type);
    putWord(bytes, 510, 0xAA55);
    return bytes;
}

/** The boot sector of a FAT16 file system, with 1 + 2 * 4 sectors before the root. */
inline QByteArray fat16BootSector(const QByteArray& label)
{
    QByteArray bytes = bootSector(1, 38, label, "FAT16   ");
    putWord(bytes, 17, 16);
    putWord(bytes, 22, 4);
    return bytes;
}

/** The boot sector of a FAT32 file system, with the root in sector 2 + 2 * 4. */
inline QByteArray fat32BootSector(const QByteArray& label)
{
    QByteArray bytes = bootSector(2, 66, label, "FAT32   ");
    putDoubleWord(bytes, 36, 4);
    putDoubleWord(bytes, 44, 2);
    return bytes;
}

/** Where the root directory really begins, in bytes; of FAT32, if it is at cluster 2. */
inline qint64 rootDirectory(const QByteArray& bootSector)
{
    const quint32 word = wordAt(bootSector, 22);
    const quint32 sectorsPerFat = word ? word : doubleWordAt(bootSector, 36);
    return qint64(wordAt(bootSector, 11)) *
           (wordAt(bootSector, 14) + qint64(byteAt(bootSector, 16)) * sectorsPerFat);
}

inline qint64 clusterSize(const QByteArray& bootSector)
{
    return qint64(wordAt(bootSector, 11)) * byteAt(bootSector, 13);
}

} // namespace NFatBytes

#endif
