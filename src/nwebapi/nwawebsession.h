#ifndef NWEBAPI_NWAWEBSESSION_H
#define NWEBAPI_NWAWEBSESSION_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QString>
#include <QtCore/QUuid>

#include <list>

/** The time a user spends with the device between logging in and logging out. Made and owned by
 * NwaWebSessionManager. */
class NWEBAPI_EXPORT NwaWebSession
{
public:
    /** The session's identifier, by which its client is recognised: nobody else may learn it. */
    QUuid id() const;

    /** The name of the user who logged in; empty until it is set. */
    QString userName() const;

    /** Notes who logged in. Whether the user may do so is the caller's to check before. */
    void setUserName(const QString& userName);

private:
    friend class NwaWebSessionManager;
    Q_DISABLE_COPY(NwaWebSession)

    explicit NwaWebSession(const QUuid& id);

    QUuid m_id;
    QString m_userName;
    qint64 m_lastActivity; ///< milliseconds on the manager's clock
    bool m_isEnding;       ///< its end is being announced; it is in the manager's order no more
    std::list<NwaWebSession*>::iterator m_position;
};

#endif
