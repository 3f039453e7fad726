#ifndef NWEBAPI_NWAWEBSESSION_H
#define NWEBAPI_NWAWEBSESSION_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QString>
#include <QtCore/QUuid>

#include <list>

/** The session of a user between login and logout. Created and owned by NwaWebSessionManager. */
class NWEBAPI_EXPORT NwaWebSession
{
public:
    /** The session's identifier, by which its client is recognised; it must stay secret. */
    QUuid id() const;

    /** The name of the user who has logged in; empty until it is set. */
    QString userName() const;

    /** Sets the user's name; the caller has checked the credentials. */
    void setUserName(const QString& userName);

private:
    friend class NwaWebSessionManager;
    Q_DISABLE_COPY(NwaWebSession)

    explicit NwaWebSession(const QUuid& id);

    QUuid m_id;
    QString m_userName;
    qint64 m_lastActivity; ///< milliseconds on the manager's clock
    bool m_isEnding;       ///< its end is being announced; it is no longer in the manager's order
    std::list<NwaWebSession*>::iterator m_position;
};

#endif
