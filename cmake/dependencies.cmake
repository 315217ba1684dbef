# The libraries we stand on, all from the distribution.
find_package(Threads REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl>=7.84)
pkg_check_modules(EXPAT REQUIRED IMPORTED_TARGET expat)
pkg_check_modules(LIBEVENT REQUIRED IMPORTED_TARGET libevent_core libevent_pthreads)
