#ifndef NBASE_TESTS_NCLOSERECEIVER_H
#define NBASE_TESTS_NCLOSERECEIVER_H

#include <QtCore/QIODevice>

#include <functional>

/** Runs a function when a port is about to close, which its destructor does before anything else. */
class NCloseReceiver : public QObject
{
    Q_OBJECT

public:
    NCloseReceiver(QIODevice* port, const std::function<void()>& function)
        : m_function(function)
    {
        connect(port, SIGNAL(aboutToClose()), SLOT(aboutToClose()));
    }

private slots:
    void aboutToClose() { m_function(); }

private:
    Q_DISABLE_COPY(NCloseReceiver)

    std::function<void()> m_function;
};

#endif
