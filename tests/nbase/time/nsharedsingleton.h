#ifndef NBASE_TESTS_NSHAREDSINGLETON_H
#define NBASE_TESTS_NSHAREDSINGLETON_H

#include <nbase/time/nsingleton.h>

#include <QtCore/QObject>

class Q_DECL_EXPORT NSharedSingleton;
extern template class NSingleton<NSharedSingleton>;

/** A singleton of an application that several of its libraries use, written as NSingleton says. */
class Q_DECL_EXPORT NSharedSingleton : public QObject, public NSingleton<NSharedSingleton>
{
    Q_OBJECT

public:
    explicit NSharedSingleton(QObject* parent);

    /** Where the instance is kept, and its mutex. */
    static const void* instanceMember();
    static const void* mutexMember();
};

#endif
