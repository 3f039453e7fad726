// Switches a relay on while a door is open.
//
//     nbase-example-doorlight <line of the door contact> <line of the relay>
//
// The contact is closed while the door is closed, and connects the line to ground. The chip pulls the open contact
// up and the kernel suppresses the bouncing, so the level is high exactly while the door is open. The relay falls
// off when the program ends, however that happens.

#include "gpioinput.h"
#include "gpiooutput.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QStringList>

class DoorLight : public QObject
{
    Q_OBJECT

public:
    DoorLight(NAbstractInput* door, NAbstractOutput* light)
        : m_door(door)
        , m_light(light)
    {
        connect(door, SIGNAL(stateChanged(bool, bool)), SLOT(update()));
        connect(light, SIGNAL(stateChanged(bool, bool)), SLOT(report()));
        update();
    }

private slots:
    void update()
    {
        // An input that cannot be read is not active.
        m_light->setActive(m_door->isActive());
    }

    void report()
    {
        if (m_light->isValid())
            qDebug() << "the light is" << (m_light->isActive() ? "on" : "off");
        else
            qDebug() << "the light cannot be switched";
    }

private:
    NAbstractInput* m_door;
    NAbstractOutput* m_light;
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3)
        return 2;

    GpioInput::Settings doorSettings;
    doorSettings.bias = GpioInput::BiasPullUp;
    doorSettings.debounce = 20000; // microseconds
    GpioInput door(arguments.at(1), GpioInput::PolarityNo, doorSettings, nullptr);
    if (!door.isValid())
        qWarning() << "door:" << door.errorText();

    GpioOutput::Settings lightSettings;
    lightSettings.end = GpioOutput::EndLow;
    GpioOutput light(arguments.at(2), GpioOutput::PolarityNo, false, lightSettings, nullptr);
    if (!light.isValid())
        qWarning() << "light:" << light.errorText();

    DoorLight doorLight(&door, &light);
    return QCoreApplication::exec();
}

#include "doorlight.moc"
