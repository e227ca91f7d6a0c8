# SPDX-License-Identifier: MIT
# Cross build for 32-bit ARM (hard float) with Debian's cross compiler and
# the armhf development packages installed side by side with the host's
# (multiarch): headers are shared in /usr/include, libraries, pkg-config
# files and CMake package files live in /usr/lib/arm-linux-gnueabihf.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Everything needed comes from `scripts/setup.sh cross`. Test executables run
# under qemu-arm (binfmt_misc need not be registered): ctest prefixes them
# with CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(ALD_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE ${ALD_CROSS_TRIPLET})
set(CMAKE_C_COMPILER ${ALD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ALD_CROSS_TRIPLET}-g++)
set(CMAKE_STRIP ${ALD_CROSS_TRIPLET}-strip CACHE FILEPATH "")

# The compiler already searches the cross libc (/usr/arm-linux-gnueabihf)
# and /usr/include. find_package and find_library search the multiarch
# directories of CMAKE_LIBRARY_ARCHITECTURE under /usr, never the host's
# x86_64 ones; programs (pkg-config, qemu) are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must see only the armhf .pc files (jansson, libmnl); the host's
# would hand out x86_64 libraries.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${ALD_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# The build asks for 64-bit time_t and off_t (CMakeLists.txt). Debian 12
# builds its armhf libraries (jansson, libmnl, libstdc++, GoogleTest) with
# the 32-bit types; nothing we call in them takes a time_t, an off_t or a
# structure holding one.
# -Wno-psabi: GCC notes that passing some standard-library types changed in
# GCC 7.1; everything here is built by one newer compiler.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# The host's root is the target's: libc6:armhf puts the dynamic loader at
# /lib/ld-linux-armhf.so.3 and the libraries in the multiarch directories.
# "-L /" keeps qemu from mapping paths into a prefix of its own.
find_program(ALD_QEMU_ARM qemu-arm)
if(ALD_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ALD_QEMU_ARM};-L;/")
endif()
