SUMMARY = "Event loop, containers and helpers for the daemons of small Linux devices"
SECTION = "libs"
LICENSE = "CLOSED"

# Builds the source tree that contains this layer.
inherit cmake externalsrc pkgconfig
EXTERNALSRC = "${@os.path.realpath('${THISDIR}/../../../..')}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

# Remove "liblog" for a device that has its own.
PACKAGECONFIG ??= "liblog"
PACKAGECONFIG[liblog] = "-DTESSRA_INSTALL_LIBLOG=ON,-DTESSRA_INSTALL_LIBLOG=OFF"

EXTRA_OECMAKE = "\
    -DTESSRA_BUILD_TESTS=OFF \
    -DTESSRA_BUILD_EXAMPLES=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"

# liblog.so has no version: it is the library itself, not a link of the development package.
PACKAGES =+ "${PN}-liblog"
FILES:${PN}-liblog = "${libdir}/liblog.so"
FILES:${PN} = "${libdir}/libtessra.so.*"
FILES:${PN}-dev = "${includedir} ${libdir}/libtessra.so ${libdir}/pkgconfig ${libdir}/cmake"
FILES:${PN}-staticdev = "${libdir}/libtessra.a ${libdir}/liblog.a"
FILES:${PN}-doc = "${mandir} ${docdir}"
SOLIBS = ".so.*"
INSANE_SKIP:${PN}-liblog = "dev-so"
