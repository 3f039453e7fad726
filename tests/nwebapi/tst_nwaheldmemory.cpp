#include <nwebapi/nwaheldmemory_p.h>

#include <QtTest/QtTest>

#include <unistd.h>

namespace {

const int BlockCount = 512;
const int BlockSize = 64 * 1024;
const int Megabyte = 1024 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool MeasuresMemory = false; // the sanitizers' allocators keep freed memory
#else
const bool MeasuresMemory = true;
#endif

// Memory that the process holds, in bytes.
int residentSize()
{
    QFile file(QString::fromLatin1("/proc/self/statm"));
    file.open(QIODevice::ReadOnly);
    return file.readAll().split(' ').value(1).toInt() * int(::sysconf(_SC_PAGESIZE));
}

// Allocates and frees large blocks, and leaves a small one after each.
QList<QByteArray> scatteredPieces()
{
    QList<QByteArray> blocks;
    QList<QByteArray> pieces;
    for (int index = 0; index < BlockCount; ++index) {
        blocks.append(QByteArray(BlockSize, 'x'));
        pieces.append(QByteArray(2000, 'x')); // larger than what the C library has in reserve
    }
    return pieces;
}

} // namespace

class tst_NwaHeldMemory : public QObject
{
    Q_OBJECT

private slots:
    void memoryIsReturnedWhenMuchLessIsHeld();
};

void tst_NwaHeldMemory::memoryIsReturnedWhenMuchLessIsHeld()
{
    const int before = residentSize();
    NwaHeldMemory memory;
    const QList<QByteArray> pieces = scatteredPieces();
    QVERIFY(!MeasuresMemory || residentSize() - before > 16 * Megabyte);
    memory.note(32 * Megabyte);
    memory.note(1 * Megabyte);
    memory.update(32 * Megabyte - 1000);
    QVERIFY(!MeasuresMemory || residentSize() - before > 16 * Megabyte);
    memory.update(31 * Megabyte);
    QVERIFY(!MeasuresMemory || residentSize() - before < 8 * Megabyte);
    QCOMPARE(pieces.size(), int(BlockCount));
}

QTEST_APPLESS_MAIN(tst_NwaHeldMemory)
#include "tst_nwaheldmemory.moc"
