# The device: 64-bit Arm, API level 28. Compiled by Debian's clang against headers of our own
# (standin/android), and linked with libraries that have the names and no code: what is built shows
# that nothing is missing there, and does not run.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY) # there is no library to link a trial with
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-android28)
set(CMAKE_FIND_ROOT_PATH /nowhere)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_HAVE_LIBC_PTHREAD ON) # libc has the threads
set(CMAKE_OBJCOPY aarch64-linux-gnu-objcopy)
