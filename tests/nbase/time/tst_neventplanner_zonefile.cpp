// The planner on a system whose time zone is the file /etc/localtime, as it is on a developer's machine.

#include "nplannerclock.h"
#include "nplannerrecorder.h"

#include <nbase/time/neventplanner.h>

#include "support/nprivatenamespace.h"
#include "support/ntemporarydirectory.h"

#include <nsystem/nlatin1_p.h>

#include <QtCore/QTimer>
#include <QtTest/QtTest>

using namespace NPlannerClock;

class tst_NEventPlannerZoneFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileMayBeReplaced_data();
    void fileMayBeReplaced();
    void minuteWithALeapSecondIsReportedOnce();
};

namespace {

const char* const ZoneFile = "/etc/localtime";

void mountZone(const char* zone)
{
    NPrivateNamespace::mountCopy(latin1("/usr/share/zoneinfo/") + latin1(zone), latin1(ZoneFile));
}

QByteArray bigEndian(const QList<quint32>& numbers)
{
    QByteArray bytes;
    for (int index = 0; index < numbers.size(); ++index) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.append(char((numbers.at(index) >> shift) & 0xFF));
    }
    return bytes;
}

// UTC with one leap second, as a file of tzfile(5), version 1: the header, one local time type, and the leap
// second.
QByteArray zoneWithLeapSecond(quint32 leapSecond)
{
    const QList<quint32> counts = QList<quint32>() << 0 << 0 << 1 << 0 << 1 << 4;
    const QByteArray kind = bigEndian(QList<quint32>() << 0) + QByteArray(2, '\0') + QByteArray("UTC", 4);
    return QByteArray("TZif") + QByteArray(16, '\0') + bigEndian(counts) + kind +
           bigEndian(QList<quint32>() << leapSecond << 1);
}

} // namespace

void tst_NEventPlannerZoneFile::init()
{
    mountZone("Europe/Berlin");
    ::unsetenv("TZ");
    // 08:00 in Berlin.
    NSystemCalls::stopClockAt(QDateTime(QDate(2026, 1, 5), QTime(7, 0), Qt::UTC).toMSecsSinceEpoch());
    delete ticker();
}

void tst_NEventPlannerZoneFile::cleanup()
{
    delete ticker();
    NSystemCalls::resetClock();
    NPrivateNamespace::unmount(latin1(ZoneFile));
}

void tst_NEventPlannerZoneFile::fileMayBeReplaced_data()
{
    QTest::addColumn<QString>("occasion");
    QTest::newRow("the next minute") << latin1("newMinute");
    QTest::newRow("a notice") << latin1("currentDateTimeChanged");
}

// The system does not notify the process, and nothing else calls tzset().
void tst_NEventPlannerZoneFile::fileMayBeReplaced()
{
    QFETCH(QString, occasion);
    QSet<Qt::DayOfWeek> monday;
    monday << Qt::Monday;
    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    planner.registerPeriodicEvent(monday, QTime(16, 0));
    planner.registerPeriodicTimeSlot(monday, QTime(8, 0), QTime(9, 0));
    QCOMPARE(reports, QStringList(latin1("start 0800-0900")));
    reports.clear();

    // 16:00 in Tokyo.
    mountZone("Asia/Tokyo");
    QVERIFY(QMetaObject::invokeMethod(ticker(), occasion.toLatin1().constData()));
    NPrivateNamespace::unmount(latin1(ZoneFile));
    QCOMPARE(reports, QStringList() << latin1("event 1600") << latin1("end 0800-0900"));
}

// Where the zone counts leap seconds, the last minute of 30 June has 61 seconds.
void tst_NEventPlannerZoneFile::minuteWithALeapSecondIsReportedOnce()
{
    const qint64 leapSecond = QDateTime(QDate(2026, 7, 1), QTime(0, 0), Qt::UTC).toMSecsSinceEpoch();
    const NTemporaryDirectory directory;
    const QByteArray zone = zoneWithLeapSecond(quint32(leapSecond / 1000));
    const QString file = directory.writeFile(latin1("zone"), zone);
    NPrivateNamespace::mountCopy(file, latin1(ZoneFile));

    QStringList reports;
    NEventPlanner planner(nullptr);
    NPlannerRecorder recorder(&planner, &reports);
    NSystemCalls::stopClockAt(leapSecond - 60 * 1000);
    ticker()->newMinute();
    planner.registerCalendarEvent(NEventPlanner::NewMinute);
    NSystemCalls::stopClockAt(leapSecond + 250);
    ticker()->currentDateTimeChanged();
    const int left = ticker()->findChild<QTimer*>()->interval();
    NSystemCalls::stopClockAt(leapSecond + 1000);
    ticker()->currentDateTimeChanged();
    NPrivateNamespace::unmount(latin1(ZoneFile));
    QCOMPARE(left, 750);
    QCOMPARE(reports, QStringList(latin1("calendar 0")));
}

NTEST_MAIN_IN_NAMESPACE(QCoreApplication, tst_NEventPlannerZoneFile, NPrivateNamespace::Mounts)
#include "tst_neventplanner_zonefile.moc"
