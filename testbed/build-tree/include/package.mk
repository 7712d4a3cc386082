# SPDX-License-Identifier: ISC
# Stand-in: `make install` carries out each package's install step into
# STAGE/PACKAGE; `make fields` prints what the Makefile says about each.
PKG_BUILD_DIR:=$(STAGE)/.build/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR:=$(STAGE)/.install/$(PKG_NAME)
.DEFAULT_GOAL:=install

# A definition on one line, its white space as one blank each.
flat=$(strip $(subst $(newline), ,$(1)))
define newline


endef

define Build/Prepare
endef

# What a package may depend on: the packages of this clone and those of the feeds. A real
# build system only warns about any other name, and leaves the package out.
FEED_NAMES:=$(file <$(TOPDIR)/names) $(notdir $(patsubst %/Makefile,%,$(wildcard $(CURDIR)/../*/Makefile)))
# "+NAME", "+SYMBOL:NAME" and "NAME" name a package, "@SYMBOL" does not.
depended=$(lastword $(subst :, ,$(patsubst +%,%,$(1))))
unknown=$(strip $(foreach word,$(filter-out @%,$(1)),$(filter-out $(FEED_NAMES),$(call depended,$(word)))))

prepare:
	$(call Build/Prepare)

configure: prepare
	$(call Build/Configure)

compile: configure
	$(call Build/Compile)

fields:
	$(info PKG_NAME=$(PKG_NAME))
	$(info PKG_VERSION=$(PKG_VERSION))
	$(info PKG_RELEASE=$(PKG_RELEASE))
	$(info PKG_LICENSE=$(PKG_LICENSE))
	$(info PKG_LICENSE_FILES=$(PKG_LICENSE_FILES))
	$(info PKG_MAINTAINER=$(PKG_MAINTAINER))
	$(info PKG_ASLR_PIE_REGULAR=$(PKG_ASLR_PIE_REGULAR))
	$(info PKG_CONFIG_DEPENDS=$(PKG_CONFIG_DEPENDS))
	$(info CMAKE_OPTIONS=$(strip $(CMAKE_OPTIONS)))

# What runs on a router before and after a package comes and goes: STAGE/PACKAGE.SCRIPT,
# empty where it has none.
scripts:=preinst postinst prerm postrm

# The fields stand in a definition of assignments; evaluated, they are variables.
define BuildPackage
$(eval DEPENDS:=)$(eval $(Package/$(1)))
$(if $(call unknown,$(DEPENDS)),$(error $(1) depends on what no feed has: $(call unknown,$(DEPENDS))))
install: install-$(1)
install-$(1): compile
	mkdir -p $$(STAGE)/$(1)
	$$(call Package/$(1)/install,$$(STAGE)/$(1))
	$$(foreach script,$(scripts),$$(file >$$(STAGE)/$(1).$$(script),$$(Package/$(1)/$$(script))))

fields: fields-$(1)
fields-$(1):
	$$(eval $$(Package/$(1)))
	$$(foreach field,SECTION CATEGORY SUBMENU TITLE DEPENDS DEFAULT PKGARCH,$$(info $(1).$$(field)=$$(strip $$($$(field)))))
	$$(info $(1).conffiles=$$(call flat,$$(Package/$(1)/conffiles)))
	$$(info $(1).config=$$(call flat,$$(Package/$(1)/config)))
	$$(info $(1).description=$$(call flat,$$(Package/$(1)/description)))

.PHONY: install install-$(1) fields fields-$(1) prepare configure compile
endef
