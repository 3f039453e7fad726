#include <nbase/device/nbuttonrole.h>

#include <support/ngrabwidget.h>
#include <support/ntemporarydirectory.h>
#include <support/ntestwait.h>

#include <QApplication>
#include <QHBoxLayout>
#include <QPainter>
#include <QProxyStyle>
#include <QStyleFactory>
#include <QStyleOption>

#include <QtCore/QDir>
#include <QtCore/QMetaEnum>
#include <QtCore/QProcess>
#include <QtCore/QResource>
#include <QtTest/QtTest>

#include <math.h>

typedef NButtonRole::Roles Role;
typedef NButtonRole::Orientations Orientation;

namespace {

const int LastRole = NButtonRole::RoleCancel;
const int Orientations = 4;
const int CellSize = 24; // of a widget in a reference picture

// Colours of windows: a light one, the usual one of a light and a dark style, and a dark one.
const QRgb Backgrounds[] = {0xffffffff, 0xffefefef, 0xff303030, 0xff000000};

const char* const RoleNames[] = {
    "RoleNone",       "RoleHome",        "RoleMenu",  "RolePower", "RoleBack",       "RoleEnter",
    "RoleUp",         "RoleDown",        "RoleLeft",  "RoleRight", "RoleScrollUp",   "RoleScrollDown",
    "RoleScrollLeft", "RoleScrollRight", "RolePlus",  "RoleMinus", "RoleBoxUncheck", "RoleBoxCheck",
    "RoleRadioCheck", "RoleValid",       "RoleCancel"};
const char* const IconNames[] = {nullptr,      "home",        "menu",  "power", "back",       "enter",
                                 "up",         "down",        "left",  "right", "scrollUp",   "scrollDown",
                                 "scrollLeft", "scrollRight", "plus",  "minus", "boxUncheck", "boxCheck",
                                 "radioCheck", "valid",       "cancel"};
const char* const OrientationNames[] = {
    "OrientationLeft", "OrientationRight", "OrientationTop", "OrientationBottom"};

QString iconPath(int role)
{
    return QString::fromLatin1(":/icons/%1").arg(QString::fromLatin1(IconNames[role]));
}

QImage iconImage(int role)
{
    return QImage(iconPath(role)).convertToFormat(QImage::Format_ARGB32);
}

bool isLargeIcon(int role)
{
    return role == NButtonRole::RoleBoxUncheck || role == NButtonRole::RoleBoxCheck ||
           role == NButtonRole::RoleRadioCheck;
}

const QRgb FrameColour = 0xff0060a0;

// A style with plain frames, whose lines have a given width.
class PlainFrameStyle : public QProxyStyle
{
public:
    explicit PlainFrameStyle(int width)
        : QProxyStyle(QStyleFactory::create(QString::fromLatin1("Windows")))
        , m_width(width)
    {
    }

    int pixelMetric(PixelMetric metric, const QStyleOption* option, const QWidget* widget) const override
    {
        return metric == PM_DefaultFrameWidth ? m_width : QProxyStyle::pixelMetric(metric, option, widget);
    }

    void drawPrimitive(
        PrimitiveElement element, const QStyleOption* option, QPainter* painter,
        const QWidget* widget) const override
    {
        const QStyleOptionFrame* const frame = qstyleoption_cast<const QStyleOptionFrame*>(option);
        if (element != PE_Frame || !frame) {
            QProxyStyle::drawPrimitive(element, option, painter, widget);
            return;
        }
        const QRect rect = frame->rect;
        const int width = frame->lineWidth;
        const QColor colour = QColor::fromRgb(FrameColour);
        painter->fillRect(rect.x(), rect.y(), rect.width(), width, colour);
        painter->fillRect(rect.x(), rect.y() + rect.height() - width, rect.width(), width, colour);
        painter->fillRect(rect.x(), rect.y(), width, rect.height(), colour);
        painter->fillRect(rect.x() + rect.width() - width, rect.y(), width, rect.height(), colour);
    }

private:
    int m_width;
};

class PaintCountingButtonRole : public NButtonRole
{
public:
    explicit PaintCountingButtonRole(QWidget* parent)
        : NButtonRole(OrientationLeft, RoleHome, parent)
        , paints(0)
    {
    }

    int paints;

protected:
    void paintEvent(QPaintEvent* event) override
    {
        ++paints;
        NButtonRole::paintEvent(event);
    }
};

// The palette that the pictures are drawn with, whatever that of the machine.
QPalette testPalette(QRgb background)
{
    return QPalette(QColor(0xd0, 0xd0, 0xd0), QColor::fromRgb(background));
}

// What @a widget looks like in its preferred size, on a device with @a ratio pixels for a logical one.
QImage picture(NButtonRole* widget, qreal ratio = 1, QRgb background = 0xffefefef)
{
    widget->setPalette(testPalette(background));
    widget->resize(widget->sizeHint());
    const QSizeF size = QSizeF(widget->size()) * ratio;
    QImage image(qRound(size.width()), qRound(size.height()), QImage::Format_ARGB32_Premultiplied);
    image.fill(background);
    QPainter painter(&image);
    painter.scale(ratio, ratio);
    widget->render(&painter, QPoint(), QRegion(), QWidget::DrawChildren);
    painter.end();
    return image.convertToFormat(QImage::Format_ARGB32);
}

QImage onBackground(const QImage& icon, QRgb background)
{
    QImage image(icon.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(background);
    QPainter(&image).drawImage(0, 0, icon);
    return image.convertToFormat(QImage::Format_ARGB32);
}

// Where an icon belongs, for a frame @a width pixels wide.
QPoint iconPosition(int role, int orientation, int width)
{
    const int size = isLargeIcon(role) ? 17 : 16;
    const int across = isLargeIcon(role) ? width : width + 1;
    switch (orientation) {
    case NButtonRole::OrientationLeft:
        return QPoint(17 - size, across);
    case NButtonRole::OrientationRight:
        return QPoint(width + 1, across);
    case NButtonRole::OrientationTop:
        return QPoint(across, 17 - size);
    default:
        return QPoint(across, width + 1);
    }
}

// The icon in a picture with a ratio of @a enlarged / @a reduced: each pixel repeated, then the mean of each
// square.
QImage scaledIcon(const QImage& icon, int enlarged, int reduced)
{
    const QImage large = icon.scaled(icon.size() * enlarged);
    QImage image(large.width() / reduced, large.height() / reduced, QImage::Format_ARGB32);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            int red = 0;
            int green = 0;
            int blue = 0;
            for (int pixel = 0; pixel < reduced * reduced; ++pixel) {
                const QRgb rgb = large.pixel(x * reduced + pixel % reduced, y * reduced + pixel / reduced);
                red += qRed(rgb);
                green += qGreen(rgb);
                blue += qBlue(rgb);
            }
            const int pixels = reduced * reduced;
            image.setPixel(x, y, qRgb(red / pixels, green / pixels, blue / pixels));
        }
    }
    return image;
}

// The largest difference of a colour component between @a part and @a image at @a position.
int difference(const QImage& image, const QPoint& position, const QImage& part)
{
    if (!image.rect().contains(QRect(position, part.size())))
        return 255;
    int largest = 0;
    for (int y = 0; y < part.height(); ++y) {
        for (int x = 0; x < part.width(); ++x) {
            const QRgb one = image.pixel(position.x() + x, position.y() + y);
            const QRgb other = part.pixel(x, y);
            largest = qMax(largest, qAbs(qRed(one) - qRed(other)));
            largest = qMax(largest, qAbs(qGreen(one) - qGreen(other)));
            largest = qMax(largest, qAbs(qBlue(one) - qBlue(other)));
        }
    }
    return largest;
}

// How many pixels of the edge of @a image on the side @a orientation differ from @a background, corners excluded.
int drawnPixelsOfEdge(const QImage& image, int orientation, int corner, QRgb background)
{
    const bool vertical =
        orientation == NButtonRole::OrientationLeft || orientation == NButtonRole::OrientationRight;
    const int length = vertical ? image.height() : image.width();
    int drawn = 0;
    for (int index = corner; index < length - corner; ++index) {
        QPoint point(index, index);
        if (vertical)
            point.setX(orientation == NButtonRole::OrientationLeft ? 0 : image.width() - 1);
        else
            point.setY(orientation == NButtonRole::OrientationTop ? 0 : image.height() - 1);
        drawn += image.pixel(point) != background;
    }
    return drawn;
}

int edgeLength(const QImage& image, int orientation, int corner)
{
    const bool vertical =
        orientation == NButtonRole::OrientationLeft || orientation == NButtonRole::OrientationRight;
    return (vertical ? image.height() : image.width()) - 2 * corner;
}

int oppositeOf(int orientation)
{
    return orientation ^ 1;
}

// Relative luminance and contrast as in WCAG 2.1.
double luminance(QRgb rgb)
{
    const int components[] = {qRed(rgb), qGreen(rgb), qBlue(rgb)};
    const double weights[] = {0.2126, 0.7152, 0.0722};
    double sum = 0;
    for (int index = 0; index < 3; ++index) {
        const double value = components[index] / 255.0;
        sum += weights[index] * (value <= 0.03928 ? value / 12.92 : pow((value + 0.055) / 1.055, 2.4));
    }
    return sum;
}

double contrast(QRgb one, QRgb other)
{
    const double a = luminance(one) + 0.05;
    const double b = luminance(other) + 0.05;
    return a > b ? a / b : b / a;
}

bool isDark(QRgb rgb)
{
    return qAlpha(rgb) == 255 && luminance(rgb) < 0.2;
}

// A pixel of the icon, transparent beyond its edges.
QRgb pixelAt(const QImage& icon, int x, int y)
{
    return icon.rect().contains(x, y) ? icon.pixel(x, y) : 0;
}

QString referencePath(const QString& style)
{
    return QString::fromLatin1(NBASE_TEST_DATA_DIR "/buttonrole/%1.png").arg(style.toLower());
}

QImage referencePicture(const QString& style)
{
    QImage image((LastRole + 1) * CellSize, Orientations * CellSize, QImage::Format_ARGB32);
    image.fill(0);
    QScopedPointer<QStyle> created(QStyleFactory::create(style));
    QPainter painter(&image);
    for (int orientation = 0; orientation < Orientations; ++orientation) {
        for (int role = 0; role <= LastRole; ++role) {
            NButtonRole widget(Orientation(orientation), Role(role), nullptr);
            widget.setStyle(created.data());
            painter.drawImage(role * CellSize, orientation * CellSize, picture(&widget));
        }
    }
    return image;
}

QStringList referenceStyles()
{
    return QStringList() << QString::fromLatin1("Fusion") << QString::fromLatin1("Windows");
}

// A window with a check box and a radio icon at odd places, as a child process with another scale factor shows it.
int showWindow(const QString& path)
{
    QWidget window;
    window.setPalette(testPalette(0xffefefef));
    window.resize(101, 63);
    NButtonRole home(NButtonRole::OrientationLeft, NButtonRole::RoleHome, &window);
    home.move(4, 5);
    home.resize(home.sizeHint());
    NButtonRole check(NButtonRole::OrientationTop, NButtonRole::RoleBoxCheck, &window);
    check.move(51, 32);
    check.resize(check.sizeHint());
    window.show();
    QApplication::processEvents();
    return NTest::grabWidget(&window).save(path) ? 0 : 1;
}

} // namespace

class tst_NButtonRole : public QObject
{
    Q_OBJECT

private slots:
    void enumerationsHaveTheirValues();
    void constructorStoresItsArguments();
    void propertiesCanBeSet();
    void iconsHaveTheirPaths();
    void bundleHasTwentyUncompressedImages();
    void iconsMatchTheirSources_data();
    void iconsMatchTheirSources();
    void iconsHaveContrast_data();
    void iconsHaveContrast();
    void iconsAreToldApartInGrey();
    void sizeHint_data();
    void sizeHint();
    void sizeHintOfUnknownOrientationIsInvalid();
    void changesRepaintAndResize_data();
    void changesRepaintAndResize();
    void settingTheSameValueRepaints();
    void frameIsOpenTowardsTheKey_data();
    void frameIsOpenTowardsTheKey();
    void iconIsDrawnPixelForPixel_data();
    void iconIsDrawnPixelForPixel();
    void unknownRoleHasNoIcon_data();
    void unknownRoleHasNoIcon();
    void unknownOrientationHasNoOpenSide();
    void iconIsSharpAtDevicePixelRatio_data();
    void iconIsSharpAtDevicePixelRatio();
    void iconIsSharpWithScaleFactor_data();
    void iconIsSharpWithScaleFactor();
    void iconIsTurnedWithThePainter();
    void layoutDirectionChangesNothing_data();
    void layoutDirectionChangesNothing();
    void styleSheetSetsTheFrame_data();
    void styleSheetSetsTheFrame();
    void picturesMatchTheReferences_data();
    void picturesMatchTheReferences();
};

void tst_NButtonRole::enumerationsHaveTheirValues()
{
    const QMetaObject& meta = NButtonRole::staticMetaObject;
    const QMetaEnum roles = meta.enumerator(meta.indexOfEnumerator("Roles"));
    QCOMPARE(roles.keyCount(), LastRole + 1);
    for (int role = 0; role <= LastRole; ++role)
        QCOMPARE(roles.keyToValue(RoleNames[role]), role);
    const QMetaEnum orientations = meta.enumerator(meta.indexOfEnumerator("Orientations"));
    QCOMPARE(orientations.keyCount(), Orientations);
    for (int orientation = 0; orientation < Orientations; ++orientation)
        QCOMPARE(orientations.keyToValue(OrientationNames[orientation]), orientation);
}

void tst_NButtonRole::constructorStoresItsArguments()
{
    QWidget parent;
    const NButtonRole widget(NButtonRole::OrientationTop, NButtonRole::RoleScrollLeft, &parent);
    QCOMPARE(widget.orientation(), NButtonRole::OrientationTop);
    QCOMPARE(widget.role(), NButtonRole::RoleScrollLeft);
    QCOMPARE(widget.parentWidget(), &parent);
    QCOMPARE(widget.sizePolicy(), QSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed));
}

void tst_NButtonRole::propertiesCanBeSet()
{
    NButtonRole widget(NButtonRole::OrientationLeft, NButtonRole::RoleNone, nullptr);
    QVERIFY(widget.setProperty("role", 12));
    QCOMPARE(widget.role(), NButtonRole::RoleScrollLeft);
    QVERIFY(widget.setProperty("orientation", QString::fromLatin1("OrientationBottom")));
    QCOMPARE(widget.orientation(), NButtonRole::OrientationBottom);
    QCOMPARE(widget.property("role").toInt(), 12);
    QCOMPARE(widget.property("orientation").toInt(), 3);
    QVERIFY(widget.metaObject()->indexOfSlot("setRole(Roles)") >= 0);
    QVERIFY(widget.metaObject()->indexOfSlot("setOrientation(Orientations)") >= 0);
}

void tst_NButtonRole::iconsHaveTheirPaths()
{
    QCOMPARE(NButtonRole::S_ICON_SIZE, QSize(16, 16));
    QHash<Role, QString> expected;
    for (int role = 1; role <= LastRole; ++role) {
        expected.insert(Role(role), iconPath(role));
        const QSize size = isLargeIcon(role) ? QSize(17, 17) : QSize(16, 16);
        QCOMPARE(QPixmap(iconPath(role)).size(), size);
    }
    QCOMPARE(NButtonRole::getIconsPath(), expected);
    QCOMPARE(NButtonRole::S_ICONS_PATH, expected);
}

void tst_NButtonRole::bundleHasTwentyUncompressedImages()
{
    const QDir bundle(QString::fromLatin1(":/icons"));
    QStringList expected;
    for (int role = 1; role <= LastRole; ++role)
        expected << QString::fromLatin1(IconNames[role]);
    expected.sort();
    QStringList entries = bundle.entryList();
    entries.sort();
    QCOMPARE(entries, expected);
    for (int role = 1; role <= LastRole; ++role) {
        // What is stored, not what QFile makes of it.
        const QResource resource(iconPath(role));
        QVERIFY(resource.isValid());
        const QByteArray stored(reinterpret_cast<const char*>(resource.data()), int(resource.size()));
        QVERIFY(stored.startsWith("\x89PNG\r\n"));
        QVERIFY(stored.endsWith("IEND\xae\x42\x60\x82"));
    }
}

void tst_NButtonRole::iconsMatchTheirSources_data()
{
    QTest::addColumn<int>("role");
    for (int role = 1; role <= LastRole; ++role)
        QTest::newRow(IconNames[role]) << role;
}

void tst_NButtonRole::iconsMatchTheirSources()
{
    QFETCH(int, role);
    const QString source =
        QString::fromLatin1(NBASE_ICON_SOURCES "/%1.svg").arg(QString::fromLatin1(IconNames[role]));
    QProcess renderer;
    renderer.start(QString::fromLatin1("rsvg-convert"), QStringList() << source);
    QVERIFY(renderer.waitForFinished());
    QCOMPARE(renderer.exitCode(), 0);
    const QImage rendered =
        QImage::fromData(renderer.readAllStandardOutput()).convertToFormat(QImage::Format_ARGB32);
    QVERIFY(!rendered.isNull());
    QCOMPARE(rendered, iconImage(role));
}

void tst_NButtonRole::iconsHaveContrast_data()
{
    iconsMatchTheirSources_data();
}

// An icon is a dark shape with a light outline, one of which stands out on any background.
void tst_NButtonRole::iconsHaveContrast()
{
    QFETCH(int, role);
    const QImage icon = iconImage(role);
    int darkPixels = 0;
    for (int y = 0; y < icon.height(); ++y) {
        for (int x = 0; x < icon.width(); ++x) {
            const QRgb pixel = icon.pixel(x, y);
            // No half-tones: they would be blurred edges.
            QVERIFY(qAlpha(pixel) == 0 || pixel == 0xffffffff || isDark(pixel));
            if (!isDark(pixel))
                continue;
            ++darkPixels;
            for (int neighbour = 0; neighbour < 4; ++neighbour) {
                const int dx = neighbour == 0 ? -1 : neighbour == 1 ? 1 : 0;
                const int dy = neighbour == 2 ? -1 : neighbour == 3 ? 1 : 0;
                QVERIFY(qAlpha(pixelAt(icon, x + dx, y + dy)) == 255);
            }
            for (int grey = 0; grey < 256; ++grey) {
                const QRgb background = qRgb(grey, grey, grey);
                QVERIFY(qMax(contrast(pixel, background), contrast(0xffffffff, background)) >= 3);
            }
        }
    }
    QVERIFY(darkPixels >= 40);
}

void tst_NButtonRole::iconsAreToldApartInGrey()
{
    int least = 1000;
    for (int one = 1; one <= LastRole; ++one) {
        for (int other = one + 1; other <= LastRole; ++other) {
            for (size_t index = 0; index < sizeof(Backgrounds) / sizeof(Backgrounds[0]); ++index) {
                const QImage a = onBackground(iconImage(one), Backgrounds[index]);
                const QImage b = onBackground(iconImage(other), Backgrounds[index]);
                int different = 0;
                for (int y = 0; y < 16; ++y) {
                    for (int x = 0; x < 16; ++x)
                        different += qAbs(qGray(a.pixel(x, y)) - qGray(b.pixel(x, y))) >= 100;
                }
                if (different < 20)
                    qWarning("%s and %s differ in %d pixels only", IconNames[one], IconNames[other], different);
                least = qMin(least, different);
            }
        }
    }
    QVERIFY(least >= 20);
}

void tst_NButtonRole::sizeHint_data()
{
    QTest::addColumn<int>("role");
    QTest::addColumn<int>("orientation");
    QTest::addColumn<int>("frameWidth");
    QTest::addColumn<QSize>("expected");

    QTest::newRow("icon, left") << 1 << 0 << 1 << QSize(19, 20);
    QTest::newRow("icon, right") << 1 << 1 << 1 << QSize(19, 20);
    QTest::newRow("icon, top") << 1 << 2 << 1 << QSize(20, 19);
    QTest::newRow("icon, bottom") << 1 << 3 << 1 << QSize(20, 19);
    QTest::newRow("no icon, left") << 0 << 0 << 1 << QSize(2, 20);
    QTest::newRow("no icon, right") << 0 << 1 << 1 << QSize(2, 20);
    QTest::newRow("no icon, top") << 0 << 2 << 1 << QSize(20, 2);
    QTest::newRow("no icon, bottom") << 0 << 3 << 1 << QSize(20, 2);
    QTest::newRow("icon, left, wide frame") << 20 << 0 << 5 << QSize(23, 28);
    QTest::newRow("icon, bottom, wide frame") << 20 << 3 << 5 << QSize(28, 23);
    QTest::newRow("no icon, right, wide frame") << 0 << 1 << 5 << QSize(6, 28);
    QTest::newRow("no icon, top, wide frame") << 0 << 2 << 5 << QSize(28, 6);
    QTest::newRow("icon, left, no frame") << 9 << 0 << 0 << QSize(18, 18);
    QTest::newRow("no icon, left, no frame") << 0 << 0 << 0 << QSize(1, 18);
    QTest::newRow("large icon, left") << 17 << 0 << 1 << QSize(19, 20);
    QTest::newRow("large icon, top") << 18 << 2 << 1 << QSize(20, 19);
    QTest::newRow("unknown role, left") << 21 << 0 << 1 << QSize(19, 20);
    QTest::newRow("negative role, top") << -1 << 2 << 1 << QSize(20, 19);
}

void tst_NButtonRole::sizeHint()
{
    QFETCH(int, role);
    QFETCH(int, orientation);
    QFETCH(int, frameWidth);
    QFETCH(QSize, expected);
    PlainFrameStyle style(frameWidth);
    NButtonRole widget(static_cast<Orientation>(orientation), static_cast<Role>(role), nullptr);
    widget.setStyle(&style);
    QCOMPARE(widget.sizeHint(), expected);
}

void tst_NButtonRole::sizeHintOfUnknownOrientationIsInvalid()
{
    NButtonRole widget(static_cast<Orientation>(4), NButtonRole::RoleHome, nullptr);
    QCOMPARE(widget.sizeHint(), QSize(-1, -1));
    widget.setOrientation(static_cast<Orientation>(-1));
    QCOMPARE(widget.sizeHint(), QSize(-1, -1));
    widget.setOrientation(NButtonRole::OrientationTop);
    QVERIFY(widget.sizeHint().isValid());
}

void tst_NButtonRole::changesRepaintAndResize_data()
{
    QTest::addColumn<int>("role");
    QTest::addColumn<int>("orientation");
    for (int role = 0; role <= LastRole; role += 10) {
        for (int orientation = 0; orientation < Orientations; ++orientation) {
            const QByteArray name = QByteArray(RoleNames[role]) + ", " + OrientationNames[orientation];
            QTest::newRow(name.constData()) << role << orientation;
        }
    }
}

void tst_NButtonRole::changesRepaintAndResize()
{
    QFETCH(int, role);
    QFETCH(int, orientation);
    QWidget window;
    PaintCountingButtonRole* const widget = new PaintCountingButtonRole(&window);
    widget->setRole(NButtonRole::RoleMenu);
    QHBoxLayout* const layout = new QHBoxLayout(&window);
    layout->addWidget(widget);
    window.resize(100, 100);
    window.show();
    NTRY_VERIFY(widget->paints > 0);

    int paints = widget->paints;
    widget->setRole(Role(role));
    NTRY_VERIFY(widget->paints > paints);
    NTRY_COMPARE(widget->size(), widget->sizeHint());

    QCoreApplication::processEvents();
    paints = widget->paints;
    widget->setOrientation(Orientation(orientation));
    NTRY_VERIFY(widget->paints > paints);
    NTRY_COMPARE(widget->size(), widget->sizeHint());
    QCOMPARE(widget->role(), Role(role));
    QCOMPARE(widget->orientation(), Orientation(orientation));
}

void tst_NButtonRole::settingTheSameValueRepaints()
{
    PaintCountingButtonRole widget(nullptr);
    widget.show();
    NTRY_VERIFY(widget.paints > 0);
    QCoreApplication::processEvents();
    int paints = widget.paints;
    widget.setRole(widget.role());
    NTRY_VERIFY(widget.paints > paints);
    paints = widget.paints;
    widget.setOrientation(widget.orientation());
    NTRY_VERIFY(widget.paints > paints);
}

void tst_NButtonRole::frameIsOpenTowardsTheKey_data()
{
    QTest::addColumn<QString>("style");
    QTest::addColumn<int>("role");
    QTest::addColumn<int>("orientation");
    const QStringList styles = QStyleFactory::keys();
    for (int index = 0; index < styles.size(); ++index) {
        for (int orientation = 0; orientation < Orientations; ++orientation) {
            const QByteArray name = styles.at(index).toLatin1() + ", " + OrientationNames[orientation];
            QTest::newRow((name + ", icon").constData()) << styles.at(index) << 1 << orientation;
            QTest::newRow((name + ", large icon").constData()) << styles.at(index) << 17 << orientation;
            QTest::newRow((name + ", no icon").constData()) << styles.at(index) << 0 << orientation;
        }
    }
}

void tst_NButtonRole::frameIsOpenTowardsTheKey()
{
    QFETCH(QString, style);
    QFETCH(int, role);
    QFETCH(int, orientation);
    const QRgb background = 0xff9090c0; // no colour of a frame or an icon
    QScopedPointer<QStyle> created(QStyleFactory::create(style));
    NButtonRole widget(Orientation(orientation), Role(role), nullptr);
    widget.setStyle(created.data());
    const int frameWidth = created->pixelMetric(QStyle::PM_DefaultFrameWidth, nullptr, &widget);
    QVERIFY(frameWidth > 0);
    const QImage image = picture(&widget, 1, background);
    QCOMPARE(image.size(), widget.sizeHint());
    for (int side = 0; side < Orientations; ++side) {
        if (side == orientation) {
            const int icon = isLargeIcon(role) ? 15 : 0; // takes the last pixel before the open side
            QCOMPARE(drawnPixelsOfEdge(image, side, frameWidth, background), icon);
        } else if (role != 0 || side == oppositeOf(orientation)) {
            QCOMPARE(drawnPixelsOfEdge(image, side, frameWidth, background), edgeLength(image, side, frameWidth));
        }
    }
}

void tst_NButtonRole::iconIsDrawnPixelForPixel_data()
{
    QTest::addColumn<int>("role");
    QTest::addColumn<int>("orientation");
    for (int role = 1; role <= LastRole; ++role) {
        for (int orientation = 0; orientation < Orientations; ++orientation) {
            const QByteArray name = QByteArray(RoleNames[role]) + ", " + OrientationNames[orientation];
            QTest::newRow(name.constData()) << role << orientation;
        }
    }
}

// Everything but the icon is as in the widget of an unknown role, which has the same size.
void tst_NButtonRole::iconIsDrawnPixelForPixel()
{
    QFETCH(int, role);
    QFETCH(int, orientation);
    for (int frameWidth = 1; frameWidth <= 3; ++frameWidth) {
        PlainFrameStyle style(frameWidth);
        NButtonRole widget(Orientation(orientation), Role(role), nullptr);
        widget.setStyle(&style);
        NButtonRole without(Orientation(orientation), static_cast<Role>(21), nullptr);
        without.setStyle(&style);
        QImage expected = picture(&without);
        QPainter painter(&expected);
        painter.drawImage(iconPosition(role, orientation, frameWidth), iconImage(role));
        painter.end();
        QCOMPARE(picture(&widget), expected);

        // The icon lies inside the frame.
        QRect inside = expected.rect().adjusted(frameWidth, frameWidth, -frameWidth, -frameWidth);
        inside.setLeft(orientation == NButtonRole::OrientationLeft ? 0 : inside.left());
        inside.setTop(orientation == NButtonRole::OrientationTop ? 0 : inside.top());
        inside.setRight(orientation == NButtonRole::OrientationRight ? expected.width() - 1 : inside.right());
        inside.setBottom(orientation == NButtonRole::OrientationBottom ? expected.height() - 1 : inside.bottom());
        QVERIFY(inside.contains(QRect(iconPosition(role, orientation, frameWidth), iconImage(role).size())));
    }
}

void tst_NButtonRole::unknownRoleHasNoIcon_data()
{
    QTest::addColumn<int>("role");
    QTest::newRow("none") << 0;
    QTest::newRow("beyond the last") << 21;
    QTest::newRow("negative") << -1;
}

void tst_NButtonRole::unknownRoleHasNoIcon()
{
    QFETCH(int, role);
    NButtonRole widget(NButtonRole::OrientationLeft, static_cast<Role>(role), nullptr);
    QScopedPointer<QStyle> style(QStyleFactory::create(QString::fromLatin1("Windows")));
    widget.setStyle(style.data());
    QCOMPARE(widget.role(), static_cast<Role>(role));
    QVERIFY(!NButtonRole::S_ICONS_PATH.contains(widget.role()));
    const QImage image = picture(&widget);
    const int frameWidth = style->pixelMetric(QStyle::PM_DefaultFrameWidth, nullptr, &widget);
    for (int y = frameWidth; y < image.height() - frameWidth; ++y) {
        for (int x = 0; x < image.width() - frameWidth; ++x)
            QCOMPARE(image.pixel(x, y), QRgb(0xffefefef));
    }
}

void tst_NButtonRole::unknownOrientationHasNoOpenSide()
{
    PlainFrameStyle style(1);
    NButtonRole widget(static_cast<Orientation>(7), NButtonRole::RoleHome, nullptr);
    widget.setStyle(&style);
    widget.setPalette(testPalette(0xffefefef));
    widget.resize(30, 30);
    QImage image(30, 30, QImage::Format_ARGB32);
    image.fill(0xffefefef);
    widget.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    for (int side = 0; side < Orientations; ++side)
        QCOMPARE(drawnPixelsOfEdge(image, side, 1, 0xffefefef), 28);
    QCOMPARE(difference(image, QPoint(7, 7), onBackground(iconImage(1), 0xffefefef)), 0);
}

void tst_NButtonRole::iconIsSharpAtDevicePixelRatio_data()
{
    QTest::addColumn<int>("role");
    QTest::addColumn<int>("enlarged");
    QTest::addColumn<int>("reduced");
    for (int role = 1; role <= LastRole; ++role) {
        QTest::newRow((QByteArray(RoleNames[role]) + " at 1").constData()) << role << 1 << 1;
        QTest::newRow((QByteArray(RoleNames[role]) + " at 1.5").constData()) << role << 3 << 2;
        QTest::newRow((QByteArray(RoleNames[role]) + " at 2").constData()) << role << 2 << 1;
        QTest::newRow((QByteArray(RoleNames[role]) + " at 3").constData()) << role << 3 << 1;
    }
}

// At a whole ratio the pixels of the icon are repeated. At 1.5 a pixel that lies on the border of two pixels of
// the icon has their mean, so that no transition is wider than a pixel.
void tst_NButtonRole::iconIsSharpAtDevicePixelRatio()
{
    QFETCH(int, role);
    QFETCH(int, enlarged);
    QFETCH(int, reduced);
    const qreal ratio = qreal(enlarged) / reduced;
    PlainFrameStyle style(1);
    for (int orientation = 0; orientation < Orientations; ++orientation) {
        NButtonRole widget(Orientation(orientation), Role(role), nullptr);
        widget.setStyle(&style);
        const QImage image = picture(&widget, ratio);
        const QPointF position = QPointF(iconPosition(role, orientation, 1)) * ratio;
        const QImage expected = scaledIcon(onBackground(iconImage(role), 0xffefefef), enlarged, reduced);
        QVERIFY(difference(image, position.toPoint(), expected) <= (reduced == 1 ? 0 : 2));
    }
}

void tst_NButtonRole::iconIsSharpWithScaleFactor_data()
{
    QTest::addColumn<QByteArray>("factor");
    QTest::addColumn<int>("enlarged");
    QTest::addColumn<int>("reduced");
    QTest::newRow("1") << QByteArray("1") << 1 << 1;
    QTest::newRow("1.5") << QByteArray("1.5") << 3 << 2;
    QTest::newRow("2") << QByteArray("2") << 2 << 1;
    QTest::newRow("3") << QByteArray("3") << 3 << 1;
}

// In a window of a process of its own, with the pixels of a real screen.
void tst_NButtonRole::iconIsSharpWithScaleFactor()
{
    QFETCH(QByteArray, factor);
    QFETCH(int, enlarged);
    QFETCH(int, reduced);
    if (!NTest::hasScaleFactor())
        enlarged = reduced = 1;
    const NTemporaryDirectory directory;
    const QString path = directory.filePath(QString::fromLatin1("window.png"));
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1("QT_SCALE_FACTOR"), QString::fromLatin1(factor));
    process.setProcessEnvironment(environment);
    process.start(
        QCoreApplication::applicationFilePath(), QStringList() << QString::fromLatin1("--window") << path);
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 0);

    const qreal ratio = qreal(enlarged) / reduced;
    const QImage image = QImage(path).convertToFormat(QImage::Format_ARGB32);
    QCOMPARE(image.width(), qCeil(101 * ratio));
    // Both begin at a half pixel of a screen with the ratio 1.5.
    const int roles[] = {NButtonRole::RoleHome, NButtonRole::RoleBoxCheck};
    const QRect places[] = {QRect(4, 5, 19, 22), QRect(51, 32, 22, 19)};
    for (int index = 0; index < 2; ++index) {
        const QImage expected = scaledIcon(onBackground(iconImage(roles[index]), 0xffefefef), enlarged, reduced);
        int least = 255;
        for (int y = int(places[index].top() * ratio); y < int(places[index].bottom() * ratio); ++y) {
            for (int x = int(places[index].left() * ratio); x < int(places[index].right() * ratio); ++x)
                least = qMin(least, difference(image, QPoint(x, y), expected));
        }
        QVERIFY2(least <= (reduced == 1 ? 0 : 2), qPrintable(QString::number(least)));
    }
}

// In a view that is turned, the pixels of the icon are those of no screen.
void tst_NButtonRole::iconIsTurnedWithThePainter()
{
    PlainFrameStyle style(1);
    NButtonRole widget(NButtonRole::OrientationLeft, NButtonRole::RoleUp, nullptr);
    widget.setStyle(&style);
    const QImage upright = picture(&widget);
    QImage image(upright.height(), upright.width(), QImage::Format_ARGB32_Premultiplied);
    image.fill(0xffefefef);
    QPainter painter(&image);
    painter.translate(upright.height(), 0);
    painter.rotate(90);
    widget.render(&painter, QPoint(), QRegion(), QWidget::DrawChildren);
    painter.end();
    QTransform turn;
    turn.rotate(90);
    const QImage turned = onBackground(iconImage(NButtonRole::RoleUp), 0xffefefef).transformed(turn);
    QCOMPARE(difference(image.convertToFormat(QImage::Format_ARGB32), QPoint(2, 1), turned), 0);
}

void tst_NButtonRole::layoutDirectionChangesNothing_data()
{
    QTest::addColumn<int>("orientation");
    for (int orientation = 0; orientation < Orientations; ++orientation)
        QTest::newRow(OrientationNames[orientation]) << orientation;
}

void tst_NButtonRole::layoutDirectionChangesNothing()
{
    QFETCH(int, orientation);
    NButtonRole widget(Orientation(orientation), NButtonRole::RoleBack, nullptr);
    const QImage image = picture(&widget);
    widget.setLayoutDirection(Qt::RightToLeft);
    QVERIFY(widget.isRightToLeft());
    QCOMPARE(picture(&widget), image);
}

void tst_NButtonRole::styleSheetSetsTheFrame_data()
{
    layoutDirectionChangesNothing_data();
}

void tst_NButtonRole::styleSheetSetsTheFrame()
{
    QFETCH(int, orientation);
    NButtonRole widget(Orientation(orientation), NButtonRole::RoleHome, nullptr);
    widget.setStyleSheet(QString::fromLatin1("NButtonRole { border: 3px solid #ff8000; }"));
    widget.ensurePolished();
    const bool vertical =
        orientation == NButtonRole::OrientationLeft || orientation == NButtonRole::OrientationRight;
    QCOMPARE(widget.sizeHint(), vertical ? QSize(21, 24) : QSize(24, 21));
    const QImage image = picture(&widget);
    for (int side = 0; side < Orientations; ++side) {
        const int expected = side == orientation ? 0 : edgeLength(image, side, 3);
        QCOMPARE(drawnPixelsOfEdge(image, side, 3, 0xffefefef), expected);
    }
    QCOMPARE(image.pixel(orientation == 0 ? 20 : 10, orientation == 2 ? 20 : 1), QRgb(0xffff8000));
    QCOMPARE(
        difference(
            image, iconPosition(NButtonRole::RoleHome, orientation, 3), onBackground(iconImage(1), 0xffefefef)),
        0);
}

void tst_NButtonRole::picturesMatchTheReferences_data()
{
    QTest::addColumn<QString>("style");
    const QStringList styles = referenceStyles();
    int rows = 0;
    for (int index = 0; index < styles.size(); ++index) {
        // Qt 4 has no Fusion.
        if (!QStyleFactory::keys().contains(styles.at(index)))
            continue;
        QTest::newRow(styles.at(index).toLatin1().constData()) << styles.at(index);
        ++rows;
    }
    QVERIFY(rows > 0);
}

// Made with --write-references and looked at.
void tst_NButtonRole::picturesMatchTheReferences()
{
    QFETCH(QString, style);
    const QImage reference = QImage(referencePath(style)).convertToFormat(QImage::Format_ARGB32);
    const QImage image = referencePicture(style);
    QCOMPARE(reference.size(), image.size());
    int differing = 0;
    for (int orientation = 0; orientation < Orientations; ++orientation) {
        for (int role = 0; role <= LastRole; ++role) {
            const QRect cell(role * CellSize, orientation * CellSize, CellSize, CellSize);
            if (image.copy(cell) == reference.copy(cell))
                continue;
            qWarning("%s, %s differs from the reference", RoleNames[role], OrientationNames[orientation]);
            ++differing;
        }
    }
    QCOMPARE(differing, 0);
}

// Called by the leak sanitizer. Qt's platform plugin does not delete its screen at the end. What this program
// allocates and loses itself is still reported.
extern "C" Q_DECL_EXPORT const char* __lsan_default_suppressions()
{
    return "leak:libqoffscreen.so\nleak:libQt5Gui.so\nleak:libQt5Core.so\n";
}

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Qt would otherwise make one that remains.
    const NTemporaryDirectory runtimeDirectory;
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDirectory.path()));
    QApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() == 3 && arguments.at(1) == QLatin1String("--window"))
        return showWindow(arguments.at(2));
    if (arguments.contains(QString::fromLatin1("--write-references"))) {
        const QStringList styles = referenceStyles();
        for (int index = 0; index < styles.size(); ++index)
            referencePicture(styles.at(index)).save(referencePath(styles.at(index)));
        return 0;
    }
    tst_NButtonRole test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_nbuttonrole.moc"
