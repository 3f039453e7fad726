#include "nsharedsingleton.h"

template class NSingleton<NSharedSingleton>;

NSharedSingleton::NSharedSingleton(QObject* parent)
    : QObject(parent)
{
}

const void* NSharedSingleton::instanceMember()
{
    return &s_instance;
}

const void* NSharedSingleton::mutexMember()
{
    return s_mutex;
}
