# 32-bit Arm with Debian's cross compiler. Libraries come from a folder of Debian's armhf packages, so that the build
# machine's own packages stay as they are; scripts/check-arm makes it. Programs run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

set(KO_ARM_PACKAGES ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-packages CACHE PATH "Folder of unpacked armhf packages")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KO_ARM_PACKAGES)
cmake_path(ABSOLUTE_PATH KO_ARM_PACKAGES NORMALIZE OUTPUT_VARIABLE root)
set(libraries ${root}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})

set(CMAKE_FIND_ROOT_PATH ${root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/pkgconfig:${root}/usr/share/pkgconfig)

# libc and the C++ library come with the compiler; these are the headers and libraries of everything else.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${root}/usr/include)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-L${libraries} -Wl,-rpath-link,${libraries}:${root}/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${root})
