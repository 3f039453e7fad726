// The functions of nsystemcalls.h for programs that have their own functions to sleep.

#include "support/nsystemcalls.cpp"

#include "support/nsystemcallhooks.cpp"

__asm__(".weak usleep\n.weak nanosleep");
