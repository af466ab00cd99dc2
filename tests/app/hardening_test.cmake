# cmake -DREADELF=FILE -DFORTIFIED=BOOL -DPROGRAMS=FILE,FILE... -P: executables lie at random addresses, their stacks
# are guarded and hold no code, and their link tables are read-only before `main`.
cmake_policy(VERSION 3.22)
set(wanted "Type: +DYN" "FLAGS_1[^\n]* NOW[^\n]*PIE" "GNU_RELRO" "GNU_STACK[^\n]* RW " "__stack_chk_fail")
if(FORTIFIED)
  list(APPEND wanted "__[a-z]+printf_chk")
endif()

string(REPLACE "," ";" programs "${PROGRAMS}")
foreach(program IN LISTS programs)
  execute_process(COMMAND "${READELF}" -hldW --dyn-syms "${program}" OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  foreach(pattern IN LISTS wanted)
    if(NOT text MATCHES "${pattern}")
      message(SEND_ERROR "${program}: nothing like \"${pattern}\"")
    endif()
  endforeach()
endforeach()
