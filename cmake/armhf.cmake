# Cross build for the device's userland, 32-bit ARM (armhf), with Debian's cross compiler and
# the armhf libraries unpacked by scripts/armhf-deps.sh. Tests run under qemu-arm.
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(_capture_root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(CAPTURE_DEPS_ROOT "${_capture_root}/build/armhf-deps/root" CACHE PATH
    "Folder the armhf libraries are unpacked in")
set(_libdir "${CAPTURE_DEPS_ROOT}/usr/lib/arm-linux-gnueabihf")

set(CMAKE_FIND_ROOT_PATH "${CAPTURE_DEPS_ROOT}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers for the unpacked armhf folder, not for the host.
set(ENV{PKG_CONFIG_LIBDIR} "${_libdir}/pkgconfig:${CAPTURE_DEPS_ROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CAPTURE_DEPS_ROOT}")

# The Android libraries need their own dependencies at link time only.
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_libdir}:${_libdir}/android:${CAPTURE_DEPS_ROOT}/usr/lib/p7zip:${CAPTURE_DEPS_ROOT}/lib/arm-linux-gnueabihf")
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_libdir}:${_libdir}/android:${CAPTURE_DEPS_ROOT}/usr/lib/p7zip:${CAPTURE_DEPS_ROOT}/lib/arm-linux-gnueabihf")

set(CMAKE_CROSSCOMPILING_EMULATOR "${_capture_root}/scripts/qemu-armhf")
