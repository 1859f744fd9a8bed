# What the Linux platform, the trace library and the tools link; everything else needs the standard library alone.
# The daemon itself can't be without the first three. What else is missing switches off what needs it, and says so.
find_package(PkgConfig REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd>=250)
find_package(pugixml REQUIRED)
find_package(nlohmann_json REQUIRED)

pkg_check_modules(LIBDW IMPORTED_TARGET libdw)
if(NOT LIBDW_FOUND)
  message(STATUS "libdw is missing (libdw-dev): the trace library is left out; hangs are counted, no report is written")
endif()
find_package(CLI11)
if(NOT CLI11_FOUND)
  message(STATUS "CLI11 is missing (libcli11-dev): quorvelctl is left out")
endif()
pkg_check_modules(LIBTRACEFS IMPORTED_TARGET libtracefs)
if(NOT LIBTRACEFS_FOUND)
  message(STATUS "libtracefs is missing (libtracefs-dev): kelvanectl is left out; nothing starts the flight recorder")
endif()
