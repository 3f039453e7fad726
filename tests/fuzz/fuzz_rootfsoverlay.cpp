// Gives the overlay's settings the input as the mount table, as the card's identifier and as both markers, and
// compares what they find with a plain reading of the same bytes.

#include <nbase/config/nrootfsoverlay.h>

#include "support/nmounttable.h"
#include "support/nprivatenamespace.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <stdlib.h>
#include <string.h>

namespace {

// Beyond the size of every buffer; longer inputs only take longer.
const size_t MaximumSize = 8192;
const char* const Device = "/dev/mmcblk1p2";

void require(bool condition)
{
    if (!condition)
        abort();
}

void write(const char* path, const QByteArray& content)
{
    const QString name = QString::fromLatin1(path);
    QFile file(name);
    require(QDir().mkpath(QFileInfo(name).path()));
    require(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size());
}

void requireEqual(char* found, const QByteArray& expected)
{
    require((found == nullptr) == expected.isNull());
    require(!found || expected == found);
    free(found);
}

// The lines end at the first NUL, as texts do in C.
QByteArray firstLine(const QByteArray& content)
{
    return content.isEmpty() ? QByteArray() : QByteArray(content.split('\n').first().constData());
}

QByteArray expectedMountpoint(const QByteArray& table)
{
    const QByteArray start = QByteArray(Device) + ' ';
    QList<QByteArray> lines = table.split('\n');
    for (const QByteArray& bytes : lines) {
        const QByteArray line(bytes.constData());
        if (!line.startsWith(start))
            continue;
        const int end = line.indexOf(' ', start.size());
        return end < 0 ? QByteArray() : QByteArray(line.mid(start.size(), end - start.size()).constData());
    }
    return QByteArray();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    NPrivateNamespace::enter(NPrivateNamespace::Mounts);
    NPrivateNamespace::mountEmptyDirectory(QString::fromLatin1("/etc/nrootfsoverlay"));
    NPrivateNamespace::mountEmptyDirectory(QString::fromLatin1("/sys/block"));
    NPrivateNamespace::mountEmptyDirectory(QString::fromLatin1("/rootfsoverlay"));
    write("/etc/nrootfsoverlay/nrootfsoverlay.conf", "backup: { mmc = 1; partition = 2; dir = \"x\"; };\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    static NMountTable mountTable;
    if (size > MaximumSize)
        return 0;
    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    mountTable.write(input);
    write("/sys/block/mmcblk1/device/cid", input);
    write("/sys/block/mmcblk1/ro", input);
    write("/rootfsoverlay/.autobackup", input);
    write("/rootfsoverlay/.bootaction", input);

    const QByteArray line = firstLine(input);
    requireEqual(nroBackupMediaMountpoint(), expectedMountpoint(input));
    requireEqual(nroBackupMediaId(), line);
    requireEqual(nroAutoBackupMediaId(), line);
    require(nroIsBackupMediaReadOnly() == (size > 0 && data[0] == '1'));
    require(nroIsBackupMediaMounted() == !expectedMountpoint(input).isNull());
    const int action = nroGetBootAction();
    require(action == (line == "wipe" ? 0 : line == "restore" ? 1 : 2));
    return 0;
}
