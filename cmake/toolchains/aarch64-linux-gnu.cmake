# Cross build for the target (Linux, aarch64) with Debian's cross compiler and the arm64
# development packages installed through multiarch (scripts/setup --cross). The tests run under
# qemu-user; the interface generator and every other build tool run on the host.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ORVANE_TARGET_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${ORVANE_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ORVANE_TARGET_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORVANE_TARGET_TRIPLE})

# Libraries and CMake packages come from the multiarch directories (/usr/lib/aarch64-linux-gnu,
# through CMAKE_LIBRARY_ARCHITECTURE) and the cross toolchain's sysroot; the compiler itself
# searches /usr/include/aarch64-linux-gnu. Programs (python3, pkg-config) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${ORVANE_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config reads the arm64 .pc files only; the host's would hand out x86_64 link paths.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${ORVANE_TARGET_TRIPLE}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Test discovery and ctest run the target's binaries through qemu-user. The dynamic loader and
# the C library both come from the multiarch libc6:arm64 (/lib/ld-linux-aarch64.so.1), never the
# cross toolchain's sysroot: that sysroot holds another build of glibc, and its loader finds the
# multiarch libc through /etc/ld.so.cache; a loader and a libc of two builds make
# pthread_create spin for ever. "-L /" keeps a QEMU_LD_PREFIX of the caller's out of it.
find_program(ORVANE_QEMU NAMES qemu-aarch64-static qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVANE_QEMU} -L /)
