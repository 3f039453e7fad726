#include "nsharedsingleton.h"

#include <nbase/time/neventplannersingleton.h>

// A library that uses both singletons through their headers.

namespace {

// Gives access to the protected members.
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
