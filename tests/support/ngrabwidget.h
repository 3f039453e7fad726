#ifndef NBASE_TESTS_NGRABWIDGET_H
#define NBASE_TESTS_NGRABWIDGET_H

#include <QImage>
#include <QPixmap>
#include <QWidget>

/** Pictures of widgets, for Qt 4 and Qt 5. */
namespace NTest {

/** A picture of @a widget in the pixels of its screen. */
inline QImage grabWidget(QWidget* widget)
{
#if QT_VERSION >= 0x050000
    return widget->grab().toImage();
#else
    return QPixmap::grabWidget(widget).toImage();
#endif
}

/** Whether the environment variable QT_SCALE_FACTOR enlarges the pixels of screens. */
inline bool hasScaleFactor()
{
    return QT_VERSION >= 0x050600;
}

} // namespace NTest

#endif
