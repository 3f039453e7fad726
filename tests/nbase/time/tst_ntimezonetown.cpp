#include <nbase/time/ntimezonetown.h>

#include <nsystem/nlatin1_p.h>

#include <QtTest/QtTest>

namespace {

class CountingTown : public NTimeZoneTown
{
public:
    explicit CountingTown(int* destroyed)
        : NTimeZoneTown(QString(), QString(), QString(), 0, 0, QString())
        , m_destroyed(destroyed)
    {
    }
    ~CountingTown() override { ++*m_destroyed; }

private:
    int* m_destroyed;
};

} // namespace

class tst_NTimeZoneTown : public QObject
{
    Q_OBJECT

private slots:
    void townReturnsItsValues();
    void derivedTownIsDestroyedThroughTheBase();
};

void tst_NTimeZoneTown::townReturnsItsValues()
{
    const NTimeZoneTown town(
        latin1("Argentina/Buenos Aires"), latin1("<-03>3"), latin1("AR"), -34.6f, -58.45f,
        latin1("Buenos Aires (BA, CF)"));
    QCOMPARE(town.name(), latin1("Argentina/Buenos Aires"));
    QCOMPARE(town.timezoneCode(), latin1("<-03>3"));
    QCOMPARE(town.countryCode(), latin1("AR"));
    QCOMPARE(town.latitude(), -34.6f);
    QCOMPARE(town.longitude(), -58.45f);
    QCOMPARE(town.comment(), latin1("Buenos Aires (BA, CF)"));
}

void tst_NTimeZoneTown::derivedTownIsDestroyedThroughTheBase()
{
    int destroyed = 0;
    NTimeZoneTown* const town = new CountingTown(&destroyed);
    delete town;
    QCOMPARE(destroyed, 1);
}

QTEST_APPLESS_MAIN(tst_NTimeZoneTown)
#include "tst_ntimezonetown.moc"
