// The input is a boot sector of 512 bytes and a directory entry of 32. The label is compared with what another
// implementation of the same rules gets from these bytes.

#include <nbase/device/nfatvolumelabel_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <memory>
#include <stdlib.h>
#include <string.h>

namespace {

const int SectorSize = NFatVolumeLabel::BootSectorSize;
const int EntrySize = NFatVolumeLabel::DirectoryEntrySize;

void require(bool holds)
{
    if (!holds)
        abort();
}

quint64 number(const QByteArray& bytes, int offset, int size)
{
    quint64 value = 0;
    for (int index = size - 1; index >= 0; --index)
        value = value * 256 + uchar(bytes.at(offset + index));
    return value;
}

QString text(QByteArray field)
{
    if (field.contains('\0'))
        field.truncate(field.indexOf('\0'));
    while (field.endsWith(' '))
        field.chop(1);
    return QString::fromLatin1(field.constData(), field.size());
}

bool isOneBit(quint64 value)
{
    int bits = 0;
    for (; value > 0; value /= 2)
        bits += int(value % 2);
    return bits == 1;
}

void checkBootSector(const QByteArray& bytes, const NFatVolumeLabel::BootSector& sector)
{
    const bool isFat32 = number(bytes, 22, 2) == 0;
    const quint64 perFat = isFat32 ? number(bytes, 36, 4) : number(bytes, 22, 2);
    const quint64 root = isFat32 ? number(bytes, 44, 4) : 0;
    const quint64 perCluster = number(bytes, 13, 1);
    const QByteArray type = bytes.mid(isFat32 ? 82 : 54, 8);
    const bool isKnownType =
        isFat32 ? type == "FAT32   " : type == "FAT12   " || type == "FAT16   " || type == "FAT     ";
    require(
        sector.isValid ==
        (number(bytes, 510, 2) == 0xAA55 && isOneBit(number(bytes, 11, 2)) && isOneBit(perCluster) &&
         number(bytes, 14, 2) > 0 && number(bytes, 16, 1) > 0 && (!isFat32 || (perFat > 0 && root > 1)) &&
         number(bytes, isFat32 ? 66 : 38, 1) == 0x29 && isKnownType));
    if (!sector.isValid)
        return;
    const quint64 beforeClusters = number(bytes, 14, 2) + number(bytes, 16, 1) * perFat;
    const quint64 entrySector = (beforeClusters + 2 * perCluster - perCluster * root) % (Q_UINT64_C(1) << 32);
    require(sector.entryOffset == entrySector * number(bytes, 11, 2));
    const QString label = text(bytes.mid(isFat32 ? 71 : 43, 11));
    require(sector.label == (label == QLatin1String("NO NAME") ? QString() : label));
}

void checkEntry(QByteArray bytes, bool isLabel, const QString& label)
{
    const bool isUsed = bytes.at(0) != '\0' && bytes.at(0) != '.' && bytes.at(0) != '\xe5';
    require(isLabel == (isUsed && number(bytes, 11, 1) / 8 % 2 == 1));
    if (bytes.at(0) == '\x05')
        bytes[0] = '\xe5';
    require(label == text(bytes.left(11)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    QByteArray bytes(SectorSize + EntrySize, '\0');
    memcpy(bytes.data(), data, qMin(size, size_t(bytes.size())));
    // Memory of their exact sizes, at odd addresses, so that the sanitizers notice what is read beside it.
    const std::unique_ptr<char[]> sector(new char[SectorSize + 1]);
    const std::unique_ptr<char[]> entry(new char[EntrySize + 1]);
    memcpy(sector.get() + 1, bytes.constData(), SectorSize);
    memcpy(entry.get() + 1, bytes.constData() + SectorSize, EntrySize);

    checkBootSector(bytes, NFatVolumeLabel::parseBootSector(sector.get() + 1));
    checkEntry(
        bytes.mid(SectorSize), NFatVolumeLabel::isLabelEntry(entry.get() + 1),
        NFatVolumeLabel::entryLabel(entry.get() + 1));
    return 0;
}
