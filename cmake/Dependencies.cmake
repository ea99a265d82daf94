# The libraries that the framework, the program and the plug-in link. Those that only tests and
# benchmarks need are looked for there.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(spdlog REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(RE2 REQUIRED IMPORTED_TARGET re2)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
# The C++ build of the interpreter: its errors are exceptions, so destructors run.
pkg_check_modules(LUA REQUIRED IMPORTED_TARGET lua5.2-c++)
# The service manager and the journal: the headers, since the program loads the library itself.
pkg_check_modules(SYSTEMD REQUIRED libsystemd)
# A rovik's link over TLS.
pkg_check_modules(OPENSSL REQUIRED IMPORTED_TARGET openssl>=3.0)
