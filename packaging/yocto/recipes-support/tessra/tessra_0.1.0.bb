SUMMARY = "Event loop, containers and helpers for the daemons of small Linux devices"
SECTION = "libs"
LICENSE = "CLOSED"

# From the source tree that this layer stands in.
inherit cmake externalsrc pkgconfig
EXTERNALSRC = "${@os.path.realpath('${THISDIR}/../../../..')}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

# A device with a liblog of its own takes this out.
PACKAGECONFIG ??= "liblog"
PACKAGECONFIG[liblog] = "-DTESSRA_INSTALL_LIBLOG=ON,-DTESSRA_INSTALL_LIBLOG=OFF"

EXTRA_OECMAKE = "\
    -DTESSRA_BUILD_TESTS=OFF \
    -DTESSRA_BUILD_EXAMPLES=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"

# liblog.so has no version: it isn't a link for the development package, but the library.
PACKAGES =+ "${PN}-liblog"
FILES:${PN}-liblog = "${libdir}/liblog.so"
FILES:${PN} = "${libdir}/libtessra.so.*"
FILES:${PN}-dev = "${includedir} ${libdir}/libtessra.so ${libdir}/pkgconfig ${libdir}/cmake"
FILES:${PN}-staticdev = "${libdir}/libtessra.a ${libdir}/liblog.a"
FILES:${PN}-doc = "${mandir} ${docdir}"
SOLIBS = ".so.*"
INSANE_SKIP:${PN}-liblog = "dev-so"
