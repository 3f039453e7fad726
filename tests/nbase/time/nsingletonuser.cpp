#include "nsharedsingleton.h"

#include <nbase/time/neventplannersingleton.h>

// What a library that includes the headers gets.

namespace {

// A library may look at the protected members through a class of its own.
class Members : public NSharedSingleton
{
public:
    static const void* instance() { return &s_instance; }
    static const void* mutex() { return s_mutex; }
};

} // namespace

extern "C" {

Q_DECL_EXPORT void* minuteTicker()
{
    return NEventPlannerSingleton::instance();
}

Q_DECL_EXPORT void* sharedSingleton()
{
    return NSharedSingleton::instance();
}

Q_DECL_EXPORT const void* sharedInstanceMember()
{
    return Members::instance();
}

Q_DECL_EXPORT const void* sharedMutex()
{
    return Members::mutex();
}
}
