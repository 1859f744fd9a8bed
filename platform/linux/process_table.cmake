# The process table, the host's statistics and the power log.
target_sources(quorveld_platform_linux PRIVATE
  host_statistics.cpp
  kernel_memory.cpp
  kernel_memory_text.cpp
  memory_cgroups.cpp
  power_log.cpp
  process_table.cpp
  process_table_records.cpp
  procfs_parse.cpp
  procfs_reader.cpp
  procfs_source.cpp)

include(${PROJECT_SOURCE_DIR}/cmake/bpf.cmake)
if(QUORVELD_BPF_MISSING)
  message(STATUS "Process table: BPF is off (${QUORVELD_BPF_MISSING} is missing); /proc serves in its place")
  target_sources(quorveld_platform_linux PRIVATE bpf_source_absent.cpp)
else()
  set(task_walk ${CMAKE_CURRENT_BINARY_DIR}/task_walk.bpf.o)
  set(task_iterator ${CMAKE_CURRENT_BINARY_DIR}/task_iterator.bpf.o)
  quorveld_bpf_object(task_walk.bpf.c ${task_walk})
  quorveld_bpf_object(task_iterator.bpf.c ${task_iterator})
  target_sources(quorveld_platform_linux PRIVATE bpf_object.cpp bpf_source.cpp)
  set_source_files_properties(bpf_object.cpp PROPERTIES
    OBJECT_DEPENDS "${task_walk};${task_iterator}"
    COMPILE_DEFINITIONS "QUORVELD_TASK_WALK=\"${task_walk}\";QUORVELD_TASK_ITERATOR=\"${task_iterator}\"")
  target_link_libraries(quorveld_platform_linux PRIVATE PkgConfig::LIBBPF)
endif()
