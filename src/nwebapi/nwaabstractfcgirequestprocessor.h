#ifndef NWEBAPI_NWAABSTRACTFCGIREQUESTPROCESSOR_H
#define NWEBAPI_NWAABSTRACTFCGIREQUESTPROCESSOR_H

#include <nwebapi/nwaglobal.h>
#include <nwebapi/nwajson.h>

#include <QtCore/QString>
#include <QtCore/QVariant>

class NwaFcgiRequest;

/** Answers the requests to a service. */
class NWEBAPI_EXPORT NwaAbstractFcgiRequestProcessor
{
public:
    virtual ~NwaAbstractFcgiRequestProcessor();

    /** Answers @a request, now or later, and deletes it. */
    virtual void processRequest(NwaFcgiRequest* request) = 0;

protected:
    /**
     * The media type of the body of @a request in lower case and without parameters, for example
     * "application/json"; a null string when the request names none.
     */
    static QString parseContentType(NwaFcgiRequest* request);

    /**
     * Reads the body of @a request as a JSON document (see NwaJson). Every content type is accepted except a form
     * in parts ("multipart/..."), whose body may not have arrived yet.
     * @param ok set to whether that succeeded; may be null. On failure the request has been answered (400, or 415
     * for a form) and must still be deleted.
     * @param maximumDepth how deep arrays and objects may be nested.
     * @param maximumValueCount how many values the document may have.
     * @return the document's value, an invalid one on failure.
     */
    static QVariant parseJsonContent(
        NwaFcgiRequest* request, bool* ok, int maximumDepth = NwaJson::DefaultMaximumDepth,
        int maximumValueCount = NwaJson::DefaultMaximumValueCount);
};

#endif
