# Fails when an include runs up the library's layers or round in a circle.
#
#   cmake -DROOT=<source tree> -P check_layers.cmake
#
# The library's layers, bottom to top: wire, os and math (peers), diag,
# access, watch, feed. A layer includes only what lies below it or beside
# it; the watchdog (watch) drives the access object through the public
# headers alone and takes nothing of src/ but the wire's numbers; the public
# headers include nothing of src/; a program includes src/ only where its
# targets allow it (those linking orvaccess_internal, or orvmath for the
# maths). Two folders that include each other make a circle even when each
# include is allowed on its own.
cmake_minimum_required(VERSION 3.18)

if(NOT ROOT)
  message(FATAL_ERROR "usage: cmake -DROOT=<source tree> -P check_layers.cmake")
endif()

set(layers wire os math diag access watch feed)
# What each layer must not include.
set(forbidden_wire access diag watch feed)
set(forbidden_os access diag math watch feed)
set(forbidden_math access diag os watch feed)
set(forbidden_diag access watch feed)
set(forbidden_access watch feed)
set(forbidden_watch os math diag access feed)
set(forbidden_feed "")

# The layers each program folder may include, as its CMake targets link them.
set(programs_all_layers orvsim capture)         # through orvaccess_internal
set(programs_allowed_orvmon math watch)         # orvmath and orvwatch beside the shared library
set(programs_allowed_orvbridge math watch)
set(programs_allowed_openxr math)               # the library linked in whole, used as an application would
set(programs_allowed_common access)             # header-only readers of the library's keys
set(reach_hint "link orvaccess_internal, orvmath or orvwatch, and list the folder in check_layers.cmake")

set(problems "")
set(edges "")

# Appends to `out` the quoted includes of `file` naming a layer, as
# "line|layer|header".
function(layer_includes file out)
  # Read whole and cut at newlines: file(STRINGS) would also cut at every
  # semicolon and throw the line numbers off. Characters with a meaning in
  # CMake lists are neutralised first; the include lines do not hold them.
  file(READ "${file}" text)
  string(REPLACE "\\" "/" text "${text}")
  string(REPLACE "[" "(" text "${text}")
  string(REPLACE "]" ")" text "${text}")
  string(REPLACE ";" "," text "${text}")
  string(REPLACE "\n" ";" lines "${text}")
  set(found "")
  set(n 0)
  foreach(line IN LISTS lines)
    math(EXPR n "${n} + 1")
    if(line MATCHES "^[ \t]*#[ \t]*include[ \t]*[\"<]((wire|os|math|diag|access|watch|feed)/[^\">]*)[\">]")
      list(APPEND found "${n}|${CMAKE_MATCH_2}|${CMAKE_MATCH_1}")
    elseif(line MATCHES "^[ \t]*#[ \t]*include[ \t]*\"(\\.\\./[^\"]*)\"")
      list(APPEND found "${n}|..|${CMAKE_MATCH_1}")
    endif()
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

# ---- the library's layers ----
foreach(layer IN LISTS layers)
  file(GLOB_RECURSE files RELATIVE "${ROOT}" "${ROOT}/src/${layer}/*.hpp" "${ROOT}/src/${layer}/*.h"
       "${ROOT}/src/${layer}/*.cpp")
  foreach(f IN LISTS files)
    layer_includes("${ROOT}/${f}" incs)
    foreach(inc IN LISTS incs)
      string(REPLACE "|" ";" parts "${inc}")
      list(GET parts 0 line)
      list(GET parts 1 target)
      list(GET parts 2 header)
      if(target STREQUAL "..")
        list(APPEND problems "${f}:${line}: includes ${header} by a relative path: name it from src/")
      elseif(target IN_LIST forbidden_${layer})
        list(APPEND problems "${f}:${line}: ${layer} includes ${header}, from a layer it must not depend on")
      elseif(NOT target STREQUAL layer)
        list(APPEND edges "${layer}>${target}")
      endif()
    endforeach()
  endforeach()
endforeach()

list(REMOVE_DUPLICATES edges)
foreach(edge IN LISTS edges)
  string(REPLACE ">" ";" ends "${edge}")
  list(GET ends 0 from)
  list(GET ends 1 to)
  # Each pair once: report it from the first of the two in the layer order.
  list(FIND layers "${from}" i)
  list(FIND layers "${to}" j)
  if("${to}>${from}" IN_LIST edges AND i LESS j)
    list(APPEND problems "src/${from} and src/${to} include each other: a circle, one of them must not")
  endif()
endforeach()

# ---- the public headers ----
file(GLOB_RECURSE files RELATIVE "${ROOT}" "${ROOT}/include/*.h" "${ROOT}/include/*.hpp")
foreach(f IN LISTS files)
  layer_includes("${ROOT}/${f}" incs)
  foreach(inc IN LISTS incs)
    string(REPLACE "|" ";" parts "${inc}")
    list(GET parts 0 line)
    list(GET parts 2 header)
    list(APPEND problems "${f}:${line}: the public header includes ${header}, which is not installed")
  endforeach()
endforeach()

# ---- the programs ----
file(GLOB program_dirs RELATIVE "${ROOT}/programs" "${ROOT}/programs/*")
foreach(dir IN LISTS program_dirs)
  if(NOT IS_DIRECTORY "${ROOT}/programs/${dir}" OR dir IN_LIST programs_all_layers)
    continue()
  endif()
  file(GLOB_RECURSE files RELATIVE "${ROOT}" "${ROOT}/programs/${dir}/*.hpp" "${ROOT}/programs/${dir}/*.h"
       "${ROOT}/programs/${dir}/*.cpp" "${ROOT}/programs/${dir}/*.c")
  foreach(f IN LISTS files)
    layer_includes("${ROOT}/${f}" incs)
    foreach(inc IN LISTS incs)
      string(REPLACE "|" ";" parts "${inc}")
      list(GET parts 0 line)
      list(GET parts 1 target)
      list(GET parts 2 header)
      if(target STREQUAL "..")
        continue()  # programs/<dir>/../common and the like stay among the programs
      endif()
      if(NOT target IN_LIST programs_allowed_${dir})
        list(APPEND problems "${f}:${line}: ${dir} includes ${header}, but its targets do not reach src/${target} (${reach_hint})")
      endif()
    endforeach()
  endforeach()
endforeach()

if(problems)
  list(LENGTH problems count)
  string(REPLACE ";" "\n  " text "${problems}")
  message(FATAL_ERROR "${count} include(s) against the layers:\n  ${text}")
endif()
message(STATUS "layers ok: wire, os, math below diag below access below watch below feed; public headers and programs within bounds")
