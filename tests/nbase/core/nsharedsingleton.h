#ifndef NBASE_TESTS_NSHAREDSINGLETON_H
#define NBASE_TESTS_NSHAREDSINGLETON_H

#include <nbase/time/nsingleton.h>

#include <QtCore/QObject>

class Q_DECL_EXPORT NSharedSingleton;
extern template class NSingleton<NSharedSingleton>;

/** An application's singleton that several of its libraries use. Includes the template by its documented path. */
class Q_DECL_EXPORT NSharedSingleton : public QObject, public NSingleton<NSharedSingleton>
{
    Q_OBJECT

public:
    explicit NSharedSingleton(QObject* parent);

    /** The addresses of the pointer to the instance and of its mutex. */
    static const void* instanceMember();
    static const void* mutexMember();
};

#endif
