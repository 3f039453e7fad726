#ifndef NBASE_NREMOVABLEMEDIASLIST_H
#define NBASE_NREMOVABLEMEDIASLIST_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QString>

class NRemovableMedia;

/**
 * The removable media that are present. A derived class of the application finds out which these are, for example
 * by watching the kernel's block devices, and emits the signals; this class keeps no data.
 */
class NBASE_EXPORT NRemovableMediasList : public QObject
{
    Q_OBJECT

public:
    /** For derived classes. */
    explicit NRemovableMediasList(QObject* parent = nullptr);
    ~NRemovableMediasList() override;

    /** The media that are present, by device name; they belong to the list. */
    virtual const QHash<QString, NRemovableMedia*>& removableMedias() const = 0;

    /**
     * Looks now which media are present, for an application that cannot wait until the list notices by itself, and
     * emits the signals for what has changed. The library does not call it.
     */
    virtual void refresh() = 0;

signals:
    /** @a media has been inserted and is in the list. */
    void removableMediaInserted(NRemovableMedia* media);

    /** The medium @a deviceName has been removed and is not in the list anymore. */
    void removableMediaRemoved(const QString& deviceName);

private:
    Q_DISABLE_COPY(NRemovableMediasList)
};

#endif
