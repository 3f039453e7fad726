#ifndef DEMODEVICE_LOGINREQUESTPROCESSOR_H
#define DEMODEVICE_LOGINREQUESTPROCESSOR_H

#include "loginthrottle.h"
#include "sessionrequestprocessor.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QMultiMap>
#include <QtCore/QObject>
#include <QtCore/QTimer>

/**
 * POST with {"user": ..., "password": ...} makes a session, whose cookie the reply carries; wrong credentials are
 * answered 401 and logged. A real device would compare with a stored, salted hash; here both are public.
 *
 * After a wrong password further logins from the same address wait, see LoginThrottle. Those beyond its limits are
 * answered 429 with {"message": ...}. Nothing else waits with them.
 */
class LoginRequestProcessor : public QObject, public SessionRequestProcessor
{
    Q_OBJECT

public:
    /** Both must live longer. */
    LoginRequestProcessor(NwaCookieFcgiSessionIdentifier* identifier, NwaWebSessionManager* sessions);

    /** Refuses the logins that wait. */
    ~LoginRequestProcessor() override;

protected:
    void processPostMethod(NwaFcgiRequest* request) override;

private slots:
    void finishDueLogins();

private:
    Q_DISABLE_COPY(LoginRequestProcessor)

    struct Login
    {
        NwaFcgiRequest* request;
        QString address;
        QString user;
        QString password;
    };

    static void refuseForNow(NwaFcgiRequest* request);
    void startTimer();
    void finish(const Login& login);
    void acceptLogin(const Login& login);

    LoginThrottle m_throttle;
    QMultiMap<qint64, Login> m_waiting; ///< by the time of m_clock when they are due
    QElapsedTimer m_clock;
    QTimer m_timer;
};

#endif
