################################################################################
#
# tessra
#
################################################################################

TESSRA_VERSION = 0.1.0
TESSRA_SITE = $(realpath $(BR2_EXTERNAL_TESSRA_PATH)/../..)
TESSRA_SITE_METHOD = local
TESSRA_EXCLUDES = build
TESSRA_INSTALL_STAGING = YES
TESSRA_SUPPORTS_IN_SOURCE_BUILD = NO

TESSRA_CONF_OPTS = \
	-DTESSRA_BUILD_TESTS=OFF \
	-DTESSRA_BUILD_EXAMPLES=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON \
	-DTESSRA_INSTALL_LIBLOG=$(if $(BR2_PACKAGE_TESSRA_LIBLOG),ON,OFF)

$(eval $(cmake-package))
