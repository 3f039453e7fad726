#include <nwebapi/nwarandom_p.h>

#include <QtTest/QtTest>

class tst_NwaRandom : public QObject
{
    Q_OBJECT

private slots:
    void exactlyTheBytesAskedForAreFilled_data();
    void exactlyTheBytesAskedForAreFilled();
    void everyByteIsFilled();
    void resultsDiffer();
};

void tst_NwaRandom::exactlyTheBytesAskedForAreFilled_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("none") << 0;
    QTest::newRow("one") << 1;
    QTest::newRow("identifier") << 16;
    QTest::newRow("more than the kernel gives without an interruption") << 257;
    QTest::newRow("many") << 1000000;
}

void tst_NwaRandom::exactlyTheBytesAskedForAreFilled()
{
    QFETCH(int, size);
    QByteArray buffer(size + 64, 'z');
    QVERIFY(NwaRandom::fill(buffer.data(), size_t(size)));
    QCOMPARE(buffer.mid(size), QByteArray(64, 'z'));
}

void tst_NwaRandom::everyByteIsFilled()
{
    // That one of the bytes is 0 each time happens by chance once in 2^310 runs.
    const int size = 1000;
    QByteArray changed(size, '\0');
    for (int round = 0; round < 40; ++round) {
        QByteArray buffer(size, '\0');
        QVERIFY(NwaRandom::fill(buffer.data(), size_t(size)));
        for (int index = 0; index < size; ++index)
            changed[index] = char(changed.at(index) | buffer.at(index));
    }
    QVERIFY(!changed.contains('\0'));
}

void tst_NwaRandom::resultsDiffer()
{
    QSet<QByteArray> results;
    for (int count = 0; count < 1000; ++count) {
        QByteArray buffer(16, '\0');
        QVERIFY(NwaRandom::fill(buffer.data(), size_t(buffer.size())));
        results.insert(buffer);
    }
    QCOMPARE(results.size(), 1000);
}

QTEST_APPLESS_MAIN(tst_NwaRandom)
#include "tst_nwarandom.moc"
