# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where: libraries, headers, pkg-config files, the CMake package, completion and man pages.
# With KORVA_TOOLS off only the core is there, and only the core is installed. Components are the Debian packages:
# runtime (shared libraries), development, tools.
include(CMakePackageConfigHelpers)

set(korva_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/korva)

# korva_install_library(NAME EXPORT): both libraries of that name, as korva::EXPORT and korva::EXPORT_static.
function(korva_install_library name export)
    set_target_properties(${name} PROPERTIES EXPORT_NAME ${export})
    set_target_properties(${name}_static PROPERTIES EXPORT_NAME ${export}_static)
    foreach(target ${name} ${name}_static)
        target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    endforeach()
    install(TARGETS ${name} ${name}_static EXPORT korva-${export}
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    install(EXPORT korva-${export} NAMESPACE korva:: FILE korva-${export}-targets.cmake
            DESTINATION ${korva_package_dir} COMPONENT development)
endfunction()

# The prefix is found from where the file lies, so that an installation can be moved.
function(korva_install_pkg_config name)
    set(libdir ${CMAKE_INSTALL_LIBDIR})
    file(RELATIVE_PATH korva_up /${libdir}/pkgconfig /)
    string(REGEX REPLACE "/$" "" korva_up "${korva_up}")
    configure_file(cmake/${name}.pc.in ${CMAKE_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/${name}.pc DESTINATION ${libdir}/pkgconfig COMPONENT development)
endfunction()

set(headers libkorva.h korva.hpp)
korva_install_library(korva korva)
korva_install_pkg_config(libkorva)
if(KORVA_TOOLS)
    list(APPEND headers libkorva-elf.h libkorva-proc.h)
    korva_install_library(korva_elf elf)
    korva_install_pkg_config(libkorva-elf)
endif()
list(TRANSFORM headers PREPEND ${CMAKE_SOURCE_DIR}/include/)
install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/libkorva ${CMAKE_SOURCE_DIR}/include/korva
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN *.h PATTERN *.hpp)

configure_package_config_file(cmake/korva-config.cmake.in ${CMAKE_BINARY_DIR}/korva-config.cmake
                              INSTALL_DESTINATION ${korva_package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/korva-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/korva-config.cmake ${CMAKE_BINARY_DIR}/korva-config-version.cmake
        DESTINATION ${korva_package_dir} COMPONENT development)

if(TARGET korva_program)
    install(FILES tools/korva/completion.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            RENAME korva COMPONENT tools)
    install(DIRECTORY tools/korva/schema DESTINATION ${CMAKE_INSTALL_DATADIR}/korva COMPONENT tools)
endif()
