# 32-bit ARM with hardware floating point: the distribution's cross compiler, the libraries that `scripts/setup --armhf`
# unpacks, and user-mode emulation to run the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/packages)
    message(FATAL_ERROR "There are no ARM libraries in ${CMAKE_SYSROOT}: run scripts/setup --armhf first.")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})
# The kernel makes a user namespace only for a process with one thread, and the emulator has several: what an ordinary
# user needs for the sandbox is made before it starts.
execute_process(COMMAND id -u OUTPUT_VARIABLE user OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT user EQUAL 0)
    list(PREPEND CMAKE_CROSSCOMPILING_EMULATOR unshare --user --map-root-user)
endif()
