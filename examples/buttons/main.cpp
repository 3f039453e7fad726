// The front of a device: a screen with keys on all sides, and beside each key an icon of what it does. All roles
// are shown in all orientations; a click on a key changes its role to the next one.
//
//     nbase-example-buttons [--dark] [--picture <file>]
//
// --dark gives the screen a dark background. --picture writes a picture of the device into a file instead of
// showing it.

#include <nbase/device/nbuttonrole.h>

#include <QAbstractButton>
#include <QApplication>
#include <QPainter>

#include <QtCore/QMetaEnum>
#include <QtCore/QStringList>

#include <string.h>

namespace {

const int Roles = NButtonRole::RoleCancel + 1;
const int Pitch = 24;   // from one key to the next
const int Corner = 30;  // from a corner of the screen to the first key
const int KeySize = 16; // of the round keys
const int Bezel = 36;   // around the screen
const int ScreenSize = 2 * Corner + Roles * Pitch;

// "ScrollUp" for RoleScrollUp.
QString nameOf(int role)
{
    const QMetaObject& meta = NButtonRole::staticMetaObject;
    const QMetaEnum roles = meta.enumerator(meta.indexOfEnumerator("Roles"));
    return QString::fromLatin1(roles.valueToKey(role)).mid(int(strlen("Role")));
}

} // namespace

class Screen : public QWidget
{
    Q_OBJECT

public:
    explicit Screen(QWidget* parent)
        : QWidget(parent)
    {
        setAutoFillBackground(true);
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        for (int role = 0; role < Roles; ++role) {
            const QRect line(width() / 2 - 70, Corner + role * Pitch, 180, Pitch);
            const int number = 25; // of the line
            painter.drawText(
                line.adjusted(0, 0, number - line.width(), 0), Qt::AlignRight | Qt::AlignVCenter,
                QString::number(role));
            painter.drawText(line.adjusted(number + 10, 0, 0, 0), Qt::AlignLeft | Qt::AlignVCenter, nameOf(role));
        }
    }
};

// A key beside the screen, with its icon on the screen.
class Key : public QAbstractButton
{
    Q_OBJECT

public:
    Key(NButtonRole::Orientations orientation, int role, QWidget* device, Screen* screen)
        : QAbstractButton(device)
        , m_position(Corner + role * Pitch + Pitch / 2)
        , m_button(new NButtonRole(orientation, NButtonRole::Roles(role), screen))
    {
        const int before = (Bezel - KeySize) / 2;
        const int behind = Bezel + ScreenSize + before;
        const int along = Bezel + m_position - KeySize / 2;
        resize(KeySize, KeySize);
        switch (orientation) {
        case NButtonRole::OrientationLeft:
            move(before, along);
            break;
        case NButtonRole::OrientationRight:
            move(behind, along);
            break;
        case NButtonRole::OrientationTop:
            move(along, before);
            break;
        case NButtonRole::OrientationBottom:
            move(along, behind);
            break;
        }
        connect(this, SIGNAL(clicked()), SLOT(showNextRole()));
        placeButton();
    }

private slots:
    void showNextRole()
    {
        m_button->setRole(NButtonRole::Roles((m_button->role() + 1) % Roles));
        placeButton();
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(isDown() ? QColor(0x60, 0x68, 0x70) : QColor(0x90, 0x98, 0xa0));
        painter.drawEllipse(rect());
    }

private:
    // The open side of the frame lies at the edge of the screen.
    void placeButton()
    {
        m_button->adjustSize();
        QRect place = m_button->rect();
        switch (m_button->orientation()) {
        case NButtonRole::OrientationLeft:
            place.moveTopLeft(QPoint(0, m_position - place.height() / 2));
            break;
        case NButtonRole::OrientationRight:
            place.moveTopRight(QPoint(ScreenSize - 1, m_position - place.height() / 2));
            break;
        case NButtonRole::OrientationTop:
            place.moveTopLeft(QPoint(m_position - place.width() / 2, 0));
            break;
        case NButtonRole::OrientationBottom:
            place.moveBottomLeft(QPoint(m_position - place.width() / 2, ScreenSize - 1));
            break;
        }
        m_button->setGeometry(place);
    }

    int m_position; // of the middle of the key along its side of the screen
    NButtonRole* m_button;
};

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QStringList arguments = application.arguments().mid(1);
    const bool dark = arguments.removeAll(QString::fromLatin1("--dark")) > 0;
    if (!arguments.isEmpty() && (arguments.size() != 2 || arguments.first() != QLatin1String("--picture")))
        qFatal("usage: nbase-example-buttons [--dark] [--picture <file>]");

    QWidget device;
    device.setPalette(QPalette(QColor(0x38, 0x40, 0x48)));
    device.setFixedSize(ScreenSize + 2 * Bezel, ScreenSize + 2 * Bezel);
    Screen* const screen = new Screen(&device);
    screen->setGeometry(Bezel, Bezel, ScreenSize, ScreenSize);
    screen->setPalette(QPalette(dark ? QColor(0x30, 0x30, 0x30) : QColor(0xef, 0xef, 0xef)));
    for (int orientation = NButtonRole::OrientationLeft; orientation <= NButtonRole::OrientationBottom;
         ++orientation) {
        for (int role = 0; role < Roles; ++role)
            new Key(NButtonRole::Orientations(orientation), role, &device, screen);
    }

    if (arguments.isEmpty()) {
        device.show();
        return application.exec();
    }
    QImage picture(device.size(), QImage::Format_RGB32);
    device.render(&picture);
    return picture.save(arguments.last()) ? 0 : 1;
}

#include "main.moc"
