#ifndef NBASE_NBUTTONROLE_H
#define NBASE_NBUTTONROLE_H

#include <nbase/nbaseglobal.h>

#include <QWidget>

#include <QtCore/QHash>
#include <QtCore/QSize>
#include <QtCore/QString>

/**
 * The type of the enumerations, which may be given values that are not listed: with a fixed type, they can hold
 * any int. The moc of Qt 4 does not know the syntax.
 */
#ifdef Q_MOC_RUN
#define NBUTTONROLE_INT
#else
#define NBUTTONROLE_INT : int
#endif

/**
 * What a physical key of the device does in the current screen: an icon in a frame, to be placed at the edge of
 * the screen, beside the key. The frame is open on the side of the key.
 *
 * The widget has the size of its size hint, which changes with the role and the orientation. In a layout it is
 * resized at once; elsewhere the application calls adjustSize().
 *
 * The icons are images of 16 x 16 pixels, some of 17 x 17, which are in the library as resources, for example
 * ":/icons/home". They are legible on light and dark backgrounds, and are not blurred on screens with a device
 * pixel ratio above 1.
 *
 * The class is absent from libraries that were built without user interface (NBASE_GUI).
 */
class NBASE_EXPORT NButtonRole : public QWidget
{
    Q_OBJECT
    Q_ENUMS(Roles)
    Q_ENUMS(Orientations)
    /** What the key does. */
    Q_PROPERTY(Roles role READ role WRITE setRole)
    /** Where the key is. */
    Q_PROPERTY(Orientations orientation READ orientation WRITE setOrientation)

public:
    /** What the key does. The values may be stored. */
    enum Roles NBUTTONROLE_INT {
        RoleNone = 0, ///< nothing: a narrow frame without icon
        RoleHome = 1,
        RoleMenu = 2,
        RolePower = 3,
        RoleBack = 4,  ///< return to the screen before
        RoleEnter = 5, ///< confirm or open what is selected
        RoleUp = 6,
        RoleDown = 7,
        RoleLeft = 8,
        RoleRight = 9,
        RoleScrollUp = 10,
        RoleScrollDown = 11,
        RoleScrollLeft = 12,
        RoleScrollRight = 13,
        RolePlus = 14,
        RoleMinus = 15,
        RoleBoxUncheck = 16, ///< clear a check box
        RoleBoxCheck = 17,   ///< set a check box
        RoleRadioCheck = 18, ///< select a radio button
        RoleValid = 19,      ///< accept
        RoleCancel = 20
    };

    /** The side of the widget where the key is, whatever the direction of the layout. */
    enum Orientations NBUTTONROLE_INT {
        OrientationLeft = 0,
        OrientationRight = 1,
        OrientationTop = 2,
        OrientationBottom = 3
    };

    /** The size of most icons, and the one that the size hint allows for: 16 x 16 pixels. */
    static const QSize S_ICON_SIZE;

    /** What getIconsPath() returns. */
    static const QHash<Roles, QString> S_ICONS_PATH;

    /** A widget of fixed size. */
    NButtonRole(Orientations orientation, Roles role, QWidget* parent);

    /** What the key does. */
    Roles role() const;

    /** Where the key is. */
    Orientations orientation() const;

    /**
     * The size with the current style, in pixels. Across the direction to the key there is room for the icon, a
     * pixel on both sides of it and the frame; in that direction likewise, but without the open side of the frame,
     * and with RoleNone only for the frame and one pixel. An orientation that is not listed has no valid size.
     */
    QSize sizeHint() const override;

    /** The paths of the icons in Qt's resource system by their roles; RoleNone has none. */
    static QHash<Roles, QString> getIconsPath();

public slots:
    /** Changes the icon. A role that is not listed has none. */
    void setRole(Roles role);

    /** Changes the open side of the frame. An orientation that is not listed has none. */
    void setOrientation(Orientations orientation);

protected:
    /** Draws the frame and the icon. */
    void paintEvent(QPaintEvent* event) override;

    /** What QWidget does. */
    bool event(QEvent* event) override;

private:
    Q_DISABLE_COPY(NButtonRole)

    int frameWidth() const;
    QRect frameRect() const;
    QPoint iconPosition(const QRect& inside, const QSize& size) const;

    Roles m_role;
    Orientations m_orientation;
};

#endif
