# Checks that the subsystem folders depend one way: a file includes headers of
# its own folder, of the folders below it, and the public headers, never a
# header of a folder above it. Run as a test:
#   cmake -DSOURCE_DIR=<project> -P cmake/CheckLayering.cmake
# Bottom first; a folder may include any folder before it in this list.
set(layers foundation registry transport state client remote host)

if(NOT SOURCE_DIR)
  message(FATAL_ERROR "SOURCE_DIR is not set")
endif()

set(violations "")
list(LENGTH layers count)
math(EXPR last "${count} - 1")
foreach(rank RANGE ${last})
  list(GET layers ${rank} folder)
  file(GLOB sources "${SOURCE_DIR}/${folder}/*.h" "${SOURCE_DIR}/${folder}/*.cpp")
  foreach(source ${sources})
    file(STRINGS "${source}" includes REGEX "^[ \t]*#[ \t]*include[ \t]+\"[a-z_]+/")
    foreach(line ${includes})
      string(REGEX REPLACE "^[^\"]*\"([a-z_]+)/.*$" "\\1" target "${line}")
      list(FIND layers "${target}" targetRank)
      if(targetRank GREATER rank)
        file(RELATIVE_PATH shown "${SOURCE_DIR}" "${source}")
        string(APPEND violations "  ${shown} includes ${target}/ (above ${folder}/)\n")
      endif()
    endforeach()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Folders include headers of folders above them:\n${violations}")
endif()
message(STATUS "Layering: every folder includes only itself and the folders below it")
