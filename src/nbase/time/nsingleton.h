#ifndef NBASE_NSINGLETON_H
#define NBASE_NSINGLETON_H

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/qglobal.h>

#include <stddef.h>

/**
 * The base of a class @a T of which a process has one object, made on first use. T derives from QObject first and
 * from NSingleton<T> second, and has a constructor that takes its parent, a QObject*:
 *
 * @code
 * class Clock : public QObject, public NSingleton<Clock>
 * {
 *     Q_OBJECT
 * public:
 *     explicit Clock(QObject* parent);
 * };
 *
 * Clock::instance()->start();
 * @endcode
 *
 * That is all when only one program or only one shared library uses instance(). When several of them do, the two
 * static members have to be one object for all. For this, one library owns the class: it exports T, its header
 * says before the class that the template is instantiated elsewhere,
 *
 * @code
 * class CLOCK_EXPORT Clock;
 * extern template class NSingleton<Clock>;
 * @endcode
 *
 * its source file instantiates it (`template class NSingleton<Clock>;`), and everyone else links with that
 * library. Without this, each library that is loaded with dlopen() may have an instance of its own.
 *
 * instance() is thread-safe. The object belongs to the thread that calls instance() first, and lives until the
 * process ends unless the application deletes it; nobody may be using it then.
 */
template <class T> class Q_DECL_EXPORT NSingleton // by whichever library instantiates it
{
public:
    /**
     * The process's T, made with a null parent when there is none. T's constructor must not call this.
     * @return never null.
     */
    static T* instance();

    /** Makes the next call of instance() make a new T. */
    virtual ~NSingleton();

protected:
    NSingleton() {}

    static T* s_instance;   ///< null until first use
    static QMutex* s_mutex; ///< guards the making of the object; never deleted

private:
    NSingleton(const NSingleton&);
    NSingleton& operator=(const NSingleton&);
};

template <class T> T* NSingleton<T>::s_instance = nullptr;

template <class T> QMutex* NSingleton<T>::s_mutex = new QMutex;

template <class T> T* NSingleton<T>::instance()
{
    // The pointer is read without the lock. The processors of the devices may reorder memory accesses, so whoever
    // sees it must be made to see the finished object too.
    T* object = __atomic_load_n(&s_instance, __ATOMIC_ACQUIRE);
    if (object)
        return object;

    // Statics of an application that use the instance may be made before the mutex; a null mutex locks nothing,
    // and there is only one thread then.
    const QMutexLocker locker(s_mutex);
    object = __atomic_load_n(&s_instance, __ATOMIC_ACQUIRE);
    if (!object) {
        object = new T(nullptr);
        __atomic_store_n(&s_instance, object, __ATOMIC_RELEASE);
    }
    return object;
}

template <class T> NSingleton<T>::~NSingleton()
{
    __atomic_store_n(&s_instance, static_cast<T*>(nullptr), __ATOMIC_RELEASE);
}

#endif
