#ifndef DEMODEVICE_TERMINATIONWATCHER_H
#define DEMODEVICE_TERMINATIONWATCHER_H

#include <QtCore/QObject>

/**
 * Tells through the event loop that the process is asked to end, by SIGTERM or SIGINT, so that it can close its
 * socket and its log in order. It handles the signals and does not block them: a program that the device starts
 * would inherit that, and could not be ended. A process has one watcher at most.
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
