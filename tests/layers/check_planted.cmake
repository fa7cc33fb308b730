# The layer check on a small tree with known faults planted in it: each one
# must be named, with its file and line, and the allowed includes beside
# them must not be.
#
#   cmake -DCHECK=<check_layers.cmake> -DWORK=<scratch folder> -P check_planted.cmake
cmake_minimum_required(VERSION 3.18)

file(REMOVE_RECURSE "${WORK}")
function(plant path)
  string(REPLACE ";" "\n" text "${ARGN}")
  file(WRITE "${WORK}/${path}" "${text}\n")
endfunction()

# Allowed: downwards, beside a peer, and a program's maths.
plant(src/os/Clock.hpp "#pragma once")
plant(src/wire/Codec.hpp "#pragma once" "#include \"os/Clock.hpp\"")
plant(src/diag/Log.cpp "#include \"os/Clock.hpp\"" "#include \"math/Rot.hpp\"")
plant(src/access/Use.cpp "#include \"diag/Log.hpp\"" "#include <vector>")
plant(src/watch/Dog.hpp "#pragma once" "#include \"orvaccess/OrvAccess.hpp\"" "#include \"wire/Codec.hpp\"")
plant(src/feed/Feed.cpp "#include \"watch/Dog.hpp\"" "#include \"access/Use.hpp\"")
plant(programs/orvbridge/Main.cpp "#include \"watch/Dog.hpp\"")
plant(src/math/Rot.hpp "#pragma once")
plant(programs/orvmon/View.cpp "#include \"math/Rot.hpp\"")
plant(programs/orvsim/Sim.cpp "#include \"access/State.hpp\"")
plant(include/orvaccess/api.h "#include <stdint.h>")
# Planted faults.
# Semicolons, a lone bracket and a backslash before it must not throw the
# line count off.
file(WRITE "${WORK}/src/os/Clock.cpp"
     "#include \"os/Clock.hpp\"\nint x; char s[] = \"[;\\\\\"; // [a;b\n#include \"diag/Log.hpp\"\n")
plant(src/math/Rot.cpp "  #  include <access/State.hpp>")
plant(src/os/Ring.hpp "#pragma once" "#include \"wire/Codec.hpp\"")
plant(src/access/Rel.cpp "#include \"../diag/Log.hpp\"")
plant(include/orvaccess/bad.h "#include \"access/State.hpp\"")
plant(programs/orvctl/main.cpp "" "#include \"math/Rot.hpp\"")
plant(src/watch/Dog.cpp "#include \"watch/Dog.hpp\"" "#include \"access/State.hpp\"")
plant(src/access/Run.cpp "#include \"feed/Ring.hpp\"")

execute_process(COMMAND ${CMAKE_COMMAND} -DROOT=${WORK} -P ${CHECK}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(out "${out}${err}")
if(rc EQUAL 0)
  message(FATAL_ERROR "the check passed a tree with planted faults:\n${out}")
endif()
foreach(want
    "8 include\\(s\\) against the layers"
    "src/os/Clock.cpp:3: os includes diag/Log.hpp"
    "src/math/Rot.cpp:1: math includes access/State.hpp"
    "src/wire and src/os include each other"
    "src/access/Rel.cpp:1: includes ../diag/Log.hpp by a relative path"
    "include/orvaccess/bad.h:1: the public header includes access/State.hpp"
    "programs/orvctl/main.cpp:2: orvctl includes math/Rot.hpp"
    "src/watch/Dog.cpp:2: watch includes access/State.hpp"
    "src/access/Run.cpp:1: access includes feed/Ring.hpp")
  if(NOT out MATCHES "${want}")
    message(FATAL_ERROR "the check did not report '${want}':\n${out}")
  endif()
endforeach()
foreach(allowed Codec.hpp:2 Log.cpp Use.cpp View.cpp Sim.cpp api.h Dog.hpp Feed.cpp Main.cpp)
  if(out MATCHES "${allowed}")
    message(FATAL_ERROR "the check reported an allowed include (${allowed}):\n${out}")
  endif()
endforeach()
file(REMOVE_RECURSE "${WORK}")
message(STATUS "every planted fault reported, nothing else")
