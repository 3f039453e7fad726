#ifndef NGPIO_LINESESSION_H
#define NGPIO_LINESESSION_H

#include "commandline.h"

#include <QtCore/QList>
#include <QtCore/QObject>

/** Reads, watches or drives the lines that the command line names, and prints their states. */
class LineSession : public QObject
{
    Q_OBJECT

public:
    explicit LineSession(const CommandLine& commandLine);

    /** Emits finished() from the event loop at the end. */
    void start();

    /** What has failed; empty for nothing. */
    QByteArray errorText() const;

public slots:
    /** Ends the session. The lines are released when the object is destroyed. */
    void finish();

signals:
    void finished();

private slots:
    void printInput();
    void printOutput();

private:
    Q_DISABLE_COPY(LineSession)

    void addInput(const CommandLine::Line& line);
    void addOutput(const CommandLine::Line& line);
    void print(const QByteArray& text);
    void checkValidity(const QObject& line, bool isValid, const QString& reason);

    const CommandLine m_commandLine;
    QList<GpioInput*> m_inputs;
    QList<GpioOutput*> m_outputs;
    int m_changes;
    bool m_isFinished;
    QByteArray m_errorText;
};

#endif
