# The inner layers of the node core, lowest first. A file of nodes/src/<area>/
# may include the internal headers of its own area and of the areas before it,
# never of one after it; the files directly in nodes/src (module registration,
# configuration) stand above every area. A new area takes its place in this
# list before its first file lands: an area missing here fails the check.
#
#   cmake -DSOURCE_DIR=<nodes/src> -P check_layers.cmake
set(ORVIX_NODE_LAYERS
    store
    validation
    attributes
    userstate
    classes
    templates
    transfer
    persistence
    descriptions
    graphmodel
    diagnostics)

if(NOT SOURCE_DIR)
  message(FATAL_ERROR "check_layers: SOURCE_DIR is not set")
endif()

file(GLOB_RECURSE sources RELATIVE "${SOURCE_DIR}" "${SOURCE_DIR}/*.h" "${SOURCE_DIR}/*.cpp")
list(SORT sources)
set(breaches "")
foreach(source IN LISTS sources)
  if(NOT source MATCHES "/")
    continue()  # top level: may include every area
  endif()
  string(REGEX REPLACE "/.*" "" area "${source}")
  list(FIND ORVIX_NODE_LAYERS "${area}" level)
  if(level EQUAL -1)
    list(APPEND breaches "${source}: the area '${area}' has no place in the layer list")
    continue()
  endif()
  file(STRINGS "${SOURCE_DIR}/${source}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"]+\"")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[^\"]*\"([^\"]+)\".*" "\\1" header "${line}")
    if(NOT header MATCHES "/" OR header MATCHES "^orvix/")
      continue()  # published headers and the host and graph layers
    endif()
    string(REGEX REPLACE "/.*" "" target "${header}")
    list(FIND ORVIX_NODE_LAYERS "${target}" targetLevel)
    if(targetLevel EQUAL -1 OR targetLevel GREATER level)
      list(APPEND breaches "${source} includes ${header}: ${area} may not depend on ${target}")
    endif()
  endforeach()
endforeach()

list(LENGTH sources count)
if(breaches)
  list(JOIN breaches "\n  " text)
  message(FATAL_ERROR "The inner layers of nodes/src are broken:\n  ${text}")
endif()
message(STATUS "nodes/src: ${count} files keep the layers")
