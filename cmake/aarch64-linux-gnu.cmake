# Cross build for 64-bit Arm Linux with glibc, using Debian's cross compiler
# (g++-aarch64-linux-gnu) and the arm64 multiarch libraries
# (libfmt-dev:arm64, libboost-*-dev:arm64, libgtest-dev:arm64,
# libfuse3-dev:arm64). scripts/install-deps.sh --aarch64 installs them.
#
# Target programs (the tool and the test programs) run under qemu-user, so
# CTest, test discovery and the tests that start the tool work on any host.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QVEXFAT_TARGET_TRIPLET aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${QVEXFAT_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QVEXFAT_TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QVEXFAT_TARGET_TRIPLET})

# Multiarch: the target's libraries and CMake packages live beside the
# host's under /usr, in lib/aarch64-linux-gnu, which CMAKE_LIBRARY_ARCHITECTURE
# selects; the headers are shared. No separate sysroot is needed.

# pkg-config must see the arm64 .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${QVEXFAT_TARGET_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The target's programs run with the arm64 multiarch loader and libraries
# (libc6:arm64 and the rest under /lib/aarch64-linux-gnu), hence the root
# "/" as qemu's prefix. The cross toolchain's own copy of the loader in
# /usr/aarch64-linux-gnu is a different build of glibc from the multiarch
# libc.so.6 it would load, and that mix hangs fork()ed children.
find_program(QVEXFAT_QEMU qemu-${CMAKE_SYSTEM_PROCESSOR} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QVEXFAT_QEMU} -L /)
