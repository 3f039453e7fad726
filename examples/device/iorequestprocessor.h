#ifndef DEMODEVICE_IOREQUESTPROCESSOR_H
#define DEMODEVICE_IOREQUESTPROCESSOR_H

#include "explainingrequestprocessor.h"

#include <QtCore/QVariant>

class IoBoard;
class SimulatedInput;
class SimulatedOutput;

/**
 * Serves the inputs and outputs.
 *
 * - GET answers
 *
 *       {"number": 7,
 *        "inputs": [{"name": "Input 1", "valid": true, "level": false, "active": true, "polarity": "NC",
 *                    "wiredTo": "Output 1"}],
 *        "outputs": [{"name": "Output 1", "valid": true, "level": false, "active": false, "polarity": "NO"}]}
 *
 *   with true for a high level, "NO" for normally open and "NC" for normally closed. Of two documents, the one
 * with the greater number is newer. The level of an input that is not valid is that of its contact, which the
 * input cannot read; "wiredTo" is the output that the level of the input follows, or null. "?passive=yes" is for a
 * page that asks by itself: it does not keep the session alive.
 * - PUT changes what "?name=" names and answers like GET. The body has one or more of "polarity", "level" and
 * "valid" for an input, as a stand-in for its contact and the wire to it, and of "polarity" and "active" for an
 * output, whose new polarity applies to the new state. The level of an input that follows an output cannot be
 * changed: 409.
 *
 * A refusal changes nothing and is a document as well: {"message": ...}, for a person to read.
 */
class IoRequestProcessor : public ExplainingRequestProcessor
{
public:
    /** Both must live longer. */
    IoRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, IoBoard* board);

    /** The document that GET answers. */
    static QVariantMap document(const IoBoard& board);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;
    void processPutMethod(NwaFcgiRequest* request) override;

private:
    void changeInput(NwaFcgiRequest* request, SimulatedInput* input, const QVariantMap& change);
    void changeOutput(NwaFcgiRequest* request, SimulatedOutput* output, const QVariantMap& change);

    IoBoard* m_board;
};

#endif
