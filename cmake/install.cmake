# What `cmake --install` puts where: the library with its public headers, and what other builds find them by.
include(CMakePackageConfigHelpers)

install(TARGETS lumora_static lumora_shared EXPORT LumoraTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
if(LUMORA_DRIVERS)
  install(TARGETS lumora_drivers EXPORT LumoraTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ka DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN detail EXCLUDE)
foreach(tool vel_diff vel_copy vel_info vel_disp)
  set(component tool)
  if(tool STREQUAL vel_disp)
    if(NOT LUMORA_VIEWER)
      continue()
    endif()
    set(component viewer)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/docs/${tool}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/lumora.bash RENAME ${tool}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${component})
endforeach()
install(FILES CHANGELOG.md docs/library.md docs/pixels.md docs/formats.md docs/vel_info.schema.json
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.c" PATTERN "*.cc" PATTERN "*.h")

# find_package(Lumora)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Lumora)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/LumoraConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/LumoraConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LumoraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT LumoraTargets NAMESPACE Lumora:: DESTINATION ${package_dir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/LumoraConfig.cmake ${PROJECT_BINARY_DIR}/LumoraConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT development)

# pkg-config lumora, found from where its file stands, so that an installation can be moved. The linker prefers the shared
# library. It is C++ inside: a program that links the archive, pkg-config --static, needs the C++ runtime and the JPEG
# codec beside it.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" up ${up})
  set(pc_prefix "\${pcfiledir}/${up}")
endif()
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/lumora.pc.in ${PROJECT_BINARY_DIR}/lumora.pc @ONLY)
if(LUMORA_DRIVERS)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/lumora-drivers.pc.in ${PROJECT_BINARY_DIR}/lumora-drivers.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/lumora-drivers.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endif()
install(FILES ${PROJECT_BINARY_DIR}/lumora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
