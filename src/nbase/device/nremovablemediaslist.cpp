#include <nbase/device/nremovablemediaslist.h>

NRemovableMediasList::NRemovableMediasList(QObject* parent)
    : QObject(parent)
{
}

NRemovableMediasList::~NRemovableMediasList() {}
