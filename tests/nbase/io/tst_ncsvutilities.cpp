#include <nbase/io/ncsvutilities.h>

#include <QtCore/QMetaEnum>
#include <QtTest/QtTest>

#include <limits.h>

class tst_NCsvUtilities : public QObject
{
    Q_OBJECT

private slots:
    void separatorsHaveTheirCharacters_data();
    void separatorsHaveTheirCharacters();
    void tableContainsTheThreeSeparators();
    void tableIsACopy();
    void keysAreRegisteredInOrder();
    void unknownSeparatorsHaveNoCharacter();
    void otherCharactersGiveTheComma_data();
    void otherCharactersGiveTheComma();
};

void tst_NCsvUtilities::separatorsHaveTheirCharacters_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QChar>("character");
    QTest::newRow("comma") << 0 << QChar(QLatin1Char(','));
    QTest::newRow("semicolon") << 1 << QChar(QLatin1Char(';'));
    QTest::newRow("colon") << 2 << QChar(QLatin1Char(':'));
}

void tst_NCsvUtilities::separatorsHaveTheirCharacters()
{
    QFETCH(int, value);
    QFETCH(QChar, character);
    const NCsvUtilities::Separator separator = NCsvUtilities::Separator(value);
    QCOMPARE(NCsvUtilities::characterFromSeparator(separator), character);
    QCOMPARE(int(NCsvUtilities::separatorFromCharacter(character)), value);
    QCOMPARE(NCsvUtilities::separators().value(separator), character);
}

void tst_NCsvUtilities::tableContainsTheThreeSeparators()
{
    QCOMPARE(NCsvUtilities::separators().size(), 3);
}

void tst_NCsvUtilities::tableIsACopy()
{
    QMap<NCsvUtilities::Separator, QChar> separators = NCsvUtilities::separators();
    separators.clear();
    QCOMPARE(NCsvUtilities::separators().size(), 3);
}

void tst_NCsvUtilities::keysAreRegisteredInOrder()
{
    const QMetaObject& utilities = NCsvUtilities::staticMetaObject;
    const QMetaEnum keys = utilities.enumerator(utilities.indexOfEnumerator("Separator"));
    QCOMPARE(keys.keyCount(), 3);
    QCOMPARE(keys.key(0), "SeparatorComma");
    QCOMPARE(keys.key(1), "SeparatorSemicolon");
    QCOMPARE(keys.key(2), "SeparatorColon");
    QCOMPARE(keys.value(0), 0);
    QCOMPARE(keys.value(1), 1);
    QCOMPARE(keys.value(2), 2);
}

void tst_NCsvUtilities::unknownSeparatorsHaveNoCharacter()
{
    QVERIFY(NCsvUtilities::characterFromSeparator(NCsvUtilities::Separator(3)).isNull());
}

void tst_NCsvUtilities::otherCharactersGiveTheComma_data()
{
    QTest::addColumn<QChar>("character");
    QTest::newRow("vertical bar") << QChar(QLatin1Char('|'));
    QTest::newRow("tabulator") << QChar(QLatin1Char('\t'));
    QTest::newRow("null") << QChar();
    QTest::newRow("full-width semicolon") << QChar(0xff1b);
}

void tst_NCsvUtilities::otherCharactersGiveTheComma()
{
    QFETCH(QChar, character);
    QCOMPARE(int(NCsvUtilities::separatorFromCharacter(character)), int(NCsvUtilities::SeparatorComma));
}

QTEST_APPLESS_MAIN(tst_NCsvUtilities)
#include "tst_ncsvutilities.moc"
