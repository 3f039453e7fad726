#ifndef NBASE_TESTS_NMESSAGERECORDER_H
#define NBASE_TESTS_NMESSAGERECORDER_H

#include <QtCore/QStringList>

/**
 * Records Qt's messages during its scope instead of printing them. There can be only one at a time; the previous
 * handler is restored at the end.
 */
class NMessageRecorder
{
public:
    NMessageRecorder();
    ~NMessageRecorder();

    /** The recorded messages, each after its kind: "debug: ", "warning: " or "critical: ". */
    QStringList messages() const;

    /** Returns the recorded messages and removes them. */
    QStringList take();

private:
    Q_DISABLE_COPY(NMessageRecorder)
};

#endif
