# cmake -DSOURCE=... -DFROM=... -DTO=... -DOUTPUT=... -P mutate.cmake: SOURCE with FROM, which must be there exactly once,
# replaced by TO.
file(READ ${SOURCE} text)
string(FIND "${text}" "${FROM}" first)
string(FIND "${text}" "${FROM}" last REVERSE)
if(first EQUAL -1 OR NOT first EQUAL last)
  message(FATAL_ERROR "${SOURCE} has not exactly one \"${FROM}\": the seeded fault must follow the code")
endif()
string(REPLACE "${FROM}" "${TO}" text "${text}")
file(WRITE ${OUTPUT} "#line 1 \"${SOURCE}\"\n${text}")
