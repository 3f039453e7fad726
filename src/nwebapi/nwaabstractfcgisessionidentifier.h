#ifndef NWEBAPI_NWAABSTRACTFCGISESSIONIDENTIFIER_H
#define NWEBAPI_NWAABSTRACTFCGISESSIONIDENTIFIER_H

#include <nwebapi/nwaglobal.h>

class NwaFcgiRequest;
class NwaWebSession;

/** Finds the session that a request belongs to. */
class NWEBAPI_EXPORT NwaAbstractFcgiSessionIdentifier
{
public:
    virtual ~NwaAbstractFcgiSessionIdentifier();

    /**
     * The session of @a request, or null when it has none that is alive.
     * @param passive whether the request does not count as activity, so that the session's idle time continues.
     */
    virtual NwaWebSession* identifySession(NwaFcgiRequest* request, bool passive) = 0;
};

#endif
