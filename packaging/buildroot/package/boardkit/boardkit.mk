################################################################################
#
# boardkit
#
################################################################################

BOARDKIT_VERSION = 1.0.0
BOARDKIT_SITE = https://boardkit.example/releases
BOARDKIT_LICENSE = MIT
BOARDKIT_LICENSE_FILES = LICENSE
BOARDKIT_INSTALL_STAGING = YES
BOARDKIT_CONF_OPTS = \
	-DBOARDKIT_TESTS=OFF \
	-DBOARDKIT_EXAMPLES=OFF \
	-DBOARDKIT_SIM=OFF \
	-DBOARDKIT_BENCH=OFF

ifeq ($(BR2_PACKAGE_BOARDKIT_TOOLS),y)
BOARDKIT_DEPENDENCIES += cli11 json-for-modern-cpp
BOARDKIT_CONF_OPTS += -DBOARDKIT_TOOLS=ON
else
BOARDKIT_CONF_OPTS += -DBOARDKIT_TOOLS=OFF
endif

$(eval $(cmake-package))
