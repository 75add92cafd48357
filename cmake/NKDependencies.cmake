# Third-party libraries, all from Debian's packages (scripts/install-deps).
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(ICU 70 REQUIRED COMPONENTS uc i18n)
pkg_check_modules(URIPARSER REQUIRED IMPORTED_TARGET liburiparser>=0.9)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0>=2.2)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0>=2.70 gio-2.0 gobject-2.0)
pkg_check_modules(GDKPIXBUF REQUIRED IMPORTED_TARGET gdk-pixbuf-2.0)
find_package(simdjson 3 REQUIRED)
