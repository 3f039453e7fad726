#include <nbase/device/nfatvolumelabel_p.h>

#include <string.h>

namespace {

const int LabelSize = 11;
const int TypeSize = 8;
const uchar ExtendedBootSignature = 0x29;

// Of a directory entry.
const int AttributesOffset = 11;
const uchar VolumeLabelAttribute = 0x08;
const uchar DeletedEntry = 0xE5;
const uchar EscapedFirstByte = 0x05; // stands for 0xE5, which would mark the entry as deleted

const char* const Fat16Types[] = {"FAT12   ", "FAT16   ", "FAT     "};
const char* const Fat32Types[] = {"FAT32   "};

uchar byteAt(const char* bytes, int offset)
{
    return uchar(bytes[offset]);
}

quint32 wordAt(const char* bytes, int offset)
{
    return quint32(byteAt(bytes, offset)) | quint32(byteAt(bytes, offset + 1)) << 8;
}

quint32 doubleWordAt(const char* bytes, int offset)
{
    return wordAt(bytes, offset) | wordAt(bytes, offset + 2) << 16;
}

QString labelText(const char* bytes)
{
    int size = int(::strnlen(bytes, LabelSize));
    while (size > 0 && bytes[size - 1] == ' ')
        --size;
    return QString::fromLatin1(bytes, size);
}

/** The parts of the boot sector that differ between FAT12 and FAT16 on the one hand and FAT32 on the other. */
struct Layout
{
    quint32 sectorsPerFat;
    quint32 rootCluster;
    int signatureOffset;
    int labelOffset;
    int typeOffset;
    const char* const* types;
    int typeCount;
};

Layout layoutOf(const char* bytes)
{
    const quint32 sectorsPerFat = wordAt(bytes, 22);
    if (sectorsPerFat != 0) {
        const Layout fat16 = {sectorsPerFat, 0, 38, 43, 54, Fat16Types, 3};
        return fat16;
    }
    const Layout fat32 = {doubleWordAt(bytes, 36), doubleWordAt(bytes, 44), 66, 71, 82, Fat32Types, 1};
    return fat32;
}

bool hasKnownType(const char* bytes, const Layout& layout)
{
    for (int index = 0; index < layout.typeCount; ++index) {
        if (::memcmp(bytes + layout.typeOffset, layout.types[index], TypeSize) == 0)
            return true;
    }
    return false;
}

bool isValidLayout(const char* bytes, const Layout& layout)
{
    const bool isFat32 = layout.types == Fat32Types;
    if (isFat32 && (layout.sectorsPerFat == 0 || layout.rootCluster < 2))
        return false;
    return byteAt(bytes, layout.signatureOffset) == ExtendedBootSignature && hasKnownType(bytes, layout);
}

} // namespace

bool NFatVolumeLabel::isPowerOf2(unsigned int number)
{
    return number != 0 && (number & (number - 1)) == 0;
}

NFatVolumeLabel::BootSector NFatVolumeLabel::parseBootSector(const char* bytes)
{
    BootSector sector = {false, 0, QString()};
    if (byteAt(bytes, 510) != 0x55 || byteAt(bytes, 511) != 0xAA)
        return sector;
    const quint32 bytesPerSector = wordAt(bytes, 11);
    const quint32 sectorsPerCluster = byteAt(bytes, 13); // a byte that is a power of 2 is at most 128, the limit
    const quint32 reservedSectors = wordAt(bytes, 14);
    const quint32 fats = byteAt(bytes, 16);
    if (!NFatVolumeLabel::isPowerOf2(bytesPerSector) || !NFatVolumeLabel::isPowerOf2(sectorsPerCluster) ||
        reservedSectors == 0 || fats == 0)
        return sector;
    const Layout layout = layoutOf(bytes);
    if (!isValidLayout(bytes, layout))
        return sector;
    sector.isValid = true;
    // Damaged numbers wrap around, like a root cluster above 2.
    const quint32 entrySector =
        reservedSectors + fats * layout.sectorsPerFat + sectorsPerCluster * (2u - layout.rootCluster);
    sector.entryOffset = quint64(entrySector) * bytesPerSector;
    const QString label = labelText(bytes + layout.labelOffset);
    // What formatting programs write into a system without a label.
    if (label != QLatin1String("NO NAME"))
        sector.label = label;
    return sector;
}

bool NFatVolumeLabel::isLabelEntry(const char* bytes)
{
    const uchar first = byteAt(bytes, 0);
    return first != 0x00 && first != uchar('.') && first != DeletedEntry &&
           (byteAt(bytes, AttributesOffset) & VolumeLabelAttribute) != 0;
}

QString NFatVolumeLabel::entryLabel(const char* bytes)
{
    char label[LabelSize];
    ::memcpy(label, bytes, LabelSize);
    if (byteAt(bytes, 0) == EscapedFirstByte)
        label[0] = char(DeletedEntry);
    return labelText(label);
}
