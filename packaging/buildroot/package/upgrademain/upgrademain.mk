################################################################################
#
# upgrademain
#
################################################################################

UPGRADEMAIN_VERSION = local
UPGRADEMAIN_SITE = $(call qstrip,$(BR2_PACKAGE_UPGRADEMAIN_SOURCE))
UPGRADEMAIN_SITE_METHOD = local
UPGRADEMAIN_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build --exclude /.cache
UPGRADEMAIN_DEPENDENCIES = libevent libmd liboping
UPGRADEMAIN_SUPPORTS_IN_SOURCE_BUILD = NO
# A new warning from an untested compiler must not break the image.
UPGRADEMAIN_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DKV_TESTS=OFF \
	-DKV_KVTOOL=OFF \
	-DKV_VBOARD=OFF \
	-DKV_HARDEN=ON \
	-DKV_WERROR=OFF

ifeq ($(BR2_PACKAGE_UPGRADEMAIN_SIGNED),y)
UPGRADEMAIN_TRUSTED_KEY = $(call qstrip,$(BR2_PACKAGE_UPGRADEMAIN_TRUSTED_KEY))
ifeq ($(BR_BUILDING)$(UPGRADEMAIN_TRUSTED_KEY),y)
$(error BR2_PACKAGE_UPGRADEMAIN_TRUSTED_KEY names no file)
endif
UPGRADEMAIN_DEPENDENCIES += libsodium
UPGRADEMAIN_CONF_OPTS += -DKV_TRUSTED_KEY=$(UPGRADEMAIN_TRUSTED_KEY)
endif

define UPGRADEMAIN_INSTALL_TARGET_CMDS
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(UPGRADEMAIN_BUILDDIR) --prefix /usr --component device
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/scripts/upgrade_prepare.sh $(TARGET_DIR)/usr/sbin/upgrade_prepare.sh
	$(UPGRADEMAIN_INSTALL_EXAMPLES)
endef

# The files come from the copied sources, which need not be the tree that contains this recipe.
UPGRADEMAIN_FILES = $(@D)/packaging

ifeq ($(BR2_PACKAGE_UPGRADEMAIN_EXAMPLES),y)
define UPGRADEMAIN_INSTALL_EXAMPLES
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/scripts/wifi_connect.sh $(TARGET_DIR)/root/wifi_connect.sh
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/scripts/wifi_reset.sh $(TARGET_DIR)/usr/bin/wifi_reset.sh
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/scripts/startapp.sh $(TARGET_DIR)/usr/bin/startapp.sh
endef
endif

define UPGRADEMAIN_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/scripts/upgrade_keep_log.sh \
		$(TARGET_DIR)/usr/sbin/upgrade_keep_log.sh
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/init/S50upgrademain $(TARGET_DIR)/etc/init.d/S50upgrademain
endef

define UPGRADEMAIN_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0755 $(UPGRADEMAIN_FILES)/scripts/upgrade_keep_log.sh \
		$(TARGET_DIR)/usr/sbin/upgrade_keep_log.sh
	$(INSTALL) -D -m 0644 $(UPGRADEMAIN_FILES)/systemd/upgrademain-log.service \
		$(TARGET_DIR)/usr/lib/systemd/system/upgrademain-log.service
	$(INSTALL) -D -m 0644 $(UPGRADEMAIN_FILES)/systemd/upgrademain.service \
		$(TARGET_DIR)/usr/lib/systemd/system/upgrademain.service
	$(INSTALL) -D -m 0644 $(UPGRADEMAIN_FILES)/systemd/upgrademain.conf \
		$(TARGET_DIR)/usr/lib/systemd/system.conf.d/upgrademain.conf
endef

$(eval $(cmake-package))
