# veltcom_add_idl(<target> <file.idl>...)
#
# Compiles each definition with veltcom-idl into a directory of the build
# tree, <binary dir>/veltcom_idl/<target>, and adds that directory to the
# target's include directories: a source includes "<file>.h". A component
# also writes COM_DEFINE_TYPELIBRARY(TYPELIB_<file>) in one of its sources.
# The compiler is VeltCOM_IDL, set by the package to the installed
# veltcom-idl. Imports are found beside the importing file; "veltcom.idl"
# is the SDK's own.

function(veltcom_add_idl target)
  if(NOT ARGN)
    message(FATAL_ERROR "veltcom_add_idl(${target}): no definition given")
  endif()
  if(NOT VeltCOM_IDL)
    message(FATAL_ERROR "veltcom_add_idl(${target}): VeltCOM_IDL names no veltcom-idl")
  endif()
  set(output ${CMAKE_CURRENT_BINARY_DIR}/veltcom_idl/${target})
  foreach(definition ${ARGN})
    get_filename_component(definition ${definition} ABSOLUTE)
    get_filename_component(stem ${definition} NAME_WE)
    add_custom_command(OUTPUT ${output}/${stem}.h
      COMMAND ${CMAKE_COMMAND} -E make_directory ${output}
      COMMAND ${VeltCOM_IDL} -o ${output} ${definition}
      DEPENDS ${definition} ${VeltCOM_IDL}
      COMMENT "veltcom-idl ${stem}.idl"
      VERBATIM)
    target_sources(${target} PRIVATE ${output}/${stem}.h)
  endforeach()
  target_include_directories(${target} PRIVATE ${output})
endfunction()
