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

# Test discovery and ctest run the target's binaries through qemu-user, with the cross
# toolchain's sysroot for the dynamic loader and the C library.
find_program(ORVANE_QEMU NAMES qemu-aarch64-static qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVANE_QEMU} -L /usr/${ORVANE_TARGET_TRIPLE})
