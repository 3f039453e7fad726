#include <nbase/time/ntimezoneregion.h>

#include <nsystem/nlatin1_p.h>

#include <QtCore/QStringList>
#include <QtTest/QtTest>

namespace {

class RecordingTown : public NTimeZoneTown
{
public:
    RecordingTown(const QString& name, QStringList* destroyed)
        : NTimeZoneTown(name, QString(), QString(), 0, 0, QString())
        , m_destroyed(destroyed)
    {
    }
    ~RecordingTown() override { m_destroyed->append(name()); }

private:
    QStringList* m_destroyed;
};

class RecordingRegion : public NTimeZoneRegion
{
public:
    explicit RecordingRegion(QStringList* destroyed)
        : NTimeZoneRegion(latin1("region"), QMap<QString, NTimeZoneTown*>())
        , m_destroyed(destroyed)
    {
    }
    ~RecordingRegion() override { m_destroyed->append(name()); }

private:
    QStringList* m_destroyed;
};

} // namespace

class tst_NTimeZoneRegion : public QObject
{
    Q_OBJECT

private slots:
    void townsAreInTheOrderOfTheirKeys();
    void regionDeletesEachTownOnce();
    void mapOfTheCallerIsNotChanged();
    void derivedRegionIsDestroyedThroughTheBase();
};

void tst_NTimeZoneRegion::townsAreInTheOrderOfTheirKeys()
{
    QStringList destroyed;
    QMap<QString, NTimeZoneTown*> towns;
    NTimeZoneTown* const rome = new RecordingTown(latin1("Rome"), &destroyed);
    NTimeZoneTown* const isle = new RecordingTown(latin1("Isle of Man"), &destroyed);
    towns.insert(latin1("Rome"), rome);
    towns.insert(latin1("Isle_of_Man"), isle);
    const NTimeZoneRegion region(latin1("Europe"), towns);
    QCOMPARE(region.name(), latin1("Europe"));
    QCOMPARE(QStringList(region.towns().keys()), QStringList() << latin1("Isle_of_Man") << latin1("Rome"));
    QVERIFY(region.towns().value(latin1("Isle_of_Man")) == isle);
    QVERIFY(region.towns().value(latin1("Rome")) == rome);
    QVERIFY(destroyed.isEmpty());
}

void tst_NTimeZoneRegion::regionDeletesEachTownOnce()
{
    QStringList destroyed;
    {
        QMap<QString, NTimeZoneTown*> towns;
        for (int number = 0; number < 5; ++number)
            towns.insert(QString::number(number), new RecordingTown(QString::number(number), &destroyed));
        const NTimeZoneRegion region(latin1("Europe"), towns);
    }
    destroyed.sort();
    QCOMPARE(destroyed.join(latin1(" ")), latin1("0 1 2 3 4"));
}

void tst_NTimeZoneRegion::mapOfTheCallerIsNotChanged()
{
    QStringList destroyed;
    QMap<QString, NTimeZoneTown*> towns;
    towns.insert(latin1("Rome"), new RecordingTown(latin1("Rome"), &destroyed));
    {
        const NTimeZoneRegion region(latin1("Europe"), towns);
    }
    QCOMPARE(destroyed.size(), 1);
    QCOMPARE(towns.size(), 1);
}

void tst_NTimeZoneRegion::derivedRegionIsDestroyedThroughTheBase()
{
    QStringList destroyed;
    NTimeZoneRegion* const region = new RecordingRegion(&destroyed);
    delete region;
    QCOMPARE(destroyed, QStringList(latin1("region")));
}

QTEST_APPLESS_MAIN(tst_NTimeZoneRegion)
#include "tst_ntimezoneregion.moc"
