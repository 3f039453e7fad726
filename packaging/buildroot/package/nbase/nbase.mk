################################################################################
#
# nbase
#
################################################################################

NBASE_VERSION = 1.0.0
# The source that this external tree is a part of.
NBASE_SITE = $(realpath $(BR2_EXTERNAL_NOLVAR_PATH)/../..)
NBASE_SITE_METHOD = local
NBASE_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build --exclude /.git
NBASE_LICENSE = PROPRIETARY
NBASE_REDISTRIBUTE = NO
NBASE_INSTALL_STAGING = YES

NBASE_DEPENDENCIES = host-pkgconf libconfig
# The libraries are where the target's loader looks.
NBASE_CONF_OPTS = \
	-DCMAKE_SKIP_INSTALL_RPATH=ON \
	-DNBASE_BUILD_TESTS=OFF \
	-DNBASE_BUILD_EXAMPLES=OFF

ifeq ($(BR2_PACKAGE_QT5),y)
NBASE_DEPENDENCIES += qt5base
NBASE_CONF_OPTS += -DNBASE_QT=5
else
NBASE_DEPENDENCIES += qt
NBASE_CONF_OPTS += -DNBASE_QT=4
endif

ifeq ($(BR2_PACKAGE_NBASE_GUI),y)
NBASE_CONF_OPTS += -DNBASE_GUI=ON
else
NBASE_CONF_OPTS += -DNBASE_GUI=OFF
endif

ifeq ($(BR2_PACKAGE_LIBUCI),y)
NBASE_DEPENDENCIES += libuci
NBASE_CONF_OPTS += -DNBASE_SYSTEM_UCI=ON
else
NBASE_CONF_OPTS += -DNBASE_SYSTEM_UCI=OFF
endif

# Found by CMake where it is there.
ifeq ($(BR2_PACKAGE_QJSON),y)
NBASE_DEPENDENCIES += qjson
endif

$(eval $(cmake-package))
