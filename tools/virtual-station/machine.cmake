# Writes the page's module "machine.js": the state machine (MACHINE, from rfid-diagram) and where its states stand on the
# page (LAYOUT). Fails unless every state has its place. Called with MACHINE, LAYOUT and OUTPUT.
cmake_minimum_required(VERSION 3.25)
file(READ "${MACHINE}" machine)
file(READ "${LAYOUT}" layouts)

# The elements of an array, or the keys of an object, below a path in a document.
function(items result document)
  set(list "")
  string(JSON count LENGTH "${document}" ${ARGN})
  string(JSON type TYPE "${document}" ${ARGN})
  math(EXPR last "${count} - 1")
  foreach(i RANGE ${last})
    if(type STREQUAL "ARRAY")
      string(JSON item GET "${document}" ${ARGN} ${i})
    else()
      string(JSON item MEMBER "${document}" ${ARGN} ${i})
    endif()
    list(APPEND list "${item}")
  endforeach()
  set(${result} "${list}" PARENT_SCOPE)
endfunction()

items(states "${machine}" states)
list(APPEND states Start) # the dot that the first state is entered from
foreach(form IN ITEMS wide narrow)
  items(places "${layouts}" ${form} at)
  foreach(state IN LISTS states)
    if(NOT state IN_LIST places)
      message(FATAL_ERROR "${LAYOUT}: the state ${state} has no place in \"${form}\"")
    endif()
  endforeach()
  foreach(place IN LISTS places)
    if(NOT place IN_LIST states)
      message(FATAL_ERROR "${LAYOUT}: \"${form}\" has a place for ${place}, which is no state of the machine")
    endif()
  endforeach()
endforeach()
file(WRITE "${OUTPUT}" "// Generated from the state machine's table and layout.json.
export const machine = ${machine};
export const layouts = ${layouts};
")
