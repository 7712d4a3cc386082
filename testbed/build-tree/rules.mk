# SPDX-License-Identifier: ISC
# Stand-in for the rules that a router's build system gives a package: only what
# the Makefiles in package/ use, and no compiler. STAGE is where everything goes.
INCLUDE_DIR:=$(TOPDIR)/include
STAGE?=$(error STAGE is not set: the folder to install into)
# What `make menuconfig` writes in a real one: CONFIG_NAME="VALUE" in each line.
-include $(CONFIG)

INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
CP:=cp -fpR
SED:=sed -i -e

qstrip=$(strip $(subst ",,$(1)))
