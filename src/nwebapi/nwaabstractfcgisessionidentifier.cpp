#include <nwebapi/nwaabstractfcgisessionidentifier.h>

NwaAbstractFcgiSessionIdentifier::~NwaAbstractFcgiSessionIdentifier() {}
