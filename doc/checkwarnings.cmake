# Run after Doxygen: every public declaration must carry a comment, so any
# warning Doxygen wrote fails the doc build (under ORVACCESS_WERROR; a CMake
# warning otherwise). Doxygen does not warn about an enumerator without a
# comment, so those are found in its XML output. The stamp is written only
# when nothing was found, so a failed check runs again at the next build.
#   cmake -DLOG=warnings.txt -DXML=xml -DSTAMP=checked.stamp -DWERROR=ON -P checkwarnings.cmake
file(READ "${LOG}" log)
string(REGEX MATCHALL "[^\n]+" lines "${log}")
file(GLOB xmlFiles "${XML}/*.xml")
foreach(xmlFile IN LISTS xmlFiles)
  file(READ "${xmlFile}" xml)
  string(REGEX MATCHALL
    "<name>[A-Za-z0-9_]+</name>[ \n]*(<initializer>[^<]*</initializer>[ \n]*)?<briefdescription>[ \n]*</briefdescription>[ \n]*<detaileddescription>[ \n]*</detaileddescription>[ \n]*</enumvalue>"
    bare "${xml}")
  foreach(value IN LISTS bare)
    string(REGEX REPLACE "^<name>([A-Za-z0-9_]+)</name>.*" "\\1" name "${value}")
    list(APPEND lines "enumerator ${name} is not documented.")
  endforeach()
endforeach()
if(NOT lines)
  file(TOUCH "${STAMP}")
  return()
endif()
list(LENGTH lines count)
list(SUBLIST lines 0 5 first)
list(JOIN first "\n  " first)
set(text "${count} public declaration(s) without a comment (Doxygen's log: ${LOG}); the first:\n  ${first}\n"
  "Give each a comment in the header's own style (// or /* */ above it, or after a record field or "
  "an enumerator): what it is, its unit, and for a function its parameters, result and failures. "
  "doc/comments.sed turns those comments into Doxygen's.")
if(WERROR)
  file(REMOVE "${STAMP}")
  message(FATAL_ERROR ${text})
endif()
message(WARNING ${text})
file(TOUCH "${STAMP}")
