// Uses the user interface of the library, as the application of a device with a screen would: prints the size of a
// widget.

#include <nbase/device/nbuttonrole.h>

#include <QApplication>
#include <QPixmap>

#include <iostream>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    const NButtonRole button(NButtonRole::OrientationLeft, NButtonRole::RoleHome, nullptr);
    const QPixmap icon(NButtonRole::S_ICONS_PATH.value(button.role()));
    std::cout << icon.width() << ' ' << (button.sizeHint().width() > icon.width()) << '\n';
    return 0;
}
