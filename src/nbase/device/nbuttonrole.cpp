#include <nbase/device/nbuttonrole.h>

#include <QPainter>
#include <QPixmap>
#include <QStyle>
#include <QStyleOption>

#include <QtCore/qmath.h>

namespace {

const int IconSize = 16;

// The icon and the pixel beside it, which the larger icons take as well.
const int IconRoom = IconSize + 1;

/**
 * Draws @a icon at @a position, in logical pixels, without blurring it where these are not pixels of the device:
 * beginning at a whole pixel of the device, and with every pixel of the icon repeated. For a ratio that is not a
 * whole number, it is reduced from the next larger one, so that only edges between two pixels of the device are
 * mixed.
 */
void drawIcon(QPainter* painter, const QPoint& position, const QPixmap& icon)
{
    const QTransform toDevice = painter->deviceTransform();
    const qreal ratio = qMax(toDevice.m11(), toDevice.m22());
    if (toDevice.type() > QTransform::TxScale || toDevice.m11() <= 0 || toDevice.m22() <= 0) {
        painter->drawPixmap(position, icon);
        return;
    }
    const QRectF target = toDevice.mapRect(QRectF(position, icon.size()));
    const QPixmap repeated = icon.scaled(icon.size() * qMax(1, qCeil(ratio - 0.01))); // the ratio is not exact
    painter->save();
    painter->setTransform(toDevice.inverted(), true);
    painter->setRenderHint(QPainter::SmoothPixmapTransform);
    painter->drawPixmap(QRectF(target.topLeft().toPoint(), target.size()), repeated, repeated.rect());
    painter->restore();
}

} // namespace

const QSize NButtonRole::S_ICON_SIZE(IconSize, IconSize);
const QHash<NButtonRole::Roles, QString> NButtonRole::S_ICONS_PATH = NButtonRole::getIconsPath();

NButtonRole::NButtonRole(Orientations orientation, Roles role, QWidget* parent)
    : QWidget(parent)
    , m_role(role)
    , m_orientation(orientation)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

NButtonRole::Roles NButtonRole::role() const
{
    return m_role;
}

NButtonRole::Orientations NButtonRole::orientation() const
{
    return m_orientation;
}

QSize NButtonRole::sizeHint() const
{
    const int across = IconSize + 2 * (frameWidth() + 1);
    const int along = m_role == RoleNone ? frameWidth() + 1 : frameWidth() + 2 + IconSize;
    switch (m_orientation) {
    case OrientationLeft:
    case OrientationRight:
        return QSize(along, across);
    case OrientationTop:
    case OrientationBottom:
        return QSize(across, along);
    }
    return QSize();
}

QHash<NButtonRole::Roles, QString> NButtonRole::getIconsPath()
{
    QHash<Roles, QString> paths;
    paths.insert(RoleHome, QString::fromLatin1(":/icons/home"));
    paths.insert(RoleMenu, QString::fromLatin1(":/icons/menu"));
    paths.insert(RolePower, QString::fromLatin1(":/icons/power"));
    paths.insert(RoleBack, QString::fromLatin1(":/icons/back"));
    paths.insert(RoleEnter, QString::fromLatin1(":/icons/enter"));
    paths.insert(RoleUp, QString::fromLatin1(":/icons/up"));
    paths.insert(RoleDown, QString::fromLatin1(":/icons/down"));
    paths.insert(RoleLeft, QString::fromLatin1(":/icons/left"));
    paths.insert(RoleRight, QString::fromLatin1(":/icons/right"));
    paths.insert(RoleScrollUp, QString::fromLatin1(":/icons/scrollUp"));
    paths.insert(RoleScrollDown, QString::fromLatin1(":/icons/scrollDown"));
    paths.insert(RoleScrollLeft, QString::fromLatin1(":/icons/scrollLeft"));
    paths.insert(RoleScrollRight, QString::fromLatin1(":/icons/scrollRight"));
    paths.insert(RolePlus, QString::fromLatin1(":/icons/plus"));
    paths.insert(RoleMinus, QString::fromLatin1(":/icons/minus"));
    paths.insert(RoleBoxUncheck, QString::fromLatin1(":/icons/boxUncheck"));
    paths.insert(RoleBoxCheck, QString::fromLatin1(":/icons/boxCheck"));
    paths.insert(RoleRadioCheck, QString::fromLatin1(":/icons/radioCheck"));
    paths.insert(RoleValid, QString::fromLatin1(":/icons/valid"));
    paths.insert(RoleCancel, QString::fromLatin1(":/icons/cancel"));
    return paths;
}

void NButtonRole::setRole(Roles role)
{
    m_role = role;
    updateGeometry();
    update();
}

void NButtonRole::setOrientation(Orientations orientation)
{
    m_orientation = orientation;
    updateGeometry();
    update();
}

void NButtonRole::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    QStyleOptionFrame option;
    option.initFrom(this);
    option.rect = frameRect();
    option.lineWidth = frameWidth();
    style()->drawPrimitive(QStyle::PE_Frame, &option, &painter, this);

    const QString path = S_ICONS_PATH.value(m_role);
    if (path.isNull())
        return;
    const QPixmap icon(path);
    const int width = frameWidth();
    drawIcon(&painter, iconPosition(option.rect.adjusted(width, width, -width, -width), icon.size()), icon);
}

bool NButtonRole::event(QEvent* event)
{
    return QWidget::event(event);
}

int NButtonRole::frameWidth() const
{
    return style()->pixelMetric(QStyle::PM_DefaultFrameWidth, nullptr, this);
}

// The rectangle of the frame, whose line on the open side lies outside of the widget.
QRect NButtonRole::frameRect() const
{
    switch (m_orientation) {
    case OrientationLeft:
        return rect().adjusted(-frameWidth(), 0, 0, 0);
    case OrientationRight:
        return rect().adjusted(0, 0, frameWidth(), 0);
    case OrientationTop:
        return rect().adjusted(0, -frameWidth(), 0, 0);
    case OrientationBottom:
        return rect().adjusted(0, 0, 0, frameWidth());
    }
    return rect();
}

// Where an icon of @a size lies: next to the open side, otherwise in the middle of @a inside, the inside of the
// frame.
QPoint NButtonRole::iconPosition(const QRect& inside, const QSize& size) const
{
    QPoint position(
        inside.x() + (inside.width() - size.width()) / 2, inside.y() + (inside.height() - size.height()) / 2);
    switch (m_orientation) {
    case OrientationLeft:
        position.setX(inside.left() + IconRoom - size.width());
        break;
    case OrientationRight:
        position.setX(inside.right() + 1 - IconRoom);
        break;
    case OrientationTop:
        position.setY(inside.top() + IconRoom - size.height());
        break;
    case OrientationBottom:
        position.setY(inside.bottom() + 1 - IconRoom);
        break;
    }
    return position;
}
