# Runs when the files of each package lie ready: gives each its changelog and copyright, and compresses what is to be
# compressed.
file(GLOB folders "${CPACK_TEMPORARY_DIRECTORY}/*")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(folder ${folders})
    cmake_path(GET folder FILENAME component)
    string(TOUPPER ${component} component)
    set(package ${CPACK_DEBIAN_${component}_PACKAGE_NAME})
    file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${folder}/usr/share/doc/${package})
    file(WRITE ${folder}/usr/share/doc/${package}/changelog
        "${package} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n"
        "  * See CHANGELOG.md of the package fotad.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
endforeach()
file(GLOB_RECURSE documents "${CPACK_TEMPORARY_DIRECTORY}/*/share/man/*.[18]" "${CPACK_TEMPORARY_DIRECTORY}/*/changelog")
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
