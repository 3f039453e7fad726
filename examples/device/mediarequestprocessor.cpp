#include "mediarequestprocessor.h"

#include <nbase/device/nremovablemedia.h>
#include <nbase/device/nremovablemediaslist.h>

namespace {

void insertSizes(const NRemovableMedia& media, QVariantMap& object)
{
    const quint64 size = media.capacity();
    const quint64 used = qMin(media.usedBytes(), size);
    const bool isKnown = size > 0;
    object.insert(QString::fromLatin1("size"), isKnown ? QVariant(size) : QVariant());
    object.insert(QString::fromLatin1("used"), isKnown ? QVariant(used) : QVariant());
    object.insert(QString::fromLatin1("free"), isKnown ? QVariant(size - used) : QVariant());
}

QVariantMap mediumToVariant(const NRemovableMedia& media)
{
    QVariantMap object;
    object.insert(QString::fromLatin1("name"), media.deviceName());
    object.insert(QString::fromLatin1("label"), media.label());
    object.insert(QString::fromLatin1("type"), NRemovableMedia::mediaTypes().value(media.mediaType()));
    object.insert(QString::fromLatin1("readOnly"), media.readOnly());
    insertSizes(media, object);
    return object;
}

} // namespace

MediaRequestProcessor::MediaRequestProcessor(
    NwaAbstractFcgiSessionIdentifier* identifier, const NRemovableMediasList* medias)
    : NwaStandardFcgiRequestProcessor(identifier)
    , m_medias(medias)
{
}

QVariantList MediaRequestProcessor::toVariant(const NRemovableMediasList& medias)
{
    const QHash<QString, NRemovableMedia*>& present = medias.removableMedias();
    QStringList names = present.keys();
    names.sort();
    QVariantList list;
    for (const QString& name : names)
        list.append(mediumToVariant(*present.value(name)));
    return list;
}

void MediaRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    if (requireSession(request, PassiveRequest))
        sendJsonReply(request, toVariant(*m_medias));
}
