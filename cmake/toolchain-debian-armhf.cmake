# Compiles for 32-bit ARM (hard float) on Debian, with Debian's cross compiler and its ARM packages, and runs programs that
# were built in an emulator. docs/building.md lists the packages.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)

# The cross compiler's own libraries, which the emulated programs load, and those of the ARM packages.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
