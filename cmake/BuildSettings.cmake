# Warnings, sanitizers, coverage, ccache and source positions: one place for every target of ours.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

# Without these, looking at a file fails if its inode number has more than 32 bits, and times end in 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
  # g++ explains at length how it passed arguments before its version 7.
  add_compile_options(-Wno-psabi)
endif()

# Log lines name source files relative to the repository, wherever it was built.
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)

# Debian's compiler does this by default, but not when it links a sanitizer.
add_link_options(-Wl,--as-needed)

if(RFID_SANITIZE)
  add_compile_options(-fsanitize=${RFID_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${RFID_SANITIZE})
  if(RFID_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# Everything is counted, the tests too: the state machines' templates are instantiated there. Threads count at once.
if(RFID_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# Every target of ours but the generated code links this.
add_library(rfid_warnings INTERFACE)
target_compile_options(rfid_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 sees overlapping copies in every optimised `"text" + string` (its bug 105651).
  target_compile_options(rfid_warnings INTERFACE -Wno-restrict)
endif()
if(RFID_WERROR)
  target_compile_options(rfid_warnings INTERFACE -Werror)
endif()
