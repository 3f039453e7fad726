#include "nsharedsingleton.h"
#include "support/nthreads.h"

#include <nbase/core/nsingleton.h>
#include <nbase/time/neventplannersingleton.h>

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
        created.ref();
    }

    static OwnSingleton* member() { return s_instance; }
    static QMutex* mutex() { return s_mutex; }

    static QAtomicInt created;
};

QAtomicInt OwnSingleton::created(0);

class EarlySingleton : public QObject, public NSingleton<EarlySingleton>
{
    Q_OBJECT

public:
    explicit EarlySingleton(QObject* parent)
        : QObject(parent)
    {
    }
};

// Created before or after the mutex of its class: the order is unspecified.
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

    void destructorIsTheOnlyVirtualOperation();
    void mutexExistsBeforeFirstUse();
    void instanceIsCreatedOnFirstUseWithoutParent();
    void newInstanceIsCreatedAfterDeletion();
    void instanceCanBeUsedDuringStaticInitialisation();
    void concurrentFirstCallsGetOneObject();
    void tickerIsTheSameInAllLibraries();
    void applicationsSingletonIsTheSameInAllItsLibraries();
};

void tst_NSingleton::init()
{
    OwnSingleton::created = QAtomicInt(0);
}

void tst_NSingleton::cleanup()
{
    delete OwnSingleton::member();
}

void tst_NSingleton::destructorIsTheOnlyVirtualOperation()
{
    QVERIFY(std::has_virtual_destructor<NSingleton<OwnSingleton>>::value);
    // Only the pointer to the virtual table.
    QCOMPARE(sizeof(NSingleton<OwnSingleton>), sizeof(void*));
    QObject* const object = OwnSingleton::instance();
    QVERIFY(dynamic_cast<NSingleton<OwnSingleton>*>(object));
    delete dynamic_cast<NSingleton<OwnSingleton>*>(object);
    QVERIFY(!OwnSingleton::member());
}

void tst_NSingleton::mutexExistsBeforeFirstUse()
{
    QVERIFY(OwnSingleton::mutex());
    QVERIFY(!OwnSingleton::member());
    QVERIFY(OwnSingleton::mutex()->tryLock());
    QVERIFY(!OwnSingleton::mutex()->tryLock());
    OwnSingleton::mutex()->unlock();
}

void tst_NSingleton::instanceIsCreatedOnFirstUseWithoutParent()
{
    QCOMPARE(OwnSingleton::member(), static_cast<OwnSingleton*>(nullptr));
    OwnSingleton* const object = OwnSingleton::instance();
    QVERIFY(object);
    QVERIFY(!object->parent());
    QCOMPARE(OwnSingleton::member(), object);
    QCOMPARE(OwnSingleton::instance(), object);
    QCOMPARE(int(OwnSingleton::created.fetchAndAddOrdered(0)), 1);

    // The lock is not taken once the instance exists.
    QVERIFY(OwnSingleton::mutex()->tryLock());
    QCOMPARE(OwnSingleton::instance(), object);
    OwnSingleton::mutex()->unlock();
}

void tst_NSingleton::newInstanceIsCreatedAfterDeletion()
{
    delete OwnSingleton::instance();
    QVERIFY(!OwnSingleton::member());
    QVERIFY(OwnSingleton::instance());
    QCOMPARE(int(OwnSingleton::created.fetchAndAddOrdered(0)), 2);
}

void tst_NSingleton::instanceCanBeUsedDuringStaticInitialisation()
{
    QVERIFY(early);
    QCOMPARE(EarlySingleton::instance(), early);
    delete early;
}

void tst_NSingleton::concurrentFirstCallsGetOneObject()
{
    const int ThreadCount = 8;
    for (int round = 0; round < 50; ++round) {
        OwnSingleton* instances[ThreadCount];
        OwnSingleton::created = QAtomicInt(0);
        QVERIFY(NTest::holdsInThreads(ThreadCount, [&instances](int index) {
            instances[index] = OwnSingleton::instance();
            return instances[index] != nullptr;
        }));
        for (int index = 0; index < ThreadCount; ++index)
            QCOMPARE(instances[index], OwnSingleton::member());
        QCOMPARE(int(OwnSingleton::created.fetchAndAddOrdered(0)), 1);
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

void tst_NSingleton::applicationsSingletonIsTheSameInAllItsLibraries()
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
