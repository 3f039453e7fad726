#ifndef NSERIAL_STANDARDINPUT_H
#define NSERIAL_STANDARDINPUT_H

#include "dataformat.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

/** The standard input as bytes to be sent: as they are, or a line at a time in another format. */
class StandardInput : public QObject
{
    Q_OBJECT

public:
    explicit StandardInput(DataFormat format);

    /** Reads the next piece. The event loop emits one of the signals. */
    void readMore();

    void stop();

signals:
    /** @a bytes, which may be empty, have been read. */
    void read(const QByteArray& bytes);

    void ended();

    void failed(const QByteArray& reason);

private slots:
    void readPiece();

private:
    Q_DISABLE_COPY(StandardInput)

    void emitLines(const QByteArray& piece);

    DataFormat m_format;
    QByteArray m_beginOfLine;
    QSocketNotifier m_notifier;
};

#endif
