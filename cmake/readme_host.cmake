# Extracts the README's host as a source file: the tests run it, and it is installed as an example.
include_guard(GLOBAL)
file(READ ${PROJECT_SOURCE_DIR}/README.md readme)
string(REGEX MATCH "```c\n([^`]*)```" ignored "${readme}")
set(TSLB_README_HOST ${PROJECT_BINARY_DIR}/readme/host.c)
file(CONFIGURE OUTPUT ${TSLB_README_HOST} CONTENT "${CMAKE_MATCH_1}" @ONLY)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md)
