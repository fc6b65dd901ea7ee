################################################################################
#
# qmxutil
#
################################################################################

QMXUTIL_VERSION = 1.0.0
QMXUTIL_SITE = $(call qstrip,$(BR2_PACKAGE_QMXUTIL_SOURCES))
QMXUTIL_SITE_METHOD = local
QMXUTIL_LICENSE = PROPRIETARY
QMXUTIL_LICENSE_FILES = LICENSE
QMXUTIL_REDISTRIBUTE = NO
QMXUTIL_INSTALL_STAGING = YES
QMXUTIL_SUPPORTS_IN_SOURCE_BUILD = NO
QMXUTIL_CONF_OPTS = -DQMX_BUILD_TESTS=OFF -DQMX_BUILD_EXAMPLES=OFF

ifneq ($(call qstrip,$(BR2_PACKAGE_QMXUTIL_BASE_LIBRARY)),)
QMXUTIL_CONF_OPTS += \
	-DQMX_BASE_LIBRARY=$(STAGING_DIR)/$(call qstrip,$(BR2_PACKAGE_QMXUTIL_BASE_LIBRARY))
endif

ifeq ($(BR2_PACKAGE_QMXUTIL_COMMAND),y)
QMXUTIL_CONF_OPTS += -DQMX_BUILD_TOOL=ON
QMXUTIL_DEPENDENCIES += cli11 json-for-modern-cpp
else
QMXUTIL_CONF_OPTS += -DQMX_BUILD_TOOL=OFF
endif

$(eval $(cmake-package))
