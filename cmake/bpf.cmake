# BPF programs: compiled with clang whatever compiles the rest, loaded with libbpf. Where one of them is missing,
# QUORVELD_BPF_MISSING names it and the daemon is built without.
pkg_check_modules(LIBBPF IMPORTED_TARGET libbpf>=1.0)
find_program(QUORVELD_BPF_CLANG NAMES clang clang-19 clang-16 clang-15 clang-14)
set(QUORVELD_BPF_MISSING "")
if(NOT LIBBPF_FOUND)
  set(QUORVELD_BPF_MISSING "libbpf")
elseif(NOT QUORVELD_BPF_CLANG)
  set(QUORVELD_BPF_MISSING "clang")
endif()

# quorveld_bpf_object(SOURCE OBJECT): compiles SOURCE, a .bpf.c file of this folder, to OBJECT.
function(quorveld_bpf_object source object)
  set(werror "")
  if(CMAKE_COMPILE_WARNING_AS_ERROR)
    set(werror -Werror)
  endif()
  add_custom_command(
    OUTPUT ${object}
    COMMAND ${QUORVELD_BPF_CLANG} -target bpf -ffreestanding -O2 -g -Wall ${werror} -I${PROJECT_SOURCE_DIR}
            -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.  # its debug information ships
            -MD -MT ${object} -MF ${object}.d -c ${CMAKE_CURRENT_SOURCE_DIR}/${source} -o ${object}
    DEPENDS ${source}
    DEPFILE ${object}.d
    COMMENT "Compiling BPF program ${source}"
    VERBATIM)
endfunction()
