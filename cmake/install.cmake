# What `cmake --install` puts in place, relocatable: every installed file
# finds the others relative to itself, so a tree may be staged with DESTDIR
# or moved to another prefix.
#   include/tarvikel/   the public headers and kelhost.h (they include each
#                       other by plain name, so this folder is the include path)
#   lib/                libtarvikel.so -> .so.1 -> .so.1.0.0, libkelhost.so
#   lib/pkgconfig/      tarvikel.pc, kelhost.pc
#   lib/cmake/tarvikel/ the package: tarvikel::tarvikel, tarvikel::kelhost
# A device links tarvikel alone and brings its own host components; a trial
# on a host adds the stand-ins, kelhost. Archives and test programs stay out.
include(CMakePackageConfigHelpers)

set(KEL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tarvikel)
set(KEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarvikel)
set(KEL_INSTALL_PCDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(lib tarvikel kelhost)
  target_include_directories(${lib} INTERFACE
    $<INSTALL_INTERFACE:${KEL_INSTALL_INCLUDEDIR}>)
  # A sanitized build's libraries need the sanitizer runtimes loaded first,
  # so whatever links them is linked with the same option.
  if(KEL_SANITIZE)
    target_link_options(${lib} INTERFACE -fsanitize=address,undefined)
  endif()
endforeach()

install(TARGETS tarvikel kelhost EXPORT tarvikelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
file(GLOB KEL_PUBLIC_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/include/*.h)
install(FILES ${KEL_PUBLIC_HEADERS} host/kelhost.h
  DESTINATION ${KEL_INSTALL_INCLUDEDIR})

install(EXPORT tarvikelTargets NAMESPACE tarvikel::
  DESTINATION ${KEL_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/tarvikelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tarvikelConfig.cmake
  INSTALL_DESTINATION ${KEL_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/tarvikelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarvikelConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tarvikelConfigVersion.cmake
  DESTINATION ${KEL_INSTALL_CMAKEDIR})

# pkg-config: the prefix is the .pc file's folder less the library folders.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "the installed files find each other by relative paths: "
                      "give CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR relative")
endif()
file(RELATIVE_PATH KEL_PC_TO_PREFIX /${KEL_INSTALL_PCDIR} /)
string(REGEX REPLACE "/$" "" KEL_PC_TO_PREFIX "${KEL_PC_TO_PREFIX}")
if(KEL_SANITIZE)
  set(KEL_PC_LINK_OPTIONS " -fsanitize=address,undefined")
endif()
foreach(pc tarvikel kelhost)
  configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${KEL_INSTALL_PCDIR})
endforeach()
