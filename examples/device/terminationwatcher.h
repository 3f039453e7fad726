#ifndef DEMODEVICE_TERMINATIONWATCHER_H
#define DEMODEVICE_TERMINATIONWATCHER_H

#include <QtCore/QObject>

/**
 * Tells through the event loop that the process is asked to end, by SIGTERM or SIGINT (see signalfd(2)), so that
 * it can close its socket and its log in order.
 */
class TerminationWatcher : public QObject
{
    Q_OBJECT

public:
    explicit TerminationWatcher(QObject* parent);
    virtual ~TerminationWatcher();

signals:
    void terminationRequested();

private:
    Q_DISABLE_COPY(TerminationWatcher)

    int m_descriptor;
};

#endif
