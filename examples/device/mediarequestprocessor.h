#ifndef DEMODEVICE_MEDIAREQUESTPROCESSOR_H
#define DEMODEVICE_MEDIAREQUESTPROCESSOR_H

#include <nwebapi/nwastandardfcgirequestprocessor.h>

class NRemovableMediasList;

/**
 * Serves the removable media that are present, in the order of their names. GET answers
 *
 *     [{"name": "sda1", "label": "UPDATES", "type": "usb", "size": 8000000000, "used": 1500000000,
 *       "free": 6500000000, "readOnly": false}]
 *
 * with the sizes in bytes, which are null when the medium's file system cannot be asked. The requests do not keep
 * the session alive: a page sends them by itself. The same document is the event "media" whenever a medium is
 * inserted or removed.
 */
class MediaRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /** Both must outlive the processor. */
    MediaRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, const NRemovableMediasList* medias);

    static QVariantList toVariant(const NRemovableMediasList& medias);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;

private:
    const NRemovableMediasList* m_medias;
};

#endif
