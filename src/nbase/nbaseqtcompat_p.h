#ifndef NBASE_NBASEQTCOMPAT_P_H
#define NBASE_NBASEQTCOMPAT_P_H

#include <QtCore/QFile>
#include <QtCore/QLocale>
#include <QtCore/QString>
#include <QtCore/QTextStream>
#include <QtCore/QTimer>
#include <QtCore/QtGlobal>
#include <QtNetwork/QHostAddress>
#include <QtSql/QSqlError>

/** The differences between Qt 4.8 and Qt 5.15 that this library meets: one operation, implemented for each. */
namespace NBaseQtCompat {

/** A message handler of Qt 4: it gets the bytes that were passed to qDebug(), qWarning() and so on. */
typedef void (*MessageHandler)(QtMsgType type, const char* message);

#if QT_VERSION >= 0x050000

/** Qt 5 has decoded the message as UTF-8; encoding it again restores the original bytes. */
template <MessageHandler handler>
void forwardMessage(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    handler(type, message.toUtf8().constData());
}

#endif

/** Makes @a handler receive all messages of Qt from now on, instead of the previous handler. */
template <MessageHandler handler> void installMessageHandler()
{
#if QT_VERSION >= 0x050000
    qInstallMessageHandler(forwardMessage<handler>);
#else
    qInstallMsgHandler(handler);
#endif
}

/** The target of the symbolic link @a path as an absolute path; empty when it is no symbolic link. */
inline QString symbolicLinkTarget(const QString& path)
{
#if QT_VERSION >= 0x050D00
    return QFile::symLinkTarget(path);
#else
    return QFile::readLink(path);
#endif
}

/** Gives @a timer a precision of 1 ms, as all timers of Qt 4 have; the default of Qt 5 is 5 %. */
inline void makePrecise(QTimer* timer)
{
#if QT_VERSION >= 0x050000
    timer->setTimerType(Qt::PreciseTimer);
#else
    Q_UNUSED(timer);
#endif
}

/** All addresses of the device, for IPv4 and IPv6. */
inline QHostAddress anyAddress()
{
#if QT_VERSION >= 0x050000
    return QHostAddress(QHostAddress::Any);
#else
    return QHostAddress(QHostAddress::AnyIPv6);
#endif
}

/** The error number of the database; -1 when there is none. */
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

/** Reads a line of @a stream into @a line, reusing its memory with Qt 5. @return whether there was one. */
inline bool readLine(QTextStream& stream, QString& line)
{
#if QT_VERSION >= 0x050500
    return stream.readLineInto(&line);
#else
    line = stream.readLine();
    return !line.isNull();
#endif
}

/** Assigns @a size bytes of Latin-1 text to @a text, reusing its memory with Qt 5. */
inline void assignLatin1(QString& text, const char* latin1, int size)
{
#if QT_VERSION >= 0x050000
    text = QLatin1String(latin1, size);
#else
    text = QString::fromLatin1(latin1, size);
#endif
}

/**
 * @{
 * A decimal number in the C locale. QString of Qt 4 reads it in the default locale first, in which "1,5" or
 * "1.500" may be another number. @a ok receives whether the whole text is a number that the type can hold.
 */
#if QT_VERSION >= 0x050000
inline qlonglong toLongLong(const QString& text, bool* ok)
{
    return text.toLongLong(ok, 10);
}

inline qulonglong toULongLong(const QString& text, bool* ok)
{
    return text.toULongLong(ok, 10);
}

inline float toFloat(const QString& text, bool* ok)
{
    return text.toFloat(ok);
}

inline double toDouble(const QString& text, bool* ok)
{
    return text.toDouble(ok);
}
#else
inline QLocale cLocale()
{
    QLocale locale(QLocale::C);
    locale.setNumberOptions(QLocale::RejectGroupSeparator);
    return locale;
}

inline qlonglong toLongLong(const QString& text, bool* ok)
{
    return cLocale().toLongLong(text, ok, 10);
}

inline qulonglong toULongLong(const QString& text, bool* ok)
{
    return cLocale().toULongLong(text, ok, 10);
}

inline float toFloat(const QString& text, bool* ok)
{
    return cLocale().toFloat(text, ok);
}

inline double toDouble(const QString& text, bool* ok)
{
    return cLocale().toDouble(text, ok);
}
#endif
/** @} */

} // namespace NBaseQtCompat

#endif
