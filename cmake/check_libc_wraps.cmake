# cmake -DNM=nm -DWRAPS=name,name... -DOBJECTS=file.o:file.o... -P check_libc_wraps.cmake
#
# The daemon's unit tests route its libc calls through -Wl,--wrap=NAME. The
# C library's headers may divert a call to another symbol, depending on the
# build's flags: large files (open -> open64), 64-bit time on 32-bit targets
# (nanosleep -> __nanosleep64, ppoll -> __ppoll64, wait4 -> __wait4_time64),
# fortification (read -> __read_chk). Such a call escapes its wrapper and
# reaches the real system in the middle of a test. This fails when an object
# calls a diverted form of a wrapped function that is not wrapped itself.
cmake_minimum_required(VERSION 3.18)
foreach(var NM WRAPS OBJECTS)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "check_libc_wraps: ${var} is not set")
  endif()
endforeach()
string(REPLACE ":" ";" objects "${OBJECTS}")
string(REPLACE "," ";" wraps "${WRAPS}")

execute_process(COMMAND "${NM}" -u ${objects}
  OUTPUT_VARIABLE listing ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "check_libc_wraps: ${NM} failed (${status}): ${errors}")
endif()
string(REGEX MATCHALL "[ \t]U [^\n]+" lines "${listing}")
set(called)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[ \t]U " "" symbol "${line}")
  string(STRIP "${symbol}" symbol)
  list(APPEND called "${symbol}")
endforeach()
list(REMOVE_DUPLICATES called)

set(wrapped_calls)
set(escaped)
foreach(name IN LISTS wraps)
  foreach(symbol IN LISTS called)
    if(symbol STREQUAL name)
      list(APPEND wrapped_calls "${symbol}")
    elseif(symbol MATCHES "^(__)?${name}(64)?(_time64|_chk|_2)?$")
      if(symbol IN_LIST wraps)
        list(APPEND wrapped_calls "${symbol}")
      else()
        list(APPEND escaped "${symbol} (a form of ${name})")
      endif()
    endif()
  endforeach()
endforeach()

# Objects that call none of the wrapped functions were not the daemon's,
# or nm read nothing: the check would prove nothing.
if(NOT wrapped_calls)
  message(FATAL_ERROR "check_libc_wraps: no call of a wrapped function found in ${objects}")
endif()
list(REMOVE_DUPLICATES wrapped_calls)
list(JOIN wrapped_calls " " shown)
message(STATUS "wrapped calls: ${shown}")
if(escaped)
  list(JOIN escaped "\n  " shown)
  message(FATAL_ERROR "calls that escape -Wl,--wrap (add them to ALD_LIBC_WRAPS and to the double):\n  ${shown}")
endif()
