# Runs the generator over a catalogue of commands when the tree is built. Lists of files are gathered when
# it is configured and watched from then on: a new family, a changed definition or a changed generator
# rebuilds exactly what follows from it.

# Everything that is generated, for tools that read sources.
add_custom_target(vorlinkit_generated)

# vorlinkit_catalogue_inputs(OUT FOLDER [OVERLAY...]): every file that a run of the generator reads.
function(vorlinkit_catalogue_inputs out folder)
  file(GLOB inputs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/generator/*.py ${folder}/*.toml)
  foreach(overlay IN LISTS ARGN)
    if(NOT IS_ABSOLUTE "${overlay}" OR NOT IS_DIRECTORY "${overlay}")
      message(FATAL_ERROR "VORLINKIT_CATALOGUE_OVERLAY: ${overlay} is not a folder (give a full path)")
    endif()
    file(GLOB found CONFIGURE_DEPENDS ${overlay}/*.toml)
    list(APPEND inputs ${found})
  endforeach()
  set(${out} ${inputs} PARENT_SCOPE)
endfunction()

# vorlinkit_catalogue_families(OUT FOLDER [OVERLAY...]): the families, each of which becomes one header and
# one source: the names of the files, except the control list.
function(vorlinkit_catalogue_families out folder)
  vorlinkit_catalogue_inputs(inputs ${folder} ${ARGN})
  set(families "")
  foreach(file IN LISTS inputs)
    get_filename_component(name ${file} NAME_WE)
    if(file MATCHES "\\.toml$" AND NOT name STREQUAL index)
      list(APPEND families ${name})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES families)
  set(${out} ${families} PARENT_SCOPE)
endfunction()

# vorlinkit_generate_commands(TARGET OUTPUT CATALOGUE FOLDER [OVERLAYS ...] [OPTIONS ...]): adds the C++ of a
# catalogue to TARGET. It is written below OUTPUT; OPTIONS go to the generator as they stand.
function(vorlinkit_generate_commands target output)
  cmake_parse_arguments(arg "" "CATALOGUE" "OVERLAYS;OPTIONS;BYPRODUCTS" ${ARGN})
  vorlinkit_catalogue_inputs(inputs ${arg_CATALOGUE} ${arg_OVERLAYS})
  vorlinkit_catalogue_families(families ${arg_CATALOGUE} ${arg_OVERLAYS})
  set(sources "")
  set(headers ${output}/include/vorlinkit/commands.hpp)
  foreach(family IN LISTS families)
    list(APPEND sources ${output}/commands/${family}.cpp)
    list(APPEND headers ${output}/commands/${family}.layout.hpp ${output}/include/vorlinkit/commands/${family}.hpp)
  endforeach()
  list(TRANSFORM arg_OVERLAYS PREPEND --overlay= OUTPUT_VARIABLE overlays)

  # Files are rewritten only when they change; the stamp alone says that the generator has run.
  add_custom_command(
    OUTPUT ${output}/${target}.stamp
    BYPRODUCTS ${sources} ${headers} ${arg_BYPRODUCTS}
    COMMAND ${CMAKE_COMMAND} -E env PYTHONDONTWRITEBYTECODE=1
            ${Python_EXECUTABLE} -m generator --catalogue ${arg_CATALOGUE} ${overlays} ${arg_OPTIONS} --cpp ${output}
    COMMAND ${CMAKE_COMMAND} -E touch ${output}/${target}.stamp
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    DEPENDS ${inputs}
    COMMENT "Generating commands from ${arg_CATALOGUE}"
    VERBATIM)
  add_custom_target(${target}_generated DEPENDS ${output}/${target}.stamp)
  add_dependencies(${target} ${target}_generated)
  add_dependencies(vorlinkit_generated ${target}_generated)
  target_sources(${target} PRIVATE ${sources})
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${output}/include> $<INSTALL_INTERFACE:include>
    PRIVATE ${output} ${PROJECT_SOURCE_DIR}/commands)
endfunction()

# vorlinkit_generate_package(TARGET CATALOGUE FOLDER [OVERLAYS ...] [OPTIONS ...] [DEPENDS ...]): adds TARGET, which runs
# the generator for the files that OPTIONS name and nothing else.
function(vorlinkit_generate_package target)
  cmake_parse_arguments(arg "" "CATALOGUE" "OVERLAYS;OPTIONS;DEPENDS" ${ARGN})
  vorlinkit_catalogue_inputs(inputs ${arg_CATALOGUE} ${arg_OVERLAYS})
  list(TRANSFORM arg_OVERLAYS PREPEND --overlay= OUTPUT_VARIABLE overlays)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${target}.stamp)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -E env PYTHONDONTWRITEBYTECODE=1
            ${Python_EXECUTABLE} -m generator --catalogue ${arg_CATALOGUE} ${overlays} ${arg_OPTIONS}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    DEPENDS ${inputs} ${arg_DEPENDS}
    COMMENT "Generating the Python package from ${arg_CATALOGUE}"
    VERBATIM)
  add_custom_target(${target} DEPENDS ${stamp})
  add_dependencies(vorlinkit_generated ${target})
endfunction()

# vorlinkit_generate_blocks(TARGET OUTPUT STUB CATALOGUE FOLDER SESSION_STUB FILE [OVERLAYS ...] [OPTIONS ...]):
# adds what the commands give to the extension module TARGET, written below OUTPUT, and writes the typing stub
# of the whole module, whose hand-written part is SESSION_STUB.
function(vorlinkit_generate_blocks target output stub)
  cmake_parse_arguments(arg "" "CATALOGUE;SESSION_STUB" "OVERLAYS;OPTIONS" ${ARGN})
  vorlinkit_catalogue_inputs(inputs ${arg_CATALOGUE} ${arg_OVERLAYS})
  vorlinkit_catalogue_families(families ${arg_CATALOGUE} ${arg_OVERLAYS})
  set(sources ${output}/python/commandBlocks.cpp)
  foreach(family IN LISTS families)
    list(APPEND sources ${output}/python/${family}.blocks.cpp)
  endforeach()
  list(TRANSFORM arg_OVERLAYS PREPEND --overlay= OUTPUT_VARIABLE overlays)

  add_custom_command(
    OUTPUT ${output}/${target}.stamp
    BYPRODUCTS ${sources} ${stub}
    COMMAND ${CMAKE_COMMAND} -E env PYTHONDONTWRITEBYTECODE=1
            ${Python_EXECUTABLE} -m generator --catalogue ${arg_CATALOGUE} ${overlays} ${arg_OPTIONS}
            --bindings ${output} --session-stub ${arg_SESSION_STUB} --stub ${stub}
    COMMAND ${CMAKE_COMMAND} -E touch ${output}/${target}.stamp
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    DEPENDS ${inputs} ${arg_SESSION_STUB}
    COMMENT "Generating the Python blocks of the commands"
    VERBATIM)
  add_custom_target(${target}_generated DEPENDS ${output}/${target}.stamp)
  add_dependencies(${target} ${target}_generated)
  add_dependencies(vorlinkit_generated ${target}_generated)
  target_sources(${target} PRIVATE ${sources})

  # Four families to a compiler run, if TARGET compiles groups together: the headers that all of them share cost as
  # much as a small family does.
  set(at 0)
  foreach(source IN LISTS sources)
    math(EXPR group "${at} / 4")
    math(EXPR at "${at} + 1")
    set_source_files_properties(${source} PROPERTIES UNITY_GROUP families${group})
  endforeach()
endfunction()
