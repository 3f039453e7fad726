#include <nwebapi/nwafcgilimits.h>

NwaFcgiLimits::NwaFcgiLimits()
    : connectionCount(256)
    , variablesSize(64 * 1024)
    , querySize(16 * 1024)
    , bodySize(1024 * 1024)
    , streamedBodyBuffer(64 * 1024)
    , replyBuffer(16 * 1024 * 1024)
    , bufferedSize(16 * 1024 * 1024)
    , stallTimeout(30)
{
}
