#ifndef NBASE_TIME_NSINGLETON_H
#define NBASE_TIME_NSINGLETON_H

// NSingleton is not specific to time. Applications may include it by this path as well.
#include <nbase/core/nsingleton.h>

#endif
