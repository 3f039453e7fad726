#include <nbase/network/nmacaddress.h>

// The addresses of the statics as seen by a library that includes the headers.

extern "C" {

Q_DECL_EXPORT const QString* byteRegExpOfEui48()
{
    return &NEui48::S_BYTE_REGEXP;
}

Q_DECL_EXPORT const QString* byteRegExpOfEui64()
{
    return &NEui64::S_BYTE_REGEXP;
}

Q_DECL_EXPORT const QString* regExpOfMacAddress()
{
    return &NMacAddress::S_REG_EXP_STRING;
}
}
