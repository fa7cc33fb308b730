# Run after Doxygen: every public declaration must carry a comment, so any
# warning Doxygen wrote fails the doc build (under ORVACCESS_WERROR; a CMake
# warning otherwise). The stamp is written only when the log is empty, so a
# failed check runs again at the next build.
#   cmake -DLOG=warnings.txt -DSTAMP=checked.stamp -DWERROR=ON -P checkwarnings.cmake
file(READ "${LOG}" log)
if(log STREQUAL "")
  file(TOUCH "${STAMP}")
  return()
endif()
string(REGEX MATCHALL "[^\n]+" lines "${log}")
list(LENGTH lines count)
list(SUBLIST lines 0 5 first)
list(JOIN first "\n  " first)
set(text "Doxygen warned ${count} time(s) about the public headers (${LOG}); the first:\n  ${first}\n"
  "Give each named declaration a comment in the header's own style (// or /* */ above it, or after a "
  "record field): what it is, its unit, and for a function its parameters, result and failures. "
  "doc/comments.sed turns those comments into Doxygen's.")
if(WERROR)
  file(REMOVE "${STAMP}")
  message(FATAL_ERROR ${text})
endif()
message(WARNING ${text})
file(TOUCH "${STAMP}")
