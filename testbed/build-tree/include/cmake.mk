# SPDX-License-Identifier: ISC
# Stand-in: the program comes from a build folder (BUILD). With TARGET it is built there first,
# with the flags and options that a real build system gives CMake; libubox and libubus are in
# the folder already.
feed_libraries:=$(foreach name,ubox ubus,-DFWUPDATE_$(name)_INCLUDE_DIR=$(BUILD)/libraries/include \
	-DFWUPDATE_$(name)_LIBRARY=$(BUILD)/libraries/lib/lib$(name).so)

define Build/Configure/Default
	$(if $(TARGET),cmake -S $(FWUPDATE_SOURCE) -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release \
		--toolchain $(TOPDIR)/../../cmake/musl.cmake -DFWUPDATE_ARCH=$(TARGET) \
		-DCMAKE_C_FLAGS_RELEASE="-Os -DNDEBUG" -DCMAKE_CXX_FLAGS_RELEASE="-Os -DNDEBUG" \
		$(feed_libraries) $(CMAKE_OPTIONS) >$(BUILD)/feed.log && cmake --build $(BUILD) >>$(BUILD)/feed.log)
endef

define Build/Compile
	DESTDIR=$(PKG_INSTALL_DIR) cmake --install $(BUILD) --prefix /usr >/dev/null
endef
