# Runs when the files of each package lie ready: gives each its changelogs, its copyright and its lintian overrides, and
# compresses what is to be compressed.
file(GLOB folders "${CPACK_TEMPORARY_DIRECTORY}/*")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(folder ${folders})
    cmake_path(GET folder FILENAME component)
    string(TOUPPER ${component} component)
    set(package ${CPACK_DEBIAN_${component}_PACKAGE_NAME})
    set(documents ${folder}/usr/share/doc/${package})
    file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${documents})
    configure_file(${CMAKE_CURRENT_LIST_DIR}/../../CHANGELOG.md ${documents}/changelog COPYONLY)
    file(WRITE ${documents}/changelog.Debian
        "fota (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
        "  * See changelog.gz.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
    set(overrides ${folder}/usr/share/lintian/overrides/${package})
    configure_file(${CMAKE_CURRENT_LIST_DIR}/lintian-overrides ${overrides} @ONLY)
    if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides.${package})
        file(READ ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides.${package} own)
        file(APPEND ${overrides} "${own}")
    endif()
endforeach()
file(GLOB_RECURSE documents "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-8]" "${CPACK_TEMPORARY_DIRECTORY}/*/changelog*")
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
