# Cross compilation to AArch64 Linux with Debian's cross compiler. Tests that the build runs go through the
# user-mode emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Only one of the examples needs a Fortran compiler.
find_program(CMAKE_Fortran_COMPILER aarch64-linux-gnu-gfortran)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# The loader and the C library have to come from one package. Where the arm64 libraries are installed, the loader of the
# cross package (-L) would find their C library through the loader's cache, and the first thread would never start.
if(EXISTS "/lib/ld-linux-aarch64.so.1" AND EXISTS "/usr/lib/aarch64-linux-gnu/libstdc++.so.6")
  set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64;-L;/usr/aarch64-linux-gnu")
endif()
