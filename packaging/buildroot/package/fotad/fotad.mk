################################################################################
#
# fotad
#
################################################################################

# The sources are those that this folder is a part of: nothing is downloaded,
# so there is no hash.
FOTAD_VERSION = 0.1.0
FOTAD_SITE = $(BR2_EXTERNAL_FOTA_PATH)/../..
FOTAD_SITE_METHOD = local
FOTAD_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
FOTAD_INSTALL_STAGING = YES
FOTAD_DEPENDENCIES = host-pkgconf openssl pugixml
FOTAD_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=Release \
	-DFOTA_BUILD_HOST_TOOLS=OFF \
	-DFOTA_BUILD_TESTS=OFF

ifeq ($(BR2_PACKAGE_SYSTEMD),y)
FOTAD_CONF_OPTS += -DFOTA_PLATFORM=systemd
FOTAD_DEPENDENCIES += systemd
endif

ifeq ($(BR2_PACKAGE_FOTAD_TOOLS),y)
FOTAD_CONF_OPTS += -DFOTA_BUILD_TOOLS=ON
FOTAD_DEPENDENCIES += cli11 json-for-modern-cpp
else
FOTAD_CONF_OPTS += -DFOTA_BUILD_TOOLS=OFF
endif

ifeq ($(BR2_PACKAGE_FOTAD_WEB),y)
FOTAD_CONF_OPTS += -DFOTA_BUILD_WEB=ON
FOTAD_DEPENDENCIES += libmicrohttpd
define FOTAD_WEB_USERS
	fotaweb -1 fotaweb -1 - - - - Firmware update page
endef
else
FOTAD_CONF_OPTS += -DFOTA_BUILD_WEB=OFF
endif

define FOTAD_USERS
	- -1 fota -1 - - - - May send requests
	$(FOTAD_WEB_USERS)
endef

define FOTAD_INSTALL_INIT_SYSV
	ln -sf fotad $(TARGET_DIR)/etc/init.d/S90fotad
endef

$(eval $(cmake-package))
