# Makes `target` (an existing shared library) a library of the package: the alias
# Vexlor::<EXPORT_NAME>, a generated export header <EXPORT_BASE>_export.h, the version and
# SONAME, and the install rules into the package's export set.
function(vexlor_package_library target)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;OUTPUT_NAME;EXPORT_BASE" "" ${ARGN})
  set(export_header ${PROJECT_BINARY_DIR}/generated/${ARG_EXPORT_BASE}_export.h)
  add_library(Vexlor::${ARG_EXPORT_NAME} ALIAS ${target})
  generate_export_header(${target} BASE_NAME ${ARG_EXPORT_BASE} EXPORT_FILE_NAME ${export_header})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${ARG_OUTPUT_NAME}
    EXPORT_NAME ${ARG_EXPORT_NAME}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  # Every symbol must come from a declared dependency, so a link that reaches past its layer
  # fails. Not with sanitizers: clang leaves their runtime to the executable.
  if(NOT VEXLOR_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:--no-undefined)
  endif()
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
    $<INSTALL_INTERFACE:${VEXLOR_INSTALL_INCLUDEDIR}>)
  install(TARGETS ${target} EXPORT VexlorSchedulerTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${export_header} DESTINATION ${VEXLOR_INSTALL_INCLUDEDIR})
endfunction()
