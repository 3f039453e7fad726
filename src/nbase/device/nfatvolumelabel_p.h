#ifndef NBASE_NFATVOLUMELABEL_P_H
#define NBASE_NFATVOLUMELABEL_P_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

/**
 * The volume label of a FAT12, FAT16 or FAT32 file system, from the bytes of its boot sector and of a directory
 * entry (Microsoft, FAT: General Overview of On-Disk Format, version 1.03).
 *
 * The bytes may be anything, and need not be aligned. Text is Latin-1 and ends at a NUL or at the end of its
 * field; blanks at its end do not count.
 */
namespace NFatVolumeLabel {

enum { BootSectorSize = 512, DirectoryEntrySize = 32 };

/** What a boot sector says about the label. */
struct BootSector
{
    /** Whether this is the boot sector of a FAT file system; otherwise the rest is meaningless. */
    bool isValid;

    /**
     * Where the entry with the label is looked for, in bytes from the beginning of the file system: the first
     * entry of the root directory when the system is FAT32 and its root directory is one piece at cluster 2, as
     * usual. The same formula serves FAT12 and FAT16, whose root directory is elsewhere: it leads two clusters
     * past the end of the FATs.
     */
    quint64 entryOffset;

    /** The label that counts when there is no such entry; empty for "NO NAME". */
    QString label;
};

/** Whether @a number is 1, 2, 4, 8 and so on. */
bool isPowerOf2(unsigned int number);

/** @param bytes BootSectorSize bytes. */
BootSector parseBootSector(const char* bytes);

/**
 * Whether a directory entry is a volume label. The bit of its attributes suffices, so the entries that hold a
 * part of a long file name pass as well.
 * @param bytes DirectoryEntrySize bytes.
 */
bool isLabelEntry(const char* bytes);

/**
 * The text of an entry that is a volume label; empty when it consists of blanks.
 * @param bytes DirectoryEntrySize bytes.
 */
QString entryLabel(const char* bytes);

} // namespace NFatVolumeLabel

#endif
