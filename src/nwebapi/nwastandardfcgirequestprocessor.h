#ifndef NWEBAPI_NWASTANDARDFCGIREQUESTPROCESSOR_H
#define NWEBAPI_NWASTANDARDFCGIREQUESTPROCESSOR_H

#include <nwebapi/nwaabstractfcgirequestprocessor.h>

#include <QtCore/QStringList>

class NwaAbstractFcgiSessionIdentifier;
class NwaWebSession;

/**
 * Answers the requests to one resource with an operation for each HTTP method. A derived class overrides the
 * operations of the methods that it serves and names them with setServedMethods().
 *
 * A request that changes something (any method but GET, HEAD and OPTIONS) and whose "Origin" is not the host that
 * it was sent to is refused with 403: another site's page sent it with the user's cookie.
 */
class NWEBAPI_EXPORT NwaStandardFcgiRequestProcessor : public NwaAbstractFcgiRequestProcessor
{
public:
    /** The methods that an "Allow" field names; HEAD comes with GET. */
    enum Method { GetMethod = 1, PostMethod = 2, PutMethod = 4, DeleteMethod = 8 };

    /** Any combination of Method. */
    Q_DECLARE_FLAGS(Methods, Method)

    /** @param identifier finds the session of a request; not owned. May be null where nothing needs a session. */
    explicit NwaStandardFcgiRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier);
    ~NwaStandardFcgiRequestProcessor() override;

    /**
     * Hands @a request to the operation of its HTTP method. HEAD is answered as GET is, without the document.
     */
    void processRequest(NwaFcgiRequest* request) override;

protected:
    /**
     * @{
     * Answers @a request, whose method is the one in the operation's name, and deletes it, now or later. Without
     * an override the method is refused, see processNotAllowedMethod().
     */
    virtual void processGetMethod(NwaFcgiRequest* request);
    virtual void processPostMethod(NwaFcgiRequest* request);
    virtual void processPutMethod(NwaFcgiRequest* request);
    virtual void processDeleteMethod(NwaFcgiRequest* request);
    /** @} */

    /** The same for every @a method that has no operation of its own, OPTIONS among them. */
    virtual void processOtherMethod(NwaFcgiRequest* request, const QString& method);

    /** Says which methods the resource serves; GET alone when it is never called. */
    void setServedMethods(Methods methods);

    /**
     * Finds the session of @a request.
     * @param passive the request is not the user's doing (a page that polls by itself, for example), so it does
     * not keep the session from expiring.
     * @return the session, or null when the request has none that is alive; it has then been answered with 401
     * already, and is still to be deleted.
     */
    NwaWebSession* authenticateRequest(NwaFcgiRequest* request, bool passive);

    /** Answers @a request with 405 and the served methods in "Allow", and deletes it. */
    void processNotAllowedMethod(NwaFcgiRequest* request);

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

    /** Answers @a request with @a document as JSON in UTF-8, and deletes it. */
    static void sendJsonReply(NwaFcgiRequest* request, const QVariant& document);

    /** Answers @a request with @a document, which is JSON in UTF-8 already, and deletes it. */
    static void sendJsonDocument(NwaFcgiRequest* request, const QByteArray& document);

private:
    Q_DISABLE_COPY(NwaStandardFcgiRequestProcessor)

    NwaAbstractFcgiSessionIdentifier* m_identifier;
    Methods m_servedMethods;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(NwaStandardFcgiRequestProcessor::Methods)

#endif
