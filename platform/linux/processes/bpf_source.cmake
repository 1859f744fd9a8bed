# The look at all processes in one pass of the kernel's own, where libbpf and clang are there to build it with.
include(${PROJECT_SOURCE_DIR}/cmake/bpf.cmake)
if(QUORVELD_BPF_MISSING)
  message(STATUS "Process table: BPF is off (${QUORVELD_BPF_MISSING} is missing); /proc serves in its place")
  target_sources(quorveld_platform_linux PRIVATE processes/bpf_source_absent.cpp)
else()
  set(task_walk ${CMAKE_CURRENT_BINARY_DIR}/task_walk.bpf.o)
  set(task_iterator ${CMAKE_CURRENT_BINARY_DIR}/task_iterator.bpf.o)
  quorveld_bpf_object(processes/task_walk.bpf.c ${task_walk})
  quorveld_bpf_object(processes/task_iterator.bpf.c ${task_iterator})
  target_sources(quorveld_platform_linux PRIVATE processes/bpf_loading.cpp processes/bpf_object.cpp processes/bpf_source.cpp)
  set_source_files_properties(processes/bpf_object.cpp PROPERTIES
    OBJECT_DEPENDS "${task_walk};${task_iterator}"
    COMPILE_DEFINITIONS "QUORVELD_TASK_WALK=\"${task_walk}\";QUORVELD_TASK_ITERATOR=\"${task_iterator}\"")
  target_link_libraries(quorveld_platform_linux PRIVATE PkgConfig::LIBBPF)
endif()
