# What `cmake --install` puts under the prefix: the shared library, its
# public headers, the qel command, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

set(QEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qel)

install(TARGETS qel EXPORT qelTargets)
# The admin server (qel::admin), where cpp-httplib was found.
if(TARGET qel_admin)
  install(TARGETS qel_admin EXPORT qelTargets)
endif()
install(DIRECTORY include/qel/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qel
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/qel/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qel)

# The command finds the library beside it in the prefix, wherever that is.
if(TARGET qel_cli)
  file(RELATIVE_PATH qel_bin_to_lib
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(qel_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${qel_bin_to_lib}")
  install(TARGETS qel_cli)
endif()

install(EXPORT qelTargets NAMESPACE qel:: DESTINATION ${QEL_CMAKE_DIR})
configure_package_config_file(cmake/qelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qelConfig.cmake INSTALL_DESTINATION ${QEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qelConfig.cmake ${PROJECT_BINARY_DIR}/qelConfigVersion.cmake
  DESTINATION ${QEL_CMAKE_DIR})

# qel.pc names the prefix given to `cmake --install --prefix`, so that part
# is filled in at install time. Only the shared library is installed, so
# zlib, libdeflate and OpenSSL stay out of it: nothing links them on the
# consumer's side.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(QEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(QEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
if(QEL_SANITIZE)
  set(QEL_PC_LINK_FLAGS " -fsanitize=address,undefined")
endif()
set(QEL_PC_PREFIX "@QEL_PC_PREFIX@")
configure_file(cmake/qel.pc.in ${PROJECT_BINARY_DIR}/qel.pc.in @ONLY)
install(CODE "
  set(QEL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/qel.pc.in\" \"${PROJECT_BINARY_DIR}/qel.pc\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/qel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
