# veltcom_add_component(<name> <source>...)
#
# Builds the component library lib<name>.so against VeltCOM::veltcom:
# hidden visibility for everything, inline functions included, and a linker
# version script that lets only the four entry points (GetClassObject,
# CanUnloadNow, DllRegisterServer, DllUnregisterServer) and, for a component
# built from a definition, GetTypeLibrary leave the library.
# Undefined symbols fail the link rather than the first load.
#
# The sources see VELTCOM_COMPONENT_FILE, the library's file name as a
# string literal ("lib<name>.so"): give it to COM_DEFINE_MODULE so that the
# InprocServer32 the component registers names the file that was built.
# The target is an ordinary shared library; add sources, include directories
# or libraries with the usual target_* commands.

set(_VELTCOM_COMPONENT_MAP "${CMAKE_CURRENT_LIST_DIR}/veltcom-component.map")

function(veltcom_add_component name)
  if(NOT ARGN)
    message(FATAL_ERROR "veltcom_add_component(${name}): no sources given")
  endif()
  if(NOT TARGET VeltCOM::veltcom)
    message(FATAL_ERROR "veltcom_add_component(${name}): VeltCOM::veltcom is not defined; "
                        "call find_package(VeltCOM CONFIG) first")
  endif()
  add_library(${name} SHARED ${ARGN})
  target_link_libraries(${name} PRIVATE VeltCOM::veltcom)
  set_target_properties(${name} PROPERTIES
    PREFIX "lib"
    SUFFIX ".so"
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LINK_DEPENDS "${_VELTCOM_COMPONENT_MAP}")
  target_compile_definitions(${name} PRIVATE
    "VELTCOM_COMPONENT_FILE=\"$<TARGET_FILE_NAME:${name}>\"")
  target_link_options(${name} PRIVATE
    "LINKER:--version-script=${_VELTCOM_COMPONENT_MAP}"
    "LINKER:--no-undefined")
endfunction()
