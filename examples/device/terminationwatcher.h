#ifndef DEMODEVICE_TERMINATIONWATCHER_H
#define DEMODEVICE_TERMINATIONWATCHER_H

#include <QtCore/QObject>

/**
 * Reports SIGTERM and SIGINT through the event loop, so that the process can close its socket and its log in
 * order. The signals are handled, not blocked: a program that the device starts would inherit the mask and could
 * not be terminated. A process has one watcher at most.
 */
class TerminationWatcher : public QObject
{
    Q_OBJECT

public:
    explicit TerminationWatcher(QObject* parent);
    ~TerminationWatcher() override;

signals:
    void terminationRequested();

private:
    Q_DISABLE_COPY(TerminationWatcher)

    int m_readEnd;
};

#endif
