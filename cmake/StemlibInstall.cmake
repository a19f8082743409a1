# Installation: headers under include/stemlib/, the library, the CMake package (Stemlib::stemlib)
# and the pkg-config file stemlib.pc.
include(CMakePackageConfigHelpers)

set(STEMLIB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Stemlib)

install(TARGETS stemlib
    EXPORT StemlibTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${STEMLIB_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/stemlib)

install(EXPORT StemlibTargets
    NAMESPACE Stemlib::
    DESTINATION ${STEMLIB_CMAKE_DIR})

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/StemlibConfig.cmake.in
    ${PROJECT_BINARY_DIR}/StemlibConfig.cmake
    INSTALL_DESTINATION ${STEMLIB_CMAKE_DIR})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/StemlibConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/StemlibConfig.cmake
    ${PROJECT_BINARY_DIR}/StemlibConfigVersion.cmake
    DESTINATION ${STEMLIB_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/stemlib.pc.in ${PROJECT_BINARY_DIR}/stemlib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/stemlib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
