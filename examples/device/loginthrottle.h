#ifndef DEMODEVICE_LOGINTHROTTLE_H
#define DEMODEVICE_LOGINTHROTTLE_H

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QString>

/**
 * Decides how long a login waits before its password is compared. Each wrong password doubles the time for the
 * next logins from the same address; other addresses do not wait. The right password waits as well, so that
 * guessing on several connections gains nothing. All times are measured by a clock that setting the time does not
 * move.
 */
class LoginThrottle
{
public:
    enum Limit {
        FirstDelay = 500,                ///< milliseconds, after one wrong password
        LongestDelay = 8000,             ///< milliseconds
        MaximumWaitingCount = 4,         ///< logins from one address that wait at once
        MaximumTotalWaitingCount = 200,  ///< the same for all addresses together
        MemoryDuration = 15 * 60 * 1000, ///< milliseconds after which wrong passwords are forgotten
        MaximumAddressCount = 1000       ///< beyond it, the address that failed longest ago is forgotten
    };

    LoginThrottle();

    /**
     * Registers a login from @a address that is about to wait.
     * @return the milliseconds that it has to wait; -1 when too many wait already, and it must be refused.
     */
    int begin(const QString& address);

    /**
     * Registers the result of a login that has waited.
     * @return the number of wrong passwords in a row from @a address.
     */
    int end(const QString& address, bool succeeded);

private:
    struct History
    {
        History()
            : failures(0)
            , waiting(0)
            , lastFailure(0)
        {
        }

        int failures;
        int waiting;
        qint64 lastFailure;
    };

    void forgetOldestAddress();

    QHash<QString, History> m_histories;
    QElapsedTimer m_clock;
    int m_waiting;
};

#endif
