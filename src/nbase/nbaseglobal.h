#ifndef NBASE_NBASEGLOBAL_H
#define NBASE_NBASEGLOBAL_H

#include <QtCore/qglobal.h>

/** Marks what libnbase.so.1 makes public; everything else in the library is hidden. */
#ifdef NBASE_BUILD
#define NBASE_EXPORT Q_DECL_EXPORT
#else
#define NBASE_EXPORT Q_DECL_IMPORT
#endif

#endif
