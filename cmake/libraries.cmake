# The library from the objects of its rooms, three times: packed into an archive and linked as a shared library, both of
# which export the public names and no others, and as a plain archive with all names for our own programs, whose tests
# and benchmarks call internals.
get_property(objects GLOBAL PROPERTY LUMORA_OBJECTS)
set(scope)
if(NOT LUMORA_INSTALL)
  set(scope EXCLUDE_FROM_ALL)  # only what the project around this one links is built
endif()

function(lumora_library name codec)
  target_link_libraries(${name} PUBLIC Threads::Threads PRIVATE ${codec})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
endfunction()

add_library(lumora_internal STATIC EXCLUDE_FROM_ALL ${objects})
lumora_library(lumora_internal ${LUMORA_CODEC})

# One object in which everything but the public names has become local, so that a program may have the same names. Groups
# of sections go first: they would still be compared with the program's by name. Only the linker of binutils does that.
find_program(LUMORA_LD ld.bfd REQUIRED)
find_program(LUMORA_OBJCOPY objcopy REQUIRED)
set(packed ${PROJECT_BINARY_DIR}/lumora_packed.o)
add_custom_command(OUTPUT ${packed} DEPENDS ${objects} VERBATIM COMMAND_EXPAND_LISTS
  COMMAND ${LUMORA_LD} -r --force-group-allocation -o ${packed}.all "${objects}"
  COMMAND ${LUMORA_OBJCOPY} --localize-hidden --wildcard --keep-global-symbol=ka_* --keep-global-symbol=__assert
          ${packed}.all ${packed}
  COMMAND ${CMAKE_COMMAND} -E rm ${packed}.all)
add_library(lumora_static STATIC ${scope} ${packed})
lumora_library(lumora_static JPEG::JPEG)
# The library is C++ inside: the C compiler has to be told of the C++ runtime. A shared library brings its own.
target_link_libraries(lumora_static INTERFACE $<$<LINK_LANGUAGE:C>:stdc++> $<$<LINK_LANGUAGE:C>:m>)
set_source_files_properties(${packed} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
set_target_properties(lumora_static PROPERTIES EXPORT_NAME static OUTPUT_NAME lumora)
add_library(Lumora::static ALIAS lumora_static)

set(names ${CMAKE_CURRENT_LIST_DIR}/lumora.map)
add_library(lumora_shared SHARED ${scope} ${objects})
lumora_library(lumora_shared JPEG::JPEG)
target_link_options(lumora_shared PRIVATE LINKER:--version-script=${names})
set_target_properties(lumora_shared PROPERTIES EXPORT_NAME shared OUTPUT_NAME lumora LINK_DEPENDS ${names}
                      SOVERSION ${PROJECT_VERSION_MAJOR} VERSION ${PROJECT_VERSION})
add_library(Lumora::shared ALIAS lumora_shared)

if(BUILD_SHARED_LIBS)
  set(LUMORA_KIND shared)
  set(LUMORA_FOR_TOOLS lumora_shared)
else()
  set(LUMORA_KIND static)
  set(LUMORA_FOR_TOOLS lumora_internal)  # only the rooms that a tool uses: it starts faster
endif()
add_library(lumora INTERFACE)
target_link_libraries(lumora INTERFACE lumora_${LUMORA_KIND})
add_library(Lumora::lumora ALIAS lumora)
