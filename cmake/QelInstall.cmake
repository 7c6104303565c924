# What `cmake --install` gives: header, shared library, pkg-config and CMake package, programs, man pages,
# and the files by which a system starts the daemon.
include(CMakePackageConfigHelpers)

install(TARGETS qel EXPORT qelTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/qel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(TARGETS qeld qel-fabric RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Relative to the file's own place, so that the tree may be installed or moved anywhere.
file(RELATIVE_PATH QEL_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/qel.pc.in qel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qel)
install(EXPORT qelTargets NAMESPACE qel:: DESTINATION ${package_dir})
write_basic_package_version_file(qelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/qelConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/qelConfigVersion.cmake
    DESTINATION ${package_dir})

foreach(section 1 3 5 7 8)
    file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${section})
    if(pages)
        install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    endif()
endforeach()

# The module must be loaded and its buffers sized before the daemon starts. The units name the daemon by its
# whole path, and where that is `cmake --install --prefix` decides.
install(CODE "set(unit_templates \"${CMAKE_CURRENT_SOURCE_DIR}/packaging\")
    set(QEL_BINDIR \"${CMAKE_INSTALL_BINDIR}\")")
install(CODE [[
    cmake_path(ABSOLUTE_PATH QEL_BINDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
    foreach(unit qeld.service qeld@.service)
        set(to "${CMAKE_INSTALL_PREFIX}/lib/systemd/system/${unit}")
        message(STATUS "Installing: $ENV{DESTDIR}${to}")
        configure_file("${unit_templates}/${unit}.in" "$ENV{DESTDIR}${to}" @ONLY)
        list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${to}")
    endforeach()
]])
install(PROGRAMS packaging/qeld-console DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/qel-tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME qel.conf)
install(FILES packaging/qel.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES packaging/qel-modules.conf DESTINATION lib/modules-load.d RENAME qel.conf)
install(FILES packaging/qel-sysctl.conf DESTINATION lib/sysctl.d RENAME 60-qel.conf)
