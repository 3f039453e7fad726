#ifndef NWEBAPI_NWAGLOBAL_H
#define NWEBAPI_NWAGLOBAL_H

#include <QtCore/qglobal.h>

/** Marks what libnwebapi.so.1 makes public; everything else in the library is hidden. */
#ifdef NWEBAPI_BUILD
#define NWEBAPI_EXPORT Q_DECL_EXPORT
#else
#define NWEBAPI_EXPORT Q_DECL_IMPORT
#endif

#endif
