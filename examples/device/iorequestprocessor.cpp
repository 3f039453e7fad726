#include "iorequestprocessor.h"

#include "ioboard.h"

#include <nwebapi/nwajsonutilities.h>

#include <QtCore/QStringList>

namespace {

QString ioText(const char* text)
{
    return QString::fromLatin1(text);
}

template <typename Point> QVariantMap pointToVariant(const Point* point)
{
    QVariantMap object;
    object.insert(ioText("name"), point->name());
    object.insert(ioText("valid"), point->isValid());
    object.insert(ioText("level"), point->rawState());
    object.insert(ioText("active"), point->isActive());
    object.insert(ioText("polarity"), ioText(point->polarity() == Point::PolarityNc ? "NC" : "NO"));
    return object;
}

bool isPolarity(const QVariant& value)
{
    QString text;
    return NwaJsonUtilities::stringValue(value, text) &&
           (text == QLatin1String("NO") || text == QLatin1String("NC"));
}

// Whether @a change has a polarity or some of @a booleans, and nothing else.
bool isChange(const QVariantMap& change, const QStringList& booleans)
{
    for (QVariantMap::const_iterator member = change.constBegin(); member != change.constEnd(); ++member) {
        bool value = false;
        const bool isValid =
            member.key() == QLatin1String("polarity")
                ? isPolarity(member.value())
                : booleans.contains(member.key()) && NwaJsonUtilities::booleanValue(change, member.key(), value);
        if (!isValid)
            return false;
    }
    return !change.isEmpty();
}

template <typename Point> void applyPolarity(const QVariantMap& change, IoBoard* board, Point* point)
{
    const QString text = change.value(ioText("polarity")).toString();
    if (!text.isEmpty())
        board->setPolarity(point, text == QLatin1String("NC") ? Point::PolarityNc : Point::PolarityNo);
}

} // namespace

IoRequestProcessor::IoRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, IoBoard* board)
    : ExplainingRequestProcessor(identifier)
    , m_board(board)
{
    setServedMethods(GetMethod | PutMethod);
}

QVariantMap IoRequestProcessor::document(const IoBoard& board)
{
    QVariantList inputs;
    for (const SimulatedInput* input : board.inputs()) {
        QVariantMap object = pointToVariant(input);
        const SimulatedOutput* const output = board.outputWiredTo(input);
        object.insert(ioText("wiredTo"), output ? QVariant(output->name()) : QVariant());
        inputs.append(object);
    }
    QVariantList outputs;
    for (const SimulatedOutput* output : board.outputs())
        outputs.append(pointToVariant(output));
    QVariantMap document;
    document.insert(ioText("number"), board.number());
    document.insert(ioText("inputs"), inputs);
    document.insert(ioText("outputs"), outputs);
    return document;
}

void IoRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    const bool isPassive = request->queryParameters().contains(ioText("passive"));
    if (requireSession(request, isPassive ? PassiveRequest : ActiveRequest))
        sendJsonReply(request, document(*m_board));
}

void IoRequestProcessor::processPutMethod(NwaFcgiRequest* request)
{
    QVariant content;
    if (!requireSession(request) || !requireJsonContent(request, content))
        return;
    QString name;
    if (!request->singleQueryParameter(ioText("name"), name))
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            ioText("Name one input or output, for example \"?name=Input%201\"."));
    SimulatedInput* const input = m_board->input(name);
    SimulatedOutput* const output = m_board->output(name);
    if (!input && !output)
        return refuse(request, NwaFcgiRequest::NotFound, ioText("There is no input or output of this name."));

    QVariantMap change; // empty, which is refused, when the content is no object
    NwaJsonUtilities::objectValue(content, change);
    if (input)
        changeInput(request, input, change);
    else
        changeOutput(request, output, change);
}

void IoRequestProcessor::changeInput(NwaFcgiRequest* request, SimulatedInput* input, const QVariantMap& change)
{
    const QString level = ioText("level");
    const QString valid = ioText("valid");
    if (!isChange(change, QStringList() << level << valid))
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            ioText("Of an input, the \"polarity\" (\"NO\" or \"NC\"), the \"level\" and \"valid\" (true or "
                   "false) can be changed."));
    const SimulatedOutput* const output = m_board->outputWiredTo(input);
    if (output && change.contains(level))
        return refuse(
            request, NwaFcgiRequest::Conflict,
            ioText("%1 follows %2, which is wired to it: switch that instead.")
                .arg(input->name(), output->name()));

    applyPolarity(change, m_board, input);
    input->setLevel(change.value(level, input->rawState()).toBool());
    input->setValid(change.value(valid, input->isValid()).toBool());
    sendJsonReply(request, document(*m_board));
}

void IoRequestProcessor::changeOutput(NwaFcgiRequest* request, SimulatedOutput* output, const QVariantMap& change)
{
    const QString active = ioText("active");
    if (!isChange(change, QStringList() << active))
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            ioText("Of an output, the \"polarity\" (\"NO\" or \"NC\") and \"active\" (true or false) can be "
                   "changed."));

    applyPolarity(change, m_board, output);
    if (change.contains(active))
        output->setActive(change.value(active).toBool());
    sendJsonReply(request, document(*m_board));
}
