#ifndef NBASE_NSINGLETON_H
#define NBASE_NSINGLETON_H

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/qglobal.h>

#include <stddef.h>

/**
 * Base of a class @a T that has one instance per process, created on first use. T derives from QObject first and
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
 * This is enough when only one program or one shared library uses instance(). When several do, the two static
 * members must not be duplicated. One library then owns the class: it exports T, its header declares before the
 * class that the template is instantiated elsewhere,
 *
 * @code
 * class CLOCK_EXPORT Clock;
 * extern template class NSingleton<Clock>;
 * @endcode
 *
 * its source file instantiates it (`template class NSingleton<Clock>;`), and all other users link with that
 * library. Otherwise each library loaded with dlopen() may have an instance of its own.
 *
 * instance() is thread-safe. The object belongs to the thread that calls instance() first. It is never deleted by
 * the template; the application may delete it when no other thread uses it.
 */
template <class T> class Q_DECL_EXPORT NSingleton // exported by the library that instantiates it
{
public:
    /**
     * Returns the instance; creates it, with a null parent, when there is none. T's constructor must not call it.
     * @return never null.
     */
    static T* instance();

    /** The next call of instance() creates a new T. */
    virtual ~NSingleton();

protected:
    NSingleton() {}

    static T* s_instance;   ///< null until first use
    static QMutex* s_mutex; ///< guards the creation; never deleted

private:
    NSingleton(const NSingleton&);
    NSingleton& operator=(const NSingleton&);
};

template <class T> T* NSingleton<T>::s_instance = nullptr;

template <class T> QMutex* NSingleton<T>::s_mutex = new QMutex;

template <class T> T* NSingleton<T>::instance()
{
    // The pointer is read without the lock. ARM processors reorder memory accesses; acquire and release make the
    // constructed object visible together with the pointer.
    T* object = __atomic_load_n(&s_instance, __ATOMIC_ACQUIRE);
    if (object)
        return object;

    // Statics of an application may call this before the mutex is created. QMutexLocker ignores a null mutex, and
    // there is only one thread at that time.
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
