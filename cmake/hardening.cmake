# Hardening of optimised builds: checked copies, stack canaries, and a relocation table that is read-only from the start.
# `-z now` costs some microseconds at the start and nothing later. Sanitizers do the same work better and want neither.
if(NOT ZVX_SANITIZE)
  set(ZVX_OPTIMISED $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  target_compile_options(zvx_flags INTERFACE
    "$<$<AND:${ZVX_OPTIMISED},$<COMPILE_LANGUAGE:CXX,C>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2;-fstack-protector-strong>")
  target_link_options(zvx_flags INTERFACE "$<${ZVX_OPTIMISED}:LINKER:-z,relro,-z,now>")
endif()
# clang asks for no build identifier by itself; debuggers match dumps and debug information by it.
target_link_options(zvx_flags INTERFACE LINKER:--build-id=sha1)
