# Extracts the README's hosts, the first and the last program in C, as source files: the tests run them, and they are
# installed as examples.
include_guard(GLOBAL)
file(READ ${PROJECT_SOURCE_DIR}/README.md readme)
string(REGEX MATCH "```c\n([^`]*)```.*```c\n([^`]*)```" ignored "${readme}")
set(TSLB_README_HOST ${PROJECT_BINARY_DIR}/readme/host.c)
set(TSLB_README_DURABLE_HOST ${PROJECT_BINARY_DIR}/readme/durable_host.c)
file(CONFIGURE OUTPUT ${TSLB_README_HOST} CONTENT "${CMAKE_MATCH_1}" @ONLY)
file(CONFIGURE OUTPUT ${TSLB_README_DURABLE_HOST} CONTENT "${CMAKE_MATCH_2}" @ONLY)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md)
