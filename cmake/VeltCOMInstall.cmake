# What `cmake --install` puts into a prefix for component authors and
# applications: the public headers, libveltcom.so, the CMake package VeltCOM
# (imported target VeltCOM::veltcom, veltcom_add_component and
# veltcom_add_idl) and veltcom.pc for pkg-config. The veltcom tool and
# veltcom-idl install themselves beside them (tools/).
# Every file refers to the prefix relatively, so an installed tree may be
# moved as a whole.
include(CMakePackageConfigHelpers)

set(VELTCOM_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/VeltCOM")

# Code built against the installed package sees the installed headers and
# compiles as C++17, the language the headers are written in.
target_include_directories(veltcom INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(veltcom INTERFACE cxx_std_17)
# The library needs no run path of its own; the tool gets one (see CMAKE_INSTALL_RPATH).
set_target_properties(veltcom PROPERTIES INSTALL_RPATH "")

install(TARGETS veltcom EXPORT VeltCOMTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

install(EXPORT VeltCOMTargets NAMESPACE VeltCOM:: DESTINATION ${VELTCOM_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VeltCOMConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VeltCOMConfig.cmake
  INSTALL_DESTINATION ${VELTCOM_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_BINDIR)
# The package's major version is the library's SONAME version: within it
# the binary contract holds.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VeltCOMConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/VeltCOMConfig.cmake
  ${PROJECT_BINARY_DIR}/VeltCOMConfigVersion.cmake
  ${CMAKE_CURRENT_LIST_DIR}/VeltCOMComponent.cmake
  ${CMAKE_CURRENT_LIST_DIR}/VeltCOMIdl.cmake
  ${CMAKE_CURRENT_LIST_DIR}/veltcom-component.map
  DESTINATION ${VELTCOM_CMAKE_DIR})

# pkg-config finds the prefix from where the .pc file lies.
file(RELATIVE_PATH VELTCOM_PC_PREFIX
  "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" VELTCOM_PC_PREFIX "${VELTCOM_PC_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/veltcom.pc.in ${PROJECT_BINARY_DIR}/veltcom.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/veltcom.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
