# What is installed, in two components: runtime (what a program needs to run) and development (what
# it takes to build one). qvcl-trace and the man pages are installed where they are made. The target
# `uninstall` takes it all away again.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/qvcl")
set(targets qvcl)
if(TARGET qvcl-starter)
    list(APPEND targets qvcl-starter qvcl-cpp)
endif()
if(TARGET qvcl-kit)
    list(APPEND targets qvcl-kit)
endif()
install(TARGETS ${targets} EXPORT qvcl-targets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
install(DIRECTORY include/qvcl TYPE INCLUDE COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

# Nothing has to be found first, so the exported targets are the whole package file.
install(EXPORT qvcl-targets FILE qvcl-config.cmake NAMESPACE qvcl:: DESTINATION "${package_dir}"
        COMPONENT development)
write_basic_package_version_file(qvcl-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/qvcl-config-version.cmake"
        DESTINATION "${package_dir}" COMPONENT development)

# The pkg-config files reach the package from where they lie, so that a moved tree still works.
# Packagers give folders as absolute paths, too.
set(pc_folder "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH pc_prefix "${pc_folder}" "${CMAKE_INSTALL_PREFIX}")
file(RELATIVE_PATH pc_libdir "${pc_folder}" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH pc_includedir "${pc_folder}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
function(install_pkgconfig pc_name pc_description pc_requires)
    configure_file(cmake/pkgconfig.pc.in ${pc_name}.pc @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${pc_name}.pc"
            DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
endfunction()
install_pkgconfig(qvcl "${PROJECT_DESCRIPTION}" "")
if(TARGET qvcl-starter)
    install_pkgconfig(qvcl-starter "Starts programs and tells when they are up, on top of qvcl" qvcl)
endif()
if(TARGET qvcl-kit)
    install_pkgconfig(qvcl-kit "Stand-ins for failing system calls and time, for test programs" qvcl)
endif()

if(PROJECT_IS_TOP_LEVEL)
    add_custom_target(uninstall
        COMMAND "${CMAKE_COMMAND}" -P "${CMAKE_CURRENT_SOURCE_DIR}/cmake/uninstall.cmake"
        COMMENT "Removing what was installed" VERBATIM)
endif()
