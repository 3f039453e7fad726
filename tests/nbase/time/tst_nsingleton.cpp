#include "nsharedsingleton.h"
#include "support/nthreads.h"

#include <nbase/time/neventplannersingleton.h>
#include <nbase/time/nsingleton.h>

#include <QtCore/QAtomicInt>
#include <QtCore/QLibrary>

#include <QtTest/QtTest>

#include <type_traits>

namespace {

class OwnSingleton : public QObject, public NSingleton<OwnSingleton>
{
    Q_OBJECT

public:
    explicit OwnSingleton(QObject* parent)
        : QObject(parent)
    {
        made.ref();
    }

    static OwnSingleton* member() { return s_instance; }
    static QMutex* mutex() { return s_mutex; }

    static QAtomicInt made;
};

QAtomicInt OwnSingleton::made(0);

class EarlySingleton : public QObject, public NSingleton<EarlySingleton>
{
    Q_OBJECT

public:
    explicit EarlySingleton(QObject* parent)
        : QObject(parent)
    {
    }
};

// Made before or after the mutex of its class, as it comes.
EarlySingleton* const early = EarlySingleton::instance();

typedef void* (*ObjectFunction)();

void* callFunction(const char* library, const char* name)
{
    const ObjectFunction function =
        reinterpret_cast<ObjectFunction>(QLibrary::resolve(QString::fromLocal8Bit(library), name));
    return function ? function() : nullptr;
}

} // namespace

class tst_NSingleton : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void onlyVirtualOperationIsTheDestructor();
    void mutexIsThereBeforeFirstUse();
    void instanceIsMadeOnFirstUseWithoutParent();
    void deletedInstanceIsFollowedByANewOne();
    void instanceCanBeUsedWhileStaticsAreMade();
    void threadsThatComeFirstTogetherGetOneObject();
    void tickerIsTheSameInAllLibraries();
    void singletonOfAnApplicationIsTheSameInAllItsLibraries();
};

void tst_NSingleton::init()
{
    OwnSingleton::made = QAtomicInt(0);
}

void tst_NSingleton::cleanup()
{
    delete OwnSingleton::member();
}

void tst_NSingleton::onlyVirtualOperationIsTheDestructor()
{
    QVERIFY(std::has_virtual_destructor<NSingleton<OwnSingleton>>::value);
    // Nothing but the pointer to the table of virtual operations.
    QCOMPARE(sizeof(NSingleton<OwnSingleton>), sizeof(void*));
    QObject* const object = OwnSingleton::instance();
    QVERIFY(dynamic_cast<NSingleton<OwnSingleton>*>(object));
    delete dynamic_cast<NSingleton<OwnSingleton>*>(object);
    QVERIFY(!OwnSingleton::member());
}

void tst_NSingleton::mutexIsThereBeforeFirstUse()
{
    QVERIFY(OwnSingleton::mutex());
    QVERIFY(!OwnSingleton::member());
    QVERIFY(OwnSingleton::mutex()->tryLock());
    QVERIFY(!OwnSingleton::mutex()->tryLock());
    OwnSingleton::mutex()->unlock();
}

void tst_NSingleton::instanceIsMadeOnFirstUseWithoutParent()
{
    QCOMPARE(OwnSingleton::member(), static_cast<OwnSingleton*>(nullptr));
    OwnSingleton* const object = OwnSingleton::instance();
    QVERIFY(object);
    QVERIFY(!object->parent());
    QCOMPARE(OwnSingleton::member(), object);
    QCOMPARE(OwnSingleton::instance(), object);
    QCOMPARE(int(OwnSingleton::made.fetchAndAddOrdered(0)), 1);

    // Once there is one, the lock is not needed any more.
    QVERIFY(OwnSingleton::mutex()->tryLock());
    QCOMPARE(OwnSingleton::instance(), object);
    OwnSingleton::mutex()->unlock();
}

void tst_NSingleton::deletedInstanceIsFollowedByANewOne()
{
    delete OwnSingleton::instance();
    QVERIFY(!OwnSingleton::member());
    QVERIFY(OwnSingleton::instance());
    QCOMPARE(int(OwnSingleton::made.fetchAndAddOrdered(0)), 2);
}

void tst_NSingleton::instanceCanBeUsedWhileStaticsAreMade()
{
    QVERIFY(early);
    QCOMPARE(EarlySingleton::instance(), early);
    delete early;
}

void tst_NSingleton::threadsThatComeFirstTogetherGetOneObject()
{
    const int ThreadCount = 8;
    for (int round = 0; round < 50; ++round) {
        OwnSingleton* instances[ThreadCount];
        OwnSingleton::made = QAtomicInt(0);
        QVERIFY(NTest::holdsInThreads(ThreadCount, [&instances](int index) {
            instances[index] = OwnSingleton::instance();
            return instances[index] != nullptr;
        }));
        for (int index = 0; index < ThreadCount; ++index)
            QCOMPARE(instances[index], OwnSingleton::member());
        QCOMPARE(int(OwnSingleton::made.fetchAndAddOrdered(0)), 1);
        delete OwnSingleton::member();
    }
}

void tst_NSingleton::tickerIsTheSameInAllLibraries()
{
    void* const inOne = callFunction(NSINGLETONUSER_ONE, "minuteTicker");
    QVERIFY(inOne);
    QCOMPARE(callFunction(NSINGLETONUSER_OTHER, "minuteTicker"), inOne);
    QCOMPARE(static_cast<void*>(NEventPlannerSingleton::instance()), inOne);
    delete NEventPlannerSingleton::instance();
}

void tst_NSingleton::singletonOfAnApplicationIsTheSameInAllItsLibraries()
{
    void* const inOne = callFunction(NSINGLETONUSER_ONE, "sharedSingleton");
    QVERIFY(inOne);
    QCOMPARE(callFunction(NSINGLETONUSER_OTHER, "sharedSingleton"), inOne);
    QCOMPARE(static_cast<void*>(NSharedSingleton::instance()), inOne);
    const QList<const char*> libraries = QList<const char*>() << NSINGLETONUSER_ONE << NSINGLETONUSER_OTHER;
    for (const char* library : libraries) {
        QCOMPARE(
            const_cast<const void*>(callFunction(library, "sharedInstanceMember")),
            NSharedSingleton::instanceMember());
        QCOMPARE(const_cast<const void*>(callFunction(library, "sharedMutex")), NSharedSingleton::mutexMember());
    }
    delete NSharedSingleton::instance();
}

QTEST_MAIN(tst_NSingleton)
#include "tst_nsingleton.moc"
