#include <nwebapi/nwajsonbackend_p.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

QByteArray NwaJsonBackend::serialize(const QVariantList& list)
{
    return QJsonDocument(QJsonArray::fromVariantList(list)).toJson(QJsonDocument::Compact);
}

QVariantList NwaJsonBackend::parse(const QByteArray& text, bool* ok)
{
    const QJsonDocument document = QJsonDocument::fromJson(text);
    *ok = document.isArray();
    return document.array().toVariantList();
}
