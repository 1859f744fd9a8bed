# What the Linux platform, the trace library and the tools link. Everything else needs the standard library alone.
find_package(PkgConfig REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd>=250)
find_package(pugixml REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(LIBDW REQUIRED IMPORTED_TARGET libdw)
