#include "support/nmessagerecorder.h"

#include <QtCore/QtGlobal>

namespace {

QStringList recorded;

void record(QtMsgType type, const QString& message)
{
    const char* kind = "debug: ";
    if (type == QtWarningMsg)
        kind = "warning: ";
    else if (type != QtDebugMsg)
        kind = "critical: ";
    recorded.append(QString::fromLatin1(kind) + message);
}

#if QT_VERSION >= 0x050000
QtMessageHandler previousHandler;

void recordMessage(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    record(type, message);
}

void install()
{
    previousHandler = qInstallMessageHandler(recordMessage);
}

void restore()
{
    qInstallMessageHandler(previousHandler);
}
#else
QtMsgHandler previousHandler;

void recordMessage(QtMsgType type, const char* message)
{
    record(type, QString::fromUtf8(message));
}

void install()
{
    previousHandler = qInstallMsgHandler(recordMessage);
}

void restore()
{
    qInstallMsgHandler(previousHandler);
}
#endif

} // namespace

NMessageRecorder::NMessageRecorder()
{
    recorded.clear();
    install();
}

NMessageRecorder::~NMessageRecorder()
{
    restore();
}

QStringList NMessageRecorder::messages() const
{
    return recorded;
}

QStringList NMessageRecorder::take()
{
    const QStringList messages = recorded;
    recorded.clear();
    return messages;
}
