#ifndef NBASE_TESTS_NMESSAGERECORDER_H
#define NBASE_TESTS_NMESSAGERECORDER_H

#include <QtCore/QStringList>

/**
 * Keeps all of Qt's messages that are written during its scope, instead of printing them. There is one at a time;
 * the handler before it comes back at the end.
 */
class NMessageRecorder
{
public:
    NMessageRecorder();
    ~NMessageRecorder();

    /** The messages so far, each behind its kind: "debug: ", "warning: " or "critical: ". */
    QStringList messages() const;

    /** Forgets the messages so far and returns them. */
    QStringList take();

private:
    Q_DISABLE_COPY(NMessageRecorder)
};

#endif
