#ifndef NBASE_NBASEQTCOMPAT_P_H
#define NBASE_NBASEQTCOMPAT_P_H

#include <QtCore/QFile>
#include <QtCore/QString>
#include <QtCore/QTextStream>
#include <QtCore/QTimer>
#include <QtCore/QtGlobal>
#include <QtSql/QSqlError>

/** Where Qt 4.8 and Qt 5.15 differ for this library: one meaning, written for each of the two. */
namespace NBaseQtCompat {

/** A message handler as Qt 4 knows it: the bytes are those that were given to qDebug() and its siblings. */
typedef void (*MessageHandler)(QtMsgType type, const char* message);

#if QT_VERSION >= 0x050000

/** Qt 5 has decoded a message's bytes as UTF-8; encoding it again gives the handler what was written. */
template <MessageHandler handler>
void passMessageOn(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    handler(type, message.toUtf8().constData());
}

#endif

/** Makes @a handler receive all of Qt's messages from now on; the handler before it is forgotten. */
template <MessageHandler handler> void installMessageHandler()
{
#if QT_VERSION >= 0x050000
    qInstallMessageHandler(passMessageOn<handler>);
#else
    qInstallMsgHandler(handler);
#endif
}

/** What the symbolic link @a path points to, as an absolute path; an empty text when it is no symbolic link. */
inline QString symbolicLinkTarget(const QString& path)
{
#if QT_VERSION >= 0x050D00
    return QFile::symLinkTarget(path);
#else
    return QFile::readLink(path);
#endif
}

/** Makes @a timer time out to the millisecond, as all timers of Qt 4 do; Qt 5 allows itself 5 % by default. */
inline void makePrecise(QTimer* timer)
{
#if QT_VERSION >= 0x050000
    timer->setTimerType(Qt::PreciseTimer);
#else
    Q_UNUSED(timer);
#endif
}

/** The number that the database gives an error; -1 when it gives none. */
inline int sqlErrorNumber(const QSqlError& error)
{
#if QT_VERSION >= 0x050300
    bool isNumber = false;
    const int number = error.nativeErrorCode().toInt(&isNumber);
    return isNumber ? number : -1;
#else
    return error.number();
#endif
}

/** Reads a line of @a stream into @a line, whose memory Qt 5 uses again. @return whether there was one. */
inline bool readLine(QTextStream& stream, QString& line)
{
#if QT_VERSION >= 0x050500
    return stream.readLineInto(&line);
#else
    line = stream.readLine();
    return !line.isNull();
#endif
}

/** Makes @a text what @a size bytes at @a latin1 say; Qt 5 uses its memory again. */
inline void assignLatin1(QString& text, const char* latin1, int size)
{
#if QT_VERSION >= 0x050000
    text = QLatin1String(latin1, size);
#else
    text = QString::fromLatin1(latin1, size);
#endif
}

} // namespace NBaseQtCompat

#endif
