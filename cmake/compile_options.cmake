# Flags that every target gets, and fota_daemon_code(), which only the code that runs in the daemon gets.

# 64-bit time and file offsets on 32-bit targets too; the 1.1 interface of OpenSSL also where 3.0 is installed.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64 OPENSSL_API_COMPAT=0x10100000L)

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2)
if(FOTA_WERROR)
    add_compile_options(-Werror)
endif()

if(FOTA_SANITIZE)
    # A report needs names and lines, nothing more.
    add_compile_options(-fsanitize=${FOTA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g1)
    add_link_options(-fsanitize=${FOTA_SANITIZE})
endif()

if(FOTA_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()

if(CMAKE_BUILD_TYPE STREQUAL "Release")
    add_compile_options(-fstack-protector-strong -fstack-clash-protection -ffunction-sections -fdata-sections)
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    # A program names no folder of the machine that it was built on.
    add_compile_options(-ffile-prefix-map=${PROJECT_BINARY_DIR}=build -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
    add_link_options(-pie -Wl,-z,relro,-z,now,-z,noexecstack,--gc-sections)
endif()
add_link_options(-Wl,--as-needed)

# The daemon neither throws nor asks for types at run time.
function(fota_daemon_code target)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
endfunction()
