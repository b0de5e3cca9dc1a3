################################################################################
#
# bsp
#
################################################################################

BSP_VERSION = 1.0.0
# Set to where you keep the sources.
BSP_SITE = $(TOPDIR)/../bsp
BSP_SITE_METHOD = local
BSP_LICENSE = MIT
BSP_LICENSE_FILES = LICENSE
BSP_INSTALL_STAGING = YES
BSP_DEPENDENCIES = sqlite cli11 json-for-modern-cpp
BSP_CONF_OPTS = -DBSP_BUILD_TESTS=OFF -DBSP_BUILD_BENCH=OFF -DBSP_BUILD_EXAMPLES=OFF

define BSP_INSTALL_INIT_SYSTEMD
	mkdir -p $(TARGET_DIR)/etc/bsp
	$(INSTALL) -D -m 0644 $(@D)/packaging/com_srv_app.ini $(TARGET_DIR)/etc/bsp/com_srv_app.ini
endef

$(eval $(cmake-package))
