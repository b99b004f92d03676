# Writes the version constants; rewrites the file only when they change so
# that an unchanged tree does not relink.
set(SOFTWARE "${PROJECT_VERSION}")
set(HASH "unknown")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND ${GIT_EXECUTABLE} describe --always --dirty --tags
    WORKING_DIRECTORY ${SOURCE_DIR} OUTPUT_VARIABLE DESCRIBE
    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE DESCRIBE_RESULT)
  if(DESCRIBE_RESULT EQUAL 0 AND DESCRIBE)
    set(SOFTWARE "${PROJECT_VERSION}-${DESCRIBE}")
  endif()
  execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse HEAD
    WORKING_DIRECTORY ${SOURCE_DIR} OUTPUT_VARIABLE REV
    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE REV_RESULT)
  if(REV_RESULT EQUAL 0 AND REV)
    set(HASH "${REV}")
  endif()
endif()
set(CONTENT "// Generated at build time.
#include \"vostrelka/version.h\"

namespace vostrelka {
namespace version {
const char* const SOFTWARE = \"${SOFTWARE}\";
const char* const SOFTWARE_HASH = \"${HASH}\";
}  // namespace version
}  // namespace vostrelka
")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" OLD)
endif()
if(NOT "${OLD}" STREQUAL "${CONTENT}")
  file(WRITE "${OUTPUT}" "${CONTENT}")
endif()
