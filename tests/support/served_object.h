// SPDX-License-Identifier: ISC
// A bus object of the test program itself with one method, on a broker of its own: for unit tests
// of a handler, whose records can then be set before a call and seen after it. Calls are made with
// PendingCall(...).wait_in_uloop(). For programs that hold the daemon's objects.
#pragma once

#include <stdexcept>

#include "base/bus.h"
#include "support/bus_services.h"

namespace router_test
{

class ServedObject
{
public:
	// The daemon's connection is this object's while it lives. Throws std::runtime_error when
	// the bus does not take it.
	ServedObject(const char *name, const ubus_method &method) : method_(method)
	{
		uloop_init();
		fwupdate::bus_connection = ubus_connect(nullptr);
		if (fwupdate::bus_connection == nullptr) {
			throw std::runtime_error("no connection to the broker");
		}
		ubus_add_uloop(fwupdate::bus_connection);
		type_ = {.name = name, .id = 0, .methods = &method_, .n_methods = 1};
		object_.name = name;
		object_.type = &type_;
		object_.methods = &method_;
		object_.n_methods = 1;
		if (ubus_add_object(fwupdate::bus_connection, &object_) != 0) {
			throw std::runtime_error("the broker does not take the object");
		}
	}
	~ServedObject()
	{
		ubus_free(fwupdate::bus_connection);
		fwupdate::bus_connection = nullptr;
		uloop_done();
	}
	ServedObject(const ServedObject &) = delete;

private:
	BusServices broker_{BusServices::Which::broker_only};
	ubus_method method_;
	ubus_object_type type_ = {};
	ubus_object object_ = {};
};

} // namespace router_test
