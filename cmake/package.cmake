# `cpack` in the build folder makes Debian packages: the tools, the viewer, the shared library, and what a developer needs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumora)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Lumora developers <lumora@lumora.org>" CACHE STRING "Name and address of who makes packages")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tool library development)
if(LUMORA_VIEWER)
  list(APPEND CPACK_COMPONENTS_ALL viewer)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(library_package liblumora${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME lumora-tools)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liblumora-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${library_package} (= ${PROJECT_VERSION}), libjpeg62-turbo-dev, libdeflate-dev, libtiff-dev, libwebp-dev, zlib1g-dev")
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS libopenexr-3-1-30)  # loaded for OpenEXR files
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_DEBIAN_TOOL_DESCRIPTION "compare two pictures pixel by pixel
vel_diff tells how many pixels of two pictures differ, by how much, and
whether they are identical, similar or different. It can paint the
difference.")
set(CPACK_DEBIAN_VIEWER_PACKAGE_NAME lumora-viewer)
set(CPACK_DEBIAN_VIEWER_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_VIEWER_PACKAGE_RECOMMENDS libopenexr-3-1-30)
set(CPACK_DEBIAN_VIEWER_DESCRIPTION "show pictures of a rendering system and their samples
vel_disp shows a picture in a window, or two and where they differ: single
channels, exposure, the samples of each pixel. Without a window system it
prints a preview in the terminal.")
set(library_description "
Lumora reads, writes and converts image files of many formats, line by
line or whole, and gives threads shared access to large textures.")
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "image files of a rendering system${library_description}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "image files of a rendering system: development${library_description}
This package has the headers, the static library, documentation and
examples, and what CMake and pkg-config find the library by.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/package/triggers)

# What Debian wants to find in each package is added to the files before they are packed.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package/finish.cmake)
set(CPACK_LUMORA_PACKAGES tool:lumora-tools library:${library_package} development:liblumora-dev)
if(LUMORA_VIEWER)
  list(APPEND CPACK_LUMORA_PACKAGES viewer:lumora-viewer)
endif()
set(CPACK_LUMORA_FILES ${CMAKE_CURRENT_LIST_DIR}/package)
set(CPACK_LUMORA_STRIP ${CMAKE_STRIP})
include(CPack)
