# Compiles SOURCE and fails unless the compiler refuses it, with the words of its first line.
list(TRANSFORM INCLUDES PREPEND -I)
execute_process(COMMAND ${COMPILER} -std=c++20 -D_GNU_SOURCE -Werror=format ${INCLUDES} -fsyntax-only ${SOURCE}
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
file(STRINGS ${SOURCE} refusal LIMIT_COUNT 1 REGEX "^// Refused: ")
string(REPLACE "// Refused: " "" refusal "${refusal}")
string(FIND "${output}" "${refusal}" place)
if(status EQUAL 0)
  message(FATAL_ERROR "accepted")
elseif(refusal STREQUAL "" OR place EQUAL -1)
  message(FATAL_ERROR "refused, but not for \"${refusal}\":\n${output}")
endif()
