# One folder is one layer: an OBJECT library whose include directory is the folder itself, so that a header
# is included by its bare name and only from the layers below.

set(QVL_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(QVL_WARNINGS_AS_ERRORS)
  list(APPEND QVL_WARNINGS -Werror)
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  list(APPEND QVL_WARNINGS -Wno-restrict)  # false for "text" + std::string (GCC bug 105651)
endif()

add_library(qvl_options INTERFACE)
target_compile_options(qvl_options INTERFACE ${QVL_WARNINGS} -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
target_link_libraries(qvl_options INTERFACE Threads::Threads ${CMAKE_DL_LIBS})
if(QVL_SANITIZE)
  target_compile_options(qvl_options INTERFACE -fsanitize=${QVL_SANITIZE} -fno-sanitize-recover=all
                                               -fno-omit-frame-pointer)
  target_link_options(qvl_options INTERFACE -fsanitize=${QVL_SANITIZE})
endif()

# qvl_layer(NAME SOURCES file... USES layer... [DIRS dir...])
function(qvl_layer name)
  cmake_parse_arguments(LAYER "" "" "SOURCES;USES;DIRS" ${ARGN})
  add_library(${name} OBJECT ${LAYER_SOURCES})
  if(NOT LAYER_DIRS)
    set(LAYER_DIRS ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  target_include_directories(${name} PUBLIC ${LAYER_DIRS})
  target_link_libraries(${name} PUBLIC ${LAYER_USES} PRIVATE qvl_options)
endfunction()

# The layers of the library, from the ground up. A program that links the objects names them all.
set(QVL_LAYERS platform foundation tagformat transport bfl tcl tagops api adaptor)
