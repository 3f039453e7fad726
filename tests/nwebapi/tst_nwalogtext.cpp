#include <nwebapi/nwalogtext.h>

#include <QtTest/QtTest>

class tst_NwaLogText : public QObject
{
    Q_OBJECT

private slots:
    void controlCharactersBecomeVisible_data();
    void controlCharactersBecomeVisible();
    void everyOtherCharacterStays();
};

void tst_NwaLogText::controlCharactersBecomeVisible_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("visible");
    QTest::newRow("null") << QString() << QString();
    QTest::newRow("plain") << QString::fromLatin1("a b") << QString::fromLatin1("a b");
    QTest::newRow("line break") << QString::fromLatin1("a\r\nb") << QString::fromLatin1("a\\x0d\\x0ab");
    QTest::newRow("null character") << QString(QChar(0)) << QString::fromLatin1("\\x00");
    QTest::newRow("escape") << QString::fromLatin1("\x1b[2J") << QString::fromLatin1("\\x1b[2J");
    QTest::newRow("last of the first range") << QString(QChar(0x1f)) << QString::fromLatin1("\\x1f");
    QTest::newRow("delete") << QString(QChar(0x7f)) << QString::fromLatin1("\\x7f");
    QTest::newRow("first beyond ASCII") << QString(QChar(0x80)) << QString::fromLatin1("\\x80");
    QTest::newRow("last of the second range") << QString(QChar(0x9f)) << QString::fromLatin1("\\x9f");
    QTest::newRow("backslash") << QString::fromLatin1("\\x0a") << QString::fromLatin1("\\x0a");
    QTest::newRow("percent") << QString::fromLatin1("%1\n%2") << QString::fromLatin1("%1\\x0a%2");
}

void tst_NwaLogText::controlCharactersBecomeVisible()
{
    QFETCH(QString, text);
    QFETCH(QString, visible);
    QCOMPARE(NwaLogText::fromClient(text), visible);
}

void tst_NwaLogText::everyOtherCharacterStays()
{
    for (uint code = 0x20; code <= 0xffff; ++code) {
        if (code >= 0x7f && code <= 0x9f)
            continue;
        const QString text(QChar(static_cast<ushort>(code)));
        QCOMPARE(NwaLogText::fromClient(text), text);
    }
}

QTEST_APPLESS_MAIN(tst_NwaLogText)
#include "tst_nwalogtext.moc"
