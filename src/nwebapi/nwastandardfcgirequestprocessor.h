#ifndef NWEBAPI_NWASTANDARDFCGIREQUESTPROCESSOR_H
#define NWEBAPI_NWASTANDARDFCGIREQUESTPROCESSOR_H

#include <nwebapi/nwaabstractfcgirequestprocessor.h>
#include <nwebapi/nwafcgirequest.h>

#include <QtCore/QStringList>

class NwaAbstractFcgiSessionIdentifier;
class NwaHttpJsonHeader;
class NwaWebSession;

/**
 * Answers the requests to one resource with an operation for each HTTP method. A derived class overrides the
 * operations of the methods that it serves and names them with setServedMethods().
 *
 * Each operation owns its request and deletes it when it has answered. The require operations and refuseRequest()
 * do both when the request cannot be served, and sendJsonReply() when it was, so that a handler reads:
 *
 *     NwaWebSession* const session = requireSession(request, this, &Processor::canChangeWithSession);
 *     if (!session)
 *         return;
 *     QVariant document;
 *     if (!requireJsonContent(request, document))
 *         return;
 *     if (!change(document))
 *         return refuseRequest(request, NwaFcgiRequest::BadRequest, QString::fromLatin1("..."));
 *     sendJsonReply(request, state());
 *
 * A long reply, or one whose parts become available later, is sent with NwaStreamedReply.
 *
 * A request that changes something (any method but GET, HEAD and OPTIONS) is refused with 403 when its "Origin" is
 * not the host that it was sent to (RFC 6454), or its "Sec-Fetch-Site" is "cross-site" (W3C Fetch Metadata):
 * a page of another site sent it with the user's cookie.
 */
class NWEBAPI_EXPORT NwaStandardFcgiRequestProcessor : public NwaAbstractFcgiRequestProcessor
{
public:
    /** Methods that the field "Allow" names; GET includes HEAD. */
    enum Method { GetMethod = 1, PostMethod = 2, PutMethod = 4, DeleteMethod = 8 };

    /** Any combination of Method. */
    Q_DECLARE_FLAGS(Methods, Method)

    /** Whether a request counts as an activity of the user, which keeps the session from expiring. */
    enum Activity {
        ActiveRequest, ///< it does
        PassiveRequest ///< it does not, for example because a page sends it as a poll
    };

    /** @param identifier finds the session of a request; not owned. May be null when no request needs one. */
    explicit NwaStandardFcgiRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier);
    ~NwaStandardFcgiRequestProcessor() override;

    /**
     * Passes @a request to the operation of its HTTP method. HEAD is answered like GET, without the document.
     */
    void processRequest(NwaFcgiRequest* request) override;

protected:
    /**
     * @{
     * Answers @a request and deletes it, now or later. Without an override the method is refused, see
     * processNotAllowedMethod().
     */
    virtual void processGetMethod(NwaFcgiRequest* request);
    virtual void processPostMethod(NwaFcgiRequest* request);
    virtual void processPutMethod(NwaFcgiRequest* request);
    virtual void processDeleteMethod(NwaFcgiRequest* request);
    /** @} */

    /** The same for every @a method without an operation of its own, including OPTIONS. */
    virtual void processOtherMethod(NwaFcgiRequest* request, const QString& method);

    /** Sets the methods that the resource serves, for the field "Allow"; GET alone by default. */
    void setServedMethods(Methods methods);

    /**
     * The session of @a request.
     * @param passive whether the request does not keep the session from expiring.
     * @return null when the request has no session that is alive; it has been answered with 401 then and must
     * still be deleted.
     */
    NwaWebSession* authenticateRequest(NwaFcgiRequest* request, bool passive);

    /**
     * The session of @a request.
     * @return null when the request has no session that is alive; it has been answered with 401 and deleted then.
     */
    NwaWebSession* requireSession(NwaFcgiRequest* request, Activity activity = ActiveRequest);

    /**
     * The session of @a request, if its user has the right to make it.
     * @param mayUse the access predicate, an operation of @a object (usually of this processor); it may be
     * virtual.
     * @return null when the request has no session that is alive, or none with the right; it has been answered
     * with 401 or 403 and deleted then.
     */
    template <typename Object, typename Class, typename Session>
    NwaWebSession* requireSession(
        NwaFcgiRequest* request, const Object* object, bool (Class::*mayUse)(Session*) const,
        Activity activity = ActiveRequest)
    {
        NwaWebSession* const session = requireSession(request, activity);
        if (!session || (object->*mayUse)(session))
            return session;
        refuseRequest(request, NwaFcgiRequest::Forbidden);
        return nullptr;
    }

    /**
     * Reads the body of @a request as a JSON document, as parseJsonContent() does.
     * @param document set to the document's value.
     * @return whether that succeeded; on failure the request has been answered with 400 or 415 and deleted.
     */
    static bool requireJsonContent(
        NwaFcgiRequest* request, QVariant& document, int maximumDepth = NwaJson::DefaultMaximumDepth,
        int maximumValueCount = NwaJson::DefaultMaximumValueCount);

    /** Answers @a request with 405 and the served methods in "Allow", and deletes it. */
    void processNotAllowedMethod(NwaFcgiRequest* request);

    /**
     * @{
     * Answers @a request with @a error and deletes it. With a reason, writes it to the error stream first, see
     * writeRefusal().
     */
    static void refuseRequest(NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error);
    static void
    refuseRequest(NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& reason);
    static void refuseRequest(
        NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& reason,
        const QString& third);
    static void refuseRequest(
        NwaFcgiRequest* request, NwaFcgiRequest::StandardHttpError error, const QString& reason,
        const QString& third, const QString& fourth);
    /** @} */

    /**
     * @{
     * Writes to the error stream of @a request why it is refused: "Error in request processor for request to
     * script "%1" with path info "%2": " and @a reason, in which %3 and %4 stand for the next arguments. It is
     * written in Latin-1, without a line end; characters beyond Latin-1 become "?". All placeholders are filled in
     * one pass, and control characters in what the client sent are made visible (see NwaLogText).
     */
    static void writeRefusal(NwaFcgiRequest* request, const QString& reason);
    static void writeRefusal(NwaFcgiRequest* request, const QString& reason, const QString& third);
    static void
    writeRefusal(NwaFcgiRequest* request, const QString& reason, const QString& third, const QString& fourth);
    /** @} */

    /**
     * @{
     * Answers @a request with @a document as JSON in UTF-8, and deletes it. A header, which must announce UTF-8,
     * gives the reply a status or fields of its own.
     */
    static void sendJsonReply(NwaFcgiRequest* request, const QVariant& document);
    static void sendJsonReply(NwaFcgiRequest* request, const QVariant& document, const NwaHttpJsonHeader& header);
    /** @} */

    /** Answers @a request with @a document, which is JSON in UTF-8 already, and deletes it. */
    static void sendJsonDocument(NwaFcgiRequest* request, const QByteArray& document);

private:
    Q_DISABLE_COPY(NwaStandardFcgiRequestProcessor)

    NwaAbstractFcgiSessionIdentifier* m_identifier;
    Methods m_servedMethods;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(NwaStandardFcgiRequestProcessor::Methods)

#endif
