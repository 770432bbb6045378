# Third-party libraries, all from Debian packages (scripts/install-deps.sh).
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(simdjson REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
# PCRE2 (8-bit code units) runs the request layer's URL host extractors.
pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
# ICU's transforms spell text in ASCII (the User-Agent).
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-i18n icu-uc)
# Asio (queues, timers) is header-only; Boost.URL is a compiled library.
find_package(Boost 1.81 REQUIRED COMPONENTS url)
# The URL loading service runs on libcurl (multi interface) over OpenSSL.
find_package(CURL REQUIRED)
# Image decoding: libspng (PNG), libjpeg-turbo, giflib, libtiff, libwebp (with its demuxer for
# animations); pixman converts between pixel layouts.
pkg_check_modules(SPNG REQUIRED IMPORTED_TARGET spng)
pkg_check_modules(JPEG REQUIRED IMPORTED_TARGET libjpeg)
pkg_check_modules(TIFF REQUIRED IMPORTED_TARGET libtiff-4)
pkg_check_modules(WEBP REQUIRED IMPORTED_TARGET libwebp libwebpdemux)
pkg_check_modules(PIXMAN REQUIRED IMPORTED_TARGET pixman-1)
find_package(GIF 5 REQUIRED)
# Reachability reads the kernel's routing state and its changes over rtnetlink.
pkg_check_modules(MNL REQUIRED IMPORTED_TARGET libmnl)
# expat: the event-driven XML parser.
pkg_check_modules(EXPAT REQUIRED IMPORTED_TARGET expat)
