# Cross build for the units (32-bit ARM, hard-float) with Debian's cross
# compiler and multiarch libraries (dpkg --add-architecture armhf; the
# packages are in scripts/install-deps.sh's "arm" group):
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake
# Test executables run under user-mode qemu, so ctest works on the build host.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(VTEST_ARM_TRIPLET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${VTEST_ARM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VTEST_ARM_TRIPLET}-g++)
# GCC notes that an ABI detail changed in GCC 7.1; nothing here links with
# code that old, so the note is noise.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Selects /usr/lib/arm-linux-gnueabihf (and its cmake/ and pkgconfig/) in
# every find_*; the host's /usr/lib/x86_64-linux-gnu is never searched.
set(CMAKE_LIBRARY_ARCHITECTURE ${VTEST_ARM_TRIPLET})
# Keeps pkg-config (FindOpenSSL asks it for hints) off the host's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${VTEST_ARM_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# No -L prefix: qemu then takes the loader and libc from the multiarch
# libc6:armhf under /lib/arm-linux-gnueabihf, as a unit has them. (With
# -L /usr/arm-linux-gnueabihf, the cross toolchain's older libc, children
# crash right after fork under qemu 7.2.)
find_program(VTEST_QEMU_ARM NAMES qemu-arm-static qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VTEST_QEMU_ARM})
