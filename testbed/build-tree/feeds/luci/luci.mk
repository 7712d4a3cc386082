# SPDX-License-Identifier: ISC
# Stand-in for the include of LuCI's own feed: htdocs/ goes below /www, root/ to /.
PKG_NAME?=$(notdir $(CURDIR))
PKG_VERSION?=0
PKG_RELEASE?=1
include $(INCLUDE_DIR)/package.mk

define Package/$(PKG_NAME)
  SECTION:=luci
  CATEGORY:=LuCI
  TITLE:=$(LUCI_TITLE)
  DEPENDS:=$(LUCI_DEPENDS)
  PKGARCH:=all
endef

define Build/Compile
endef

define Package/$(PKG_NAME)/install
	$(INSTALL_DIR) $(1)/www
	$(CP) $(CURDIR)/htdocs/. $(1)/www/
	$(CP) $(CURDIR)/root/. $(1)/
endef

$(eval $(call BuildPackage,$(PKG_NAME)))
