#include <nwebapi/nwawebsession.h>

NwaWebSession::NwaWebSession(const QUuid& id)
    : m_id(id)
    , m_lastActivity(0)
    , m_isEnding(false)
{
}

QUuid NwaWebSession::id() const
{
    return m_id;
}

QString NwaWebSession::userName() const
{
    return m_userName;
}

void NwaWebSession::setUserName(const QString& userName)
{
    m_userName = userName;
}
